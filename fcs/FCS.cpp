#include "FCS.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <string>
#include <vector>

#include "Directory.h"
#include "File.h"
#include "FileIterator.h"
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

// Adds a file and restarts the walk. False if the tree does not take it.
bool put_file(const FcsHandle &store, const char *name, const void *block, uint32_t length) {
    if (!store.root->addFile(name, std::make_shared<File>(block, length, name))) {
        return false;
    }
    store.iterator->rewind();
    return true;
}

// Name of an entry of the file table; the entry's own may have no terminator.
struct entry_name {
    explicit entry_name(const file_table_entry_t &entry) {
        std::memcpy(text, entry.name, sizeof entry.name);
    }
    char text[sizeof(file_table_entry_t::name) + 1] = {};
};

// A record of a serialised store that is to become a file.
struct loaded_record {
    const uint8_t *record;
    const uint8_t *payload;
    const file_table_entry_t *entry; // of the record's number
    fileno_t fileno;                 // the same, or where that is 0 the number of the entry's name
};

bool same_name(const loaded_record &a, const loaded_record &b) {
    return std::strncmp(a.entry->name, b.entry->name, sizeof a.entry->name) == 0;
}

// In the order of fileCompare, and of the records where names are equal.
bool comes_before(const loaded_record &a, const loaded_record &b) {
    const int order = std::strncmp(a.entry->name, b.entry->name, sizeof a.entry->name);
    return order != 0 ? order < 0 : a.record < b.record;
}

// Reads a record that is to become a file. A number that is not in the file table is no failure:
// the file is left out.
bool read_record(const uint8_t *buffer, uint32_t length, const uint8_t *record,
                 std::vector<loaded_record> &records) {
    const uint16_t size = load_le16(record + size_at);
    const uint32_t offset = load_le32(record + offset_at);
    if (size != 0 && uint64_t{offset} + size > length) {
        return false;
    }
    const file_table_entry_t *entry = entry_of(record);
    if (entry == nullptr) {
        return true;
    }
    if (size > UINT16_MAX - record_size) {
        return false; // could not be added again: the length of a block is passed on in 16 bits
    }
    fileno_t fileno = load_le32(record + fileno_at);
    if (fileno == 0 && get_fileno_by_file_name(entry_name(*entry).text, &fileno) != 0) {
        return false;
    }
    const uint8_t *const payload = size != 0 ? buffer + offset : nullptr; // else it has no meaning
    records.push_back({.record = record, .payload = payload, .entry = entry, .fileno = fileno});
    return true;
}

// Drops the first record whose name is taken, in the store or by a record before it, and all that
// follow it. They lie in the order of their names. False if there is one.
bool drop_from_first_taken_name(const FcsHandle &store, std::vector<loaded_record> &records) {
    const uint8_t *first_taken = nullptr;
    for (size_t i = 0; i < records.size(); ++i) {
        const loaded_record &at = records[i];
        const bool taken = (i > 0 && same_name(records[i - 1], at)) ||
                           find_file(store, entry_name(*at.entry).text) != nullptr;
        if (taken && (first_taken == nullptr || at.record < first_taken)) {
            first_taken = at.record;
        }
    }
    if (first_taken == nullptr) {
        return true;
    }
    std::erase_if(records, [=](const loaded_record &at) { return at.record >= first_taken; });
    return false;
}

void add_loaded_files(const FcsHandle &store, const std::vector<loaded_record> &records) {
    std::vector<uint8_t> block;
    for (const loaded_record &from : records) {
        block.assign(from.record, from.record + record_size);
        store_le32(block.data() + fileno_at, from.fileno);
        if (from.payload != nullptr) {
            block.insert(block.end(), from.payload,
                         from.payload + load_le16(from.record + size_at));
        }
        put_file(store, entry_name(*from.entry).text, block.data(),
                 static_cast<uint32_t>(block.size()));
    }
}

// Adds the files of a serialised store, up to the first record that is refused. They are made in
// the order of their names: each goes behind the one before, and in memory they lie in the order in
// which they will be walked.
uint32_t load_records(const FcsHandle &store, const uint8_t *buffer, uint32_t length) {
    if (length < count_size) {
        return FCS_BAD_STORE;
    }
    const uint32_t count = load_le32(buffer);
    if (count_size + uint64_t{count} * record_size > length) {
        return FCS_BAD_STORE;
    }
    std::vector<loaded_record> records;
    bool good = true;
    for (uint32_t i = 0; i < count && good; ++i) {
        good = read_record(buffer, length, buffer + count_size + i * record_size, records);
    }
    if (!std::is_sorted(records.begin(), records.end(), comes_before)) {
        std::sort(records.begin(), records.end(), comes_before);
    }
    good = drop_from_first_taken_name(store, records) && good;
    add_loaded_files(store, records);
    return good ? FCS_OK : FCS_BAD_STORE;
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
        if (find_file(*store, name) != nullptr) {
            return FCS_FILE_EXISTS;
        }
        return put_file(*store, name, block, length) ? FCS_OK : FCS_FILE_NOT_FOUND;
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
