// Inner node of the file tree.
#ifndef DOLM_DIRECTORY_H
#define DOLM_DIRECTORY_H

#include <deque>

#include "IFile.h"

namespace image_editor {

class DOLM_API Directory : public IFile {
  public:
    Directory();

    // A directory with a block of its own; data and size as in File.
    Directory(const void *data, uint32_t size);

    bool isDirectory() const override;

    // Length of the own block and the sizes of all children, and 12 if the directory has a name.
    uint32_t getSize() const override;

    // Puts file among the children, under the name that it has and at its place in the order. path
    // is not looked at, and a child of the same name may already be there. True unless file is
    // null.
    bool addFile(const std::string &path, const std::shared_ptr<IFile> &file) override;

    // Removes the first child that has the name in front of the first "/" in path; if something
    // follows that "/", it is the path to remove below that child. False if a name is not found
    // or empty.
    bool deleteFile(const std::string &path) override;

    // The first child whose name is the whole of path; "/" has no meaning here. False if there is
    // none or out is null.
    bool getFile(const std::string &path, std::shared_ptr<IFile> *out) override;

    // A directory with a name appends its own record, with offset 0, if it has a block. The
    // children follow in their order.
    void serialize(std::vector<_cfg_file_entry_t> &entries, std::vector<uint8_t> &data) override;

    // Sorted by fileCompare. Whoever changes it directly keeps it so.
    std::deque<std::shared_ptr<IFile>> children;
};

} // namespace image_editor

#endif
