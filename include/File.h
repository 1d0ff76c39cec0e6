// Leaf of the file tree: one file with its record and its payload.
#ifndef DOLM_FILE_H
#define DOLM_FILE_H

#include "IFile.h"

namespace image_editor {

class DOLM_API File : public IFile {
  public:
    // data: size bytes, at least 12, that start with the file's record. Both data and name are
    // copied; of the record only the size field is changed in the copy, to size - 12. name: a
    // terminated string, cut at 48 characters.
    // Throws std::invalid_argument if data or name is null or size is below 12.
    File(const void *data, uint32_t size, const char *name);

    bool isDirectory() const override;
    uint32_t getSize() const override;

    // A file has no children: these three have no effect and give false.
    bool addFile(const std::string &path, const std::shared_ptr<IFile> &file) override;
    bool deleteFile(const std::string &path) override;
    bool getFile(const std::string &path, std::shared_ptr<IFile> *out) override;

    void serialize(std::vector<_cfg_file_entry_t> &entries, std::vector<uint8_t> &data) override;
};

} // namespace image_editor

#endif
