// Node of the file tree that holds a configuration store in memory.
#ifndef DOLM_IFILE_H
#define DOLM_IFILE_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "FCS.h"
#include "dolm_api.h"

namespace image_editor {

class Directory;

// A file or a directory. A directory owns its children by shared pointers; parent is a plain
// observer, so a tree has no ownership cycle. Nothing in the library sets parent and parentPath:
// whoever builds a tree deeper than one level links it by hand.
//
// The operations allocate and let std::bad_alloc out; a node is then as it was, except where
// noted.
class DOLM_API IFile {
  public:
    IFile(const IFile &) = delete;
    IFile &operator=(const IFile &) = delete;

    // True for a Directory, and for nothing else.
    virtual bool isDirectory() const = 0;

    // Bytes that the node takes in a serialised store: records and payloads.
    virtual uint32_t getSize() const = 0;

    // Makes file a child. False if the node takes no children or file is null.
    virtual bool addFile(const std::string &path, const std::shared_ptr<IFile> &file) = 0;

    // Removes the node that path names below this one. False if there is none.
    virtual bool deleteFile(const std::string &path) = 0;

    // Stores the child that path names in out. False, with out untouched, if there is none.
    virtual bool getFile(const std::string &path, std::shared_ptr<IFile> *out) = 0;

    // Appends the node's record to entries and its payload to data, then those of its children.
    // Sets the offset in the node's own record to the length that data had. After an exception
    // the offsets of some nodes are new and both vectors hold a part.
    virtual void serialize(std::vector<_cfg_file_entry_t> &entries, std::vector<uint8_t> &data) = 0;

    virtual ~IFile();

    // parentPath, "/" and name; the bare name if parentPath is empty.
    std::string getFullPath() const;

    // Longest name in characters. A longer one is cut.
    static constexpr uint32_t max_name_length = 48;

    std::vector<uint8_t> block;     // record and payload; never changes its length
    char name[max_name_length + 1]; // zero-filled behind its end; empty in a new directory
    _cfg_file_entry_t *entry;       // start of block; null if block is empty
    std::string parentPath;         // path of the containing directory
    Directory *parent;              // the containing directory

  protected:
    // A node without block and name.
    IFile();

    // A node with a copy of size bytes at data: a record, whose size field is corrected in the
    // copy, and its payload. Throws std::invalid_argument if data is null or size is below 12.
    IFile(const void *data, uint32_t size);
};

// True if a's name orders before b's as a string of unsigned bytes. Neither may be null.
DOLM_API bool fileCompare(const std::shared_ptr<IFile> &a, const std::shared_ptr<IFile> &b);

} // namespace image_editor

#endif
