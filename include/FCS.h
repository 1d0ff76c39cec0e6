// Configuration store: a flat set of small files behind a handle, and its serialised form.
// docs/formats.md tells the bytes.
//
// A store keeps copies of what it is given and no pointer to any of it. All stores share the one
// file table (efs_tools_utils.h), which has to be loaded first: without it a loaded buffer gives
// an empty store and no file can be added. A store belongs to one caller at a time.
#ifndef DOLM_FCS_H
#define DOLM_FCS_H

#include <cstddef>
#include <cstdint>
#include <memory>

#include "dolm_api.h"
#include "efs_tools_utils.h"

#pragma pack(push, 1)

// Record of one file of a store. The same 12 little-endian bytes serve in a serialised store and
// in front of a file's payload in memory.
struct _cfg_file_entry_t {
    fileno_t fileno; // key into the file table
    uint32_t offset; // where the payload starts in the serialised store, in bytes
    uint16_t size;   // payload length in bytes
    uint16_t opaque; // kept and written back unchanged
};

#pragma pack(pop)

static_assert(sizeof(_cfg_file_entry_t) == 12, "packed");
static_assert(offsetof(_cfg_file_entry_t, fileno) == 0, "packed");
static_assert(offsetof(_cfg_file_entry_t, offset) == 4, "packed");
static_assert(offsetof(_cfg_file_entry_t, size) == 8, "packed");
static_assert(offsetof(_cfg_file_entry_t, opaque) == 10, "packed");

namespace image_editor {
class IFile;
class FileIterator;
} // namespace image_editor

// What a handle points to.
struct FcsHandle {
    std::shared_ptr<image_editor::IFile> root; // a Directory without name that holds all files
    std::shared_ptr<image_editor::FileIterator> iterator; // the store's one walk, over root
};

// Results of the operations. 7 is not used.
enum FcsResult : uint32_t {
    FCS_OK = 0,
    FCS_INVALID_ARGUMENT = 1,  // a required pointer is null
    FCS_NAME_NOT_IN_TABLE = 2, // a file without number has a name that the file table lacks
    FCS_NO_MORE_FILES = 3,     // the walk has nothing more to report
    FCS_FILE_NOT_FOUND = 4,
    FCS_BUFFER_TOO_SMALL = 5, // too little capacity, or a block shorter than its record
    FCS_INVALID_HANDLE = 6,   // the handle is null or only partly built
    FCS_NUMBER_NOT_IN_TABLE = 8,
    FCS_ALLOC_FAILED = 9,
    FCS_BAD_STORE = 10, // a serialised store was refused
    FCS_FILE_EXISTS = 11,
    FCS_FILE_TOO_LARGE = 12, // the file table allows less
};

DOLM_EXTERN_C_BEGIN

// Tests are made in the order in which the results are listed. A failure leaves the store as it
// was unless said otherwise. FCS_ALLOC_FAILED can come from every operation that takes memory.

// Makes an empty store and puts its handle into the variable that handle points to.
// FCS_INVALID_ARGUMENT: handle is null.
// FCS_ALLOC_FAILED: the variable is null or holds a partly built handle, good for closeHandle only.
DOLM_API uint32_t createHandle(void **handle);

// Makes a store from the length bytes of a serialised one. buffer may go when the call returns.
// FCS_INVALID_ARGUMENT: handle or buffer is null.
// FCS_ALLOC_FAILED: as createHandle.
// FCS_BAD_STORE: loadDataFromFcsBuffer refused the bytes; the variable is null.
DOLM_API uint32_t createHandleFromStructure(void **handle, const void *buffer, uint32_t length);

// Adds the files of a serialised store, length bytes long, to a store. A record whose number the
// file table does not list is skipped.
// False: handle or buffer is null; the record table or a payload reaches past length; a payload
// is longer than 65523 bytes; two files have the same name; memory ran out. What was added before
// stays in the store.
DOLM_API bool loadDataFromFcsBuffer(void *handle, const void *buffer, uint32_t length);

// Releases a store and sets the handle variable to null.
// FCS_INVALID_ARGUMENT: handle is null. FCS_INVALID_HANDLE: the variable is null.
DOLM_API uint32_t closeHandle(void **handle);

// Serialises a store to buffer. length: capacity of buffer in bytes in, length of the store out.
// The offset in each file's own record becomes its place behind the record table, also if the
// call fails after its first two tests.
// FCS_INVALID_HANDLE. FCS_INVALID_ARGUMENT: length is null.
// FCS_ALLOC_FAILED: no memory, or the store is longer than 32 bits can say.
// FCS_BUFFER_TOO_SMALL: the length needed is in length; buffer may be null.
// FCS_INVALID_ARGUMENT: buffer is null although the capacity suffices; length is unchanged.
DOLM_API uint32_t flush(void *handle, void *buffer, uint32_t *length);

// Adds a file under name, of which 48 characters are kept, and restarts the walk.
// directory: not null, otherwise without effect. block: a record and its payload, length bytes in
// all. If its file number is 0, the number that the file table has for name is written into it.
// checkSize: hold the payload against the file table's limit.
// FCS_INVALID_HANDLE. FCS_BUFFER_TOO_SMALL: length is below 12. FCS_INVALID_ARGUMENT: block is
// null, or the file number is 0 and name is null. FCS_NAME_NOT_IN_TABLE. FCS_NUMBER_NOT_IN_TABLE.
// FCS_FILE_TOO_LARGE. FCS_INVALID_ARGUMENT: directory or name is null. FCS_FILE_EXISTS: the store
// keeps its own version. FCS_ALLOC_FAILED. FCS_FILE_NOT_FOUND: the root took no file.
DOLM_API uint32_t addNewFile(void *handle, const char *directory, const char *name, void *block,
                             uint16_t length, bool checkSize);

// Removes a file and restarts the walk. path goes by components: a name with a "/" inside is not
// found, and one "/" behind a name without any is ignored.
// FCS_INVALID_HANDLE. FCS_INVALID_ARGUMENT: path is null. FCS_FILE_NOT_FOUND.
DOLM_API uint32_t deleteFile(void *handle, const char *path);

// Copies a file's record and payload to out. length: capacity of out in bytes in, 12 + payload
// out.
// FCS_INVALID_HANDLE. FCS_INVALID_ARGUMENT: out, length or name is null. FCS_FILE_NOT_FOUND.
// FCS_BUFFER_TOO_SMALL: the length needed is in length.
DOLM_API uint32_t getFileData(void *handle, const char *name, void *out, uint32_t *length);

// Fills the 18 bytes at out with a file's record (12), and the flag word (2) and largest value
// size (4) of its name in the file table, little-endian. The record's offset is that of the
// loaded buffer or of the last flush.
// FCS_INVALID_HANDLE. FCS_INVALID_ARGUMENT: out or name is null. FCS_FILE_NOT_FOUND.
// FCS_NUMBER_NOT_IN_TABLE: the node has no record, or the name is not in the file table; in the
// second case the record has been copied.
DOLM_API uint32_t getFileAttributes(void *handle, const char *name, void *out);

// Restart the walk, or go one file on, and copy the file's name with its terminator to name, which
// takes up to 49 bytes. Files come in the order of their names.
// FCS_INVALID_HANDLE. FCS_NO_MORE_FILES: name is untouched, and getNextFile goes on giving this.
// FCS_INVALID_ARGUMENT: name is null; the walk has not moved.
DOLM_API uint32_t getFirstFileInRoot(void *handle, char *name);
DOLM_API uint32_t getNextFile(void *handle, char *name);

// True if record is not null. Nothing else is tested.
DOLM_API bool validateAttributs(const _cfg_file_entry_t *record);

DOLM_EXTERN_C_END

#endif
