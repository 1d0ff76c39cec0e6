#include "FCS.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <string>
#include <vector>

#include "Directory.h"
#include "File.h"
#include "FileIterator.h"
#include "common/hash_index.h"
#include "common/little_endian.h"
#include "fcs/file_table.h"

using dolm::load_le16;
using dolm::load_le32;
using dolm::store_le16;
using dolm::store_le32;
using image_editor::Directory;
using image_editor::File;
using image_editor::FileIterator;
using image_editor::IFile;

namespace {

// Serialised store. Offsets in bytes; every integer is little-endian.
//   0 u32 count | 4 records, 12 each | payloads, back to back in the order of the records
constexpr uint32_t count_size = sizeof(uint32_t);
constexpr uint32_t record_size = sizeof(_cfg_file_entry_t);
constexpr size_t fileno_at = offsetof(_cfg_file_entry_t, fileno);
constexpr size_t offset_at = offsetof(_cfg_file_entry_t, offset);
constexpr size_t size_at = offsetof(_cfg_file_entry_t, size);

// Head that getFileAttributes fills:
//   0 record | 12 u16 attributes | 14 u32 maximum size
constexpr size_t head_attributes_at = record_size;
constexpr size_t head_max_size_at = head_attributes_at + sizeof(file_attributes_t);

// The tree and its containers report exhausted memory by exceptions, and none of those may leave
// a C function.
template <typename Operation>
uint32_t guarded(Operation operation) noexcept {
    try {
        return operation();
    } catch (...) {
        return FCS_ALLOC_FAILED;
    }
}

// The store behind a handle; null if there is none, or one that createHandle could not finish.
FcsHandle *open_store(void *handle) {
    auto *store = static_cast<FcsHandle *>(handle);
    const bool whole = store != nullptr && store->root != nullptr && store->iterator != nullptr;
    return whole ? store : nullptr;
}

using files_of_store = decltype(Directory::children);

files_of_store &files_of(const FcsHandle &store) {
    return static_cast<Directory &>(*store.root).children;
}

// Files come in the order of their names, for the most part.
bool comes_behind_all(const files_of_store &files, const char *name) {
    return files.empty() || std::strcmp(files.back()->name, name) < 0;
}

// The file that the walk stands on, which is the one that a host mostly asks for.
IFile *file_of_walk(const FcsHandle &store) {
    const auto &files = files_of(store);
    const auto position = static_cast<size_t>(store.iterator->index);
    return position < files.size() ? files[position].get() : nullptr;
}

// A store's tree is changed by the functions of this file alone, so its root is in order and can
// be searched by halves.
IFile *find_file(const FcsHandle &store, const char *name) {
    const auto &files = files_of(store);
    if (comes_behind_all(files, name)) {
        return nullptr;
    }
    IFile *const at_walk = file_of_walk(store);
    if (at_walk != nullptr && std::strcmp(at_walk->name, name) == 0) {
        return at_walk;
    }
    const auto place = std::lower_bound(
        files.begin(), files.end(), name,
        [](const auto &file, const char *wanted) { return std::strcmp(file->name, wanted) < 0; });
    return place != files.end() && std::strcmp((*place)->name, name) == 0 ? place->get() : nullptr;
}

// The tree's records count from the start of the data area, those of the buffer from its start.
void write_store(uint8_t *out, const std::vector<_cfg_file_entry_t> &records,
                 const std::vector<uint8_t> &payloads) {
    const size_t table_bytes = records.size() * record_size;
    store_le32(out, static_cast<uint32_t>(records.size()));
    uint8_t *record = out + count_size;
    for (const _cfg_file_entry_t &source : records) {
        std::memcpy(record, &source, record_size);
        const size_t offset = load_le32(record + offset_at) + table_bytes + count_size;
        store_le32(record + offset_at, static_cast<uint32_t>(offset));
        record += record_size;
    }
    std::copy(payloads.begin(), payloads.end(), record);
}

// Puts a record and the payload that it names in a buffer into block. False if the payload
// reaches past the end.
bool read_block(const uint8_t *buffer, uint32_t length, const uint8_t *record,
                std::vector<uint8_t> &block) {
    const uint16_t size = load_le16(record + size_at);
    const uint32_t offset = load_le32(record + offset_at);
    block.assign(record, record + record_size);
    if (size == 0) {
        return true; // its offset has no meaning
    }
    if (uint64_t{offset} + size > length) {
        return false;
    }
    block.insert(block.end(), buffer + offset, buffer + offset + size);
    return true;
}

// Fills in the number of a record that has none, by name. False if the file table lacks the name.
bool complete_number(uint8_t *record, const char *name) {
    fileno_t fileno = load_le32(record + fileno_at);
    if (fileno != 0) {
        return true;
    }
    if (get_fileno_by_file_name(name, &fileno) != 0) {
        return false;
    }
    store_le32(record + fileno_at, fileno);
    return true;
}

const file_table_entry_t *entry_of(const uint8_t *record) {
    const fileno_t fileno = load_le32(record + fileno_at);
    return get_file_entry_by_fileno(&fileno);
}

// Adds the file of a block whose number the file table lists, and restarts the walk.
uint32_t add_file(const FcsHandle &store, const char *name, const void *block, uint32_t length) {
    if (find_file(store, name) != nullptr) {
        return FCS_FILE_EXISTS;
    }
    if (!store.root->addFile(name, std::make_shared<File>(block, length, name))) {
        return FCS_FILE_NOT_FOUND;
    }
    store.iterator->rewind();
    return FCS_OK;
}

// Adds many files to a store. While it lives, those that come out of order stand behind the others:
// its end sorts all once, where a place for each in the order would cost moves of half of them.
class bulk_addition {
  public:
    explicit bulk_addition(const FcsHandle &store) : store_(store), files_(files_of(store)) {}
    bulk_addition(const bulk_addition &) = delete;
    bulk_addition &operator=(const bulk_addition &) = delete;

    ~bulk_addition() {
        if (!in_order_) {
            std::sort(files_.begin(), files_.end(), image_editor::fileCompare);
        }
    }

    // False if there is a file of that name, or without memory.
    bool add(const char *name, const std::vector<uint8_t> &block) {
        if (in_order_ && !comes_behind_all(files_, name) && !leave_order()) {
            return false;
        }
        if (!in_order_ && is_taken(name)) {
            return false;
        }
        files_.push_back(
            std::make_shared<File>(block.data(), static_cast<uint32_t>(block.size()), name));
        store_.iterator->rewind();
        return in_order_ || enter(files_.back());
    }

  private:
    // From here on names are found through the index.
    bool leave_order() {
        in_order_ = false;
        return std::all_of(files_.begin(), files_.end(),
                           [this](const auto &file) { return enter(file); });
    }

    bool enter(const std::shared_ptr<IFile> &file) {
        return names_.add(dolm::hash_of(file->name), file.get());
    }

    bool is_taken(const char *name) const {
        return names_.find(dolm::hash_of(name), [name](const IFile &file) {
            return std::strcmp(file.name, name) == 0;
        }) != nullptr;
    }

    const FcsHandle &store_;
    files_of_store &files_;
    bool in_order_ = true;
    dolm::hash_index<IFile> names_; // of all files, once they are out of order
};

// Adds the file of a block under the name that the file table has for its number. A number that
// is not in the table is no failure: the file is left out.
bool add_loaded_file(bulk_addition &addition, std::vector<uint8_t> &block) {
    const file_table_entry_t *entry = entry_of(block.data());
    if (entry == nullptr) {
        return true;
    }
    char name[sizeof(entry->name) + 1] = {}; // the entry's own may have no terminator
    std::memcpy(name, entry->name, sizeof(entry->name));
    // A longer block could not be added again: its length is passed on in 16 bits.
    return block.size() <= UINT16_MAX && complete_number(block.data(), name) &&
           addition.add(name, block);
}

uint32_t load_records(const FcsHandle &store, const uint8_t *buffer, uint32_t length) {
    if (length < count_size) {
        return FCS_BAD_STORE;
    }
    const uint32_t count = load_le32(buffer);
    if (count_size + uint64_t{count} * record_size > length) {
        return FCS_BAD_STORE;
    }
    bulk_addition addition(store);
    std::vector<uint8_t> block;
    const uint8_t *record = buffer + count_size;
    for (uint32_t i = 0; i < count; ++i, record += record_size) {
        if (!read_block(buffer, length, record, block) || !add_loaded_file(addition, block)) {
            return FCS_BAD_STORE;
        }
    }
    return FCS_OK;
}

uint32_t make_store(void *&handle) {
    auto *store = new (std::nothrow) FcsHandle;
    handle = store;
    if (store == nullptr) {
        return FCS_ALLOC_FAILED;
    }
    return guarded([store]() -> uint32_t {
        store->root = std::make_shared<Directory>();
        store->iterator = std::make_shared<FileIterator>(store->root);
        return FCS_OK;
    });
}

bool load_store(void *handle, const void *buffer, uint32_t length) {
    return guarded([&]() -> uint32_t {
               const FcsHandle *store = open_store(handle);
               return store == nullptr
                          ? FCS_INVALID_HANDLE
                          : load_records(*store, static_cast<const uint8_t *>(buffer), length);
           }) == FCS_OK;
}

void release_store(void *&handle) {
    delete static_cast<FcsHandle *>(handle);
    handle = nullptr;
}

uint32_t report_step(void *handle, char *name, std::string (FileIterator::*step)()) {
    return guarded([&]() -> uint32_t {
        const FcsHandle *store = open_store(handle);
        if (store == nullptr) {
            return FCS_INVALID_HANDLE;
        }
        FileIterator ahead = *store->iterator; // the walk moves only when the step has succeeded
        const std::string found = (ahead.*step)();
        if (!found.empty() && name == nullptr) {
            return FCS_INVALID_ARGUMENT;
        }
        *store->iterator = ahead;
        if (found.empty()) {
            return FCS_NO_MORE_FILES;
        }
        std::memcpy(name, found.c_str(), found.size() + 1);
        return FCS_OK;
    });
}

} // namespace

uint32_t createHandle(void **handle) {
    if (handle == nullptr) {
        return FCS_INVALID_ARGUMENT;
    }
    return make_store(*handle);
}

uint32_t createHandleFromStructure(void **handle, const void *buffer, uint32_t length) {
    if (handle == nullptr || buffer == nullptr) {
        return FCS_INVALID_ARGUMENT;
    }
    if (const uint32_t status = make_store(*handle); status != FCS_OK) {
        return status;
    }
    if (!load_store(*handle, buffer, length)) {
        release_store(*handle);
        return FCS_BAD_STORE;
    }
    return FCS_OK;
}

bool loadDataFromFcsBuffer(void *handle, const void *buffer, uint32_t length) {
    if (handle == nullptr || buffer == nullptr) {
        return false;
    }
    return load_store(handle, buffer, length);
}

uint32_t closeHandle(void **handle) {
    if (handle == nullptr) {
        return FCS_INVALID_ARGUMENT;
    }
    if (*handle == nullptr) {
        return FCS_INVALID_HANDLE;
    }
    release_store(*handle);
    return FCS_OK;
}

uint32_t flush(void *handle, void *buffer, uint32_t *length) {
    return guarded([&]() -> uint32_t {
        const FcsHandle *store = open_store(handle);
        if (store == nullptr) {
            return FCS_INVALID_HANDLE;
        }
        if (length == nullptr) {
            return FCS_INVALID_ARGUMENT;
        }
        std::vector<_cfg_file_entry_t> records;
        std::vector<uint8_t> payloads;
        store->root->serialize(records, payloads);
        const uint64_t total = count_size + records.size() * record_size + payloads.size();
        if (total > UINT32_MAX) {
            return FCS_ALLOC_FAILED;
        }
        if (*length < total) {
            *length = static_cast<uint32_t>(total);
            return FCS_BUFFER_TOO_SMALL;
        }
        if (buffer == nullptr) {
            return FCS_INVALID_ARGUMENT;
        }
        write_store(static_cast<uint8_t *>(buffer), records, payloads);
        *length = static_cast<uint32_t>(total);
        return FCS_OK;
    });
}

uint32_t addNewFile(void *handle, const char *directory, const char *name, void *block,
                    uint16_t length, bool checkSize) {
    return guarded([&]() -> uint32_t {
        const FcsHandle *store = open_store(handle);
        if (store == nullptr) {
            return FCS_INVALID_HANDLE;
        }
        if (length < record_size) {
            return FCS_BUFFER_TOO_SMALL;
        }
        if (block == nullptr) {
            return FCS_INVALID_ARGUMENT;
        }
        auto *record = static_cast<uint8_t *>(block);
        if (name == nullptr && load_le32(record + fileno_at) == 0) {
            return FCS_INVALID_ARGUMENT;
        }
        if (!complete_number(record, name)) {
            return FCS_NAME_NOT_IN_TABLE;
        }
        const file_table_entry_t *entry = entry_of(record);
        if (entry == nullptr) {
            return FCS_NUMBER_NOT_IN_TABLE;
        }
        if (checkSize && length > uint64_t{dolm::entry_max_size(*entry)} + record_size) {
            return FCS_FILE_TOO_LARGE;
        }
        if (directory == nullptr || name == nullptr) {
            return FCS_INVALID_ARGUMENT;
        }
        return add_file(*store, name, block, length);
    });
}

uint32_t deleteFile(void *handle, const char *path) {
    return guarded([&]() -> uint32_t {
        const FcsHandle *store = open_store(handle);
        if (store == nullptr) {
            return FCS_INVALID_HANDLE;
        }
        if (path == nullptr) {
            return FCS_INVALID_ARGUMENT;
        }
        if (!store->root->deleteFile(path)) {
            return FCS_FILE_NOT_FOUND;
        }
        store->iterator->rewind();
        return FCS_OK;
    });
}

uint32_t getFileData(void *handle, const char *name, void *out, uint32_t *length) {
    const FcsHandle *store = open_store(handle);
    if (store == nullptr) {
        return FCS_INVALID_HANDLE;
    }
    if (out == nullptr || length == nullptr || name == nullptr) {
        return FCS_INVALID_ARGUMENT;
    }
    const IFile *file = find_file(*store, name);
    if (file == nullptr) {
        return FCS_FILE_NOT_FOUND;
    }
    const uint32_t capacity = *length;
    *length = static_cast<uint32_t>(file->block.size());
    if (capacity < *length) {
        return FCS_BUFFER_TOO_SMALL;
    }
    std::copy(file->block.begin(), file->block.end(), static_cast<uint8_t *>(out));
    return FCS_OK;
}

uint32_t getFileAttributes(void *handle, const char *name, void *out) {
    const FcsHandle *store = open_store(handle);
    if (store == nullptr) {
        return FCS_INVALID_HANDLE;
    }
    if (out == nullptr || name == nullptr) {
        return FCS_INVALID_ARGUMENT;
    }
    const IFile *file = find_file(*store, name);
    if (file == nullptr) {
        return FCS_FILE_NOT_FOUND;
    }
    if (file->block.size() < record_size) {
        return FCS_NUMBER_NOT_IN_TABLE;
    }
    auto *head = static_cast<uint8_t *>(out);
    std::memcpy(head, file->block.data(), record_size);
    const file_table_entry_t *entry = get_file_entry_by_file_name(name);
    if (entry == nullptr) {
        return FCS_NUMBER_NOT_IN_TABLE;
    }
    store_le16(head + head_attributes_at, dolm::entry_attributes(*entry));
    store_le32(head + head_max_size_at, dolm::entry_max_size(*entry));
    return FCS_OK;
}

uint32_t getFirstFileInRoot(void *handle, char *name) {
    return report_step(handle, name, &FileIterator::firstFile);
}

uint32_t getNextFile(void *handle, char *name) {
    return report_step(handle, name, &FileIterator::nextFile);
}

bool validateAttributs(const _cfg_file_entry_t *record) {
    return record != nullptr;
}
