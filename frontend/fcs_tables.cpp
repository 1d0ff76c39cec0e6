#include "frontend/fcs_tables.h"

#include <cstdio>
#include <cstring>

#include "common/at_unload.h"
#include "common/little_endian.h"
#include "frontend/report.h"
#include "memory_utils.h"

using namespace dolm;
using namespace dolm::frontend;

namespace {

constexpr uint32_t record_size = sizeof(_cfg_file_entry_t);
constexpr char path_prefix[] = "/home/";
constexpr size_t path_prefix_length = sizeof path_prefix - 1;

} // namespace

indexed_table s_orvelCfgTable = {unset_table, {}};
indexed_table s_vynCfgTable = {unset_table, {}};
indexed_table s_currentValuesTable = {unset_table, {}};
indexed_table s_builtVynCfgTable = {unset_table, {}};

std::vector<uint8_t> s_fileTableBuffer;
uint32_t s_mDolmAfsSkuId = 0;
bool s_mDolmLoadFileTable = false;
bool s_fcsInitialized = false;

namespace {

struct entry_deleter {
    void operator()(FcsFileEntry *entry) const { qoQfsFreeFileEntry(entry); }
};
using unlinked_entry = std::unique_ptr<FcsFileEntry, entry_deleter>;

std::string_view name_of(const char *name) {
    return {name, strnlen(name, name_limit)};
}

// The entry of that name; the first name_limit characters count.
FcsFileEntry *find_in_list(const indexed_table &table, const char *name) {
    const std::string_view wanted = name_of(name);
    const auto matches = [wanted](const FcsFileEntry &entry) {
        return std::memcmp(entry.name, wanted.data(), wanted.size()) == 0 &&
               (wanted.size() == name_limit || entry.name[wanted.size()] == '\0');
    };
    if (table.names.size() == table.entryCount) {
        return table.names.find(hash_of(wanted), matches);
    }
    for (FcsFileEntry *entry = table.firstEntry; entry != nullptr; entry = entry->next) {
        if (matches(*entry)) {
            return entry;
        }
    }
    return nullptr;
}

// Hands the entry over to the table's list.
void append(indexed_table &table, FcsFileEntry *entry) {
    entry->linked = 1;
    entry->next = nullptr;
    entry->prev = nullptr;
    if (table.firstEntry == nullptr) {
        table.firstEntry = entry;
        table.entryCount = 1;
    } else {
        entry->prev = table.lastEntry;
        table.lastEntry->next = entry;
        ++table.entryCount;
    }
    table.lastEntry = entry;
    table.names.add(hash_of(name_of(entry->name)), entry);
}

bool load_file_table_once() {
    if (!s_mDolmLoadFileTable) {
        return true;
    }
    const uint32_t status = load_file_table(s_fileTableBuffer.data(), s_mDolmAfsSkuId,
                                            static_cast<uint32_t>(s_fileTableBuffer.size()));
    if (status != 0) {
        setLibError(IMAGE_TOOLS_FTBL_LOAD_FAILED, static_cast<int32_t>(status));
        return false;
    }
    s_mDolmLoadFileTable = false;
    return true;
}

bool open_store_from_buffer(FcsTable &table) {
    void *handle = nullptr;
    const uint32_t status = createHandleFromStructure(&handle, table.buffer, table.bufferSize);
    table.handle = handle;
    if (status != FCS_OK) {
        setLibError(IMAGE_TOOLS_FCS_CREATE_HANDLE_FAILED, static_cast<int32_t>(status));
        return false;
    }
    return true;
}

// Reads the value of an entry whose record is known: the store's block without the record in front.
bool load_value(const FcsTable &table, FcsFileEntry &entry) {
    uint32_t length = entry.size + record_size;
    const malloc_block block(static_cast<uint8_t *>(std::malloc(length)));
    entry.data = static_cast<uint8_t *>(std::calloc(entry.size, 1));
    if (!block || entry.data == nullptr) {
        report_error(IMAGE_TOOLS_OUT_OF_MEMORY);
        return false;
    }
    if (const uint32_t status = getFileData(table.handle, entry.name, block.get(), &length);
        status != FCS_OK) {
        setLibError(IMAGE_TOOLS_FCS_GET_FILE_FAILED, static_cast<int32_t>(status));
        return false;
    }
    return qoQfsMemCpy(entry.data, entry.size, block.get() + record_size, entry.size) ==
           BYTE_COPY_OK;
}

// getFileAttributes leaves little-endian bytes; the record stays so, since it goes back as it is.
void take_over_head(FcsFileEntry &entry) {
    const auto *head = reinterpret_cast<const uint8_t *>(&entry);
    entry.size = load_le16(head + offsetof(_cfg_file_entry_t, size));
    entry.attributes = load_le16(head + offsetof(FcsFileEntry, attributes));
    entry.maxSize = load_le32(head + offsetof(FcsFileEntry, maxSize));
}

// A copy in no list, and without its value as yet; null without memory, which is not reported.
unlinked_entry copy_without_value(const FcsFileEntry &entry) {
    unlinked_entry copy(static_cast<FcsFileEntry *>(std::malloc(sizeof(FcsFileEntry))));
    if (copy) {
        qoQfsMemCpy(copy.get(), sizeof *copy, &entry, sizeof entry);
        copy->data = nullptr;
        copy->linked = 0;
        copy->prev = nullptr;
        copy->next = nullptr;
    }
    return copy;
}

// Gives the copy its value. False, reported, without memory.
bool copy_value(FcsFileEntry &copy, const FcsFileEntry &entry) {
    if (entry.data == nullptr || entry.size == 0) {
        return true;
    }
    copy.data = allocate(entry.size).release();
    return copy.data != nullptr &&
           qoQfsMemCpy(copy.data, copy.size, entry.data, entry.size) == BYTE_COPY_OK;
}

// Puts the entry's record and value into the table's store.
add_result add_to_store(const FcsTable &table, const FcsFileEntry &entry, bool enforceLimit) {
    // The store takes the length in 16 bits: a longer block would be cut short there.
    if (entry.size > UINT16_MAX - record_size) {
        setLibError(IMAGE_TOOLS_FCS_ADD_FILE_FAILED, FCS_FILE_TOO_LARGE);
        return add_result::refused;
    }
    const auto length = static_cast<uint16_t>(entry.size + record_size);
    const malloc_block block = allocate(length);
    if (!block) {
        return add_result::no_memory;
    }
    std::memcpy(block.get(), &entry.record, record_size);
    if (entry.data != nullptr) {
        std::memcpy(block.get() + record_size, entry.data, entry.size);
    }
    char name[name_limit + 2]; // the entry's name and a "/"
    const size_t name_length = name_of(entry.name).copy(name, name_limit);
    name[name_length] = '/';
    name[name_length + 1] = '\0';
    const uint32_t status = addNewFile(table.handle, "", name, block.get(), length, enforceLimit);
    if (status != FCS_OK) {
        setLibError(IMAGE_TOOLS_FCS_ADD_FILE_FAILED, static_cast<int32_t>(status));
    }
    return status == FCS_OK             ? add_result::added
           : status == FCS_ALLOC_FAILED ? add_result::no_memory
                                        : add_result::refused;
}

bool add_copy_to_built(const FcsFileEntry &entry) {
    unlinked_entry copy(copyFileEntry(&entry));
    if (!copy || qoQfsAddNewFileFcs(s_builtVynCfgTable, copy.get(), true) != add_result::added) {
        return false;
    }
    static_cast<void>(copy.release()); // the list owns it now
    return true;
}

// Adds the current value of a base entry: the overriding entry of that name, or else the base entry
// itself. One that the store refuses is left out. False, reported, without memory.
bool add_current_value(const FcsFileEntry &base) {
    const FcsFileEntry *overriding = find_in_list(s_vynCfgTable, base.name);
    const FcsFileEntry &entry = overriding != nullptr ? *overriding : base;
    unlinked_entry value = copy_without_value(entry);
    if (!value) {
        report_error(IMAGE_TOOLS_OUT_OF_MEMORY);
        return false;
    }
    if (!copy_value(*value, entry)) {
        return false;
    }
    const add_result result = qoQfsAddNewFileFcs(s_currentValuesTable, value.get(), false);
    if (result == add_result::added) {
        static_cast<void>(value.release()); // the list owns it now
    }
    return result != add_result::no_memory;
}

bool add_current_values() {
    for (const FcsFileEntry *base = s_orvelCfgTable.firstEntry; base != nullptr;
         base = base->next) {
        if (takes_part(*base) && !add_current_value(*base)) {
            return false;
        }
    }
    return true;
}

enum class load_step { appended, end_of_store, failed };

load_step load_next_entry(indexed_table &table, bool withData) {
    unlinked_entry entry(static_cast<FcsFileEntry *>(std::calloc(1, sizeof(FcsFileEntry))));
    if (!entry) {
        report_error(IMAGE_TOOLS_INVALID_DATA_POINTER);
        return load_step::failed;
    }
    uint32_t status = FCS_OK;
    if (table.firstEntry == nullptr) {
        table.entryCount = 0;
        status = getFirstFileInRoot(table.handle, entry->name);
    } else {
        status = getNextFile(table.handle, entry->name);
    }
    if (status == FCS_NO_MORE_FILES) {
        return load_step::end_of_store;
    }
    if (status != FCS_OK) {
        setLibError(IMAGE_TOOLS_FCS_GET_FILE_FAILED, static_cast<int32_t>(status));
        return load_step::failed;
    }
    status = getFileAttributes(table.handle, entry->name, entry.get());
    if (status != FCS_OK) {
        qoQfsFreeFcsTable(table);
        setLibError(IMAGE_TOOLS_FCS_GET_ATTRIBUTES_FAILED, static_cast<int32_t>(status));
        return load_step::failed;
    }
    take_over_head(*entry);
    entry->available = 1;
    entry->hidden = 0;
    if (entry->size != 0 && withData && !load_value(table, *entry)) {
        return load_step::failed;
    }
    append(table, entry.release());
    return load_step::appended;
}

} // namespace

namespace dolm::frontend {

malloc_block allocate(size_t size) {
    malloc_block block(static_cast<uint8_t *>(std::malloc(size)));
    if (!block) {
        report_error(IMAGE_TOOLS_OUT_OF_MEMORY);
    }
    return block;
}

bool open_empty_store(FcsTable &table) {
    void *handle = nullptr;
    const uint32_t status = createHandle(&handle);
    table.handle = handle;
    if (status != FCS_OK) {
        setLibError(IMAGE_TOOLS_FCS_CREATE_HANDLE_FAILED, static_cast<int32_t>(status));
        return false;
    }
    return true;
}

FcsFileEntry *find_current_value(const char *path) {
    FcsFileEntry *entry = qoQfsFindFileEntryInTable(FCS_FILE_CURRENT_VALUES, path);
    if (entry == nullptr) {
        report_error(IMAGE_TOOLS_FILE_NOT_FOUND);
        return nullptr;
    }
    if (!is_accessible(*entry)) {
        report_error(IMAGE_TOOLS_NVAR_ACCESS_ERROR);
        return nullptr;
    }
    return entry;
}

bool copy_current_values_to_built() {
    for (const FcsFileEntry *entry = s_currentValuesTable.firstEntry; entry != nullptr;
         entry = entry->next) {
        if (takes_part(*entry) && !add_copy_to_built(*entry)) {
            return false;
        }
    }
    return true;
}

void free_all_tables() {
    qoQfsFreeFcsTable(s_builtVynCfgTable);
    qoQfsFreeFcsTable(s_vynCfgTable);
    qoQfsFreeFcsTable(s_orvelCfgTable);
    qoQfsFreeFcsTable(s_currentValuesTable);
    s_fcsInitialized = false;
}

} // namespace dolm::frontend

// A host may end with tables up, after a start-up that failed for instance.
[[maybe_unused]] static const at_unload<free_all_tables> release_tables;

bool verifyOrvelTable(const char *label, const _commonDolmTable &table) {
    if (table.size == 0 || table.data != nullptr) {
        return true;
    }
    char message[96];
    std::snprintf(message, sizeof message,
                  "Invalid table %s. The table is loaded but data is empty.", label);
    report_error(IMAGE_TOOLS_QFS_INIT_FAILED, message);
    return false;
}

bool qoQfsLoadFcsTableFiles(indexed_table &table, bool withData) {
    // Store records name their files by number alone, so the file table comes first.
    if (!load_file_table_once() || !open_store_from_buffer(table)) {
        return false;
    }
    load_step step = load_step::appended;
    while (step == load_step::appended) {
        step = load_next_entry(table, withData);
    }
    if (step == load_step::failed) {
        report_error(IMAGE_TOOLS_FCS_ENTRIES_FAILED);
        return false;
    }
    return true;
}

FcsFileEntry *copyFileEntry(const FcsFileEntry *entry) {
    if (entry == nullptr) {
        return nullptr;
    }
    unlinked_entry copy = copy_without_value(*entry);
    return copy && copy_value(*copy, *entry) ? copy.release() : nullptr;
}

add_result qoQfsAddNewFileFcs(indexed_table &table, FcsFileEntry *entry, bool enforceLimit) {
    if (table.handle == nullptr || entry == nullptr) {
        qoQfsAssert("Invalid FCS handle or fileEntry pointer");
        return add_result::refused;
    }
    if (entry->linked != 0) {
        report_error(IMAGE_TOOLS_FCS_ENTRY_IN_USE);
        return add_result::refused;
    }
    if (find_in_list(table, entry->name) != nullptr) {
        report_error(IMAGE_TOOLS_FCS_DUPLICATE_LABEL);
        return add_result::refused;
    }
    const add_result result = add_to_store(table, *entry, enforceLimit);
    if (result == add_result::added) {
        append(table, entry);
    }
    return result;
}

FcsFileEntry *qoQfsFindFileEntryInTable(FcsFileName fileName, const char *path) {
    if (path == nullptr) {
        report_error(IMAGE_TOOLS_CORRUPTED_BUFFER, "Invalid NVAR path");
        return nullptr;
    }
    const indexed_table *table = nullptr;
    switch (fileName) {
    case FCS_FILE_ORVEL_CFG:
        table = &s_orvelCfgTable;
        break;
    case FCS_FILE_VYN_CFG:
        table = &s_vynCfgTable;
        break;
    case FCS_FILE_CURRENT_VALUES:
        table = &s_currentValuesTable;
        break;
    default:
        report_error(IMAGE_TOOLS_FCS_INVALID_FILE);
        return nullptr;
    }
    if (!s_fcsInitialized || table->entryCount == 0) {
        return nullptr;
    }
    if (std::strncmp(path, path_prefix, path_prefix_length) == 0) {
        return find_in_list(*table, path);
    }
    // One byte more than is compared, so that cutting a longer path here changes no comparison.
    char full_path[name_limit + 1];
    std::snprintf(full_path, sizeof full_path, "%s%s", path_prefix, path);
    return find_in_list(*table, full_path);
}

void qoQfsFreeFileEntry(FcsFileEntry *entry) {
    if (entry != nullptr) {
        std::free(entry->data);
        std::free(entry);
    }
}

void qoQfsFreeFcsTable(indexed_table &table) {
    if (table.handle != nullptr) {
        void *handle = table.handle;
        closeHandle(&handle);
        table.handle = nullptr;
    }
    if (table.buffer != nullptr) {
        std::free(table.buffer);
        table.buffer = nullptr;
        table.bufferSize = 0;
    }
    for (FcsFileEntry *entry = table.firstEntry; entry != nullptr;) {
        FcsFileEntry *next = entry->next;
        qoQfsFreeFileEntry(entry);
        entry = next;
    }
    table.firstEntry = nullptr;
    table.names = {};
}

bool qoQfsGenerateFcsCurrentsTable() {
    s_currentValuesTable = {};
    s_currentValuesTable.fileName = FCS_FILE_CURRENT_VALUES;
    if (!open_empty_store(s_currentValuesTable)) {
        report_error(IMAGE_TOOLS_CURRENT_VALUES_CREATE_FAILED);
    } else if (add_current_values()) {
        return true;
    }
    // A part of the values would pass for all of them at the next termination.
    qoQfsFreeFcsTable(s_currentValuesTable);
    return false;
}

bool qoQfsSerializeFcsTable() {
    FcsTable &table = s_builtVynCfgTable;
    uint32_t size = 0;
    uint32_t status = flush(table.handle, table.buffer, &size);
    table.bufferSize = size;
    if (status != FCS_BUFFER_TOO_SMALL) {
        setLibError(IMAGE_TOOLS_FCS_FLUSH_FAILED, static_cast<int32_t>(status));
        return false;
    }
    table.buffer = allocate(size).release();
    if (table.buffer == nullptr) {
        return false;
    }
    status = flush(table.handle, table.buffer, &size);
    if (status != FCS_OK) {
        setLibError(IMAGE_TOOLS_FCS_FLUSH_FAILED, static_cast<int32_t>(status));
        return false;
    }
    return true;
}

uint32_t qoQfsMemCpy(void *destination, uint64_t destinationSize, const void *source,
                     uint64_t count) {
    if (count == 0) {
        return BYTE_COPY_OK;
    }
    const uint32_t status = ByteCopy(destination, destinationSize, source, count);
    if (status != BYTE_COPY_OK) {
        char message[48];
        std::snprintf(message, sizeof message, "Memory copy failed with error %u", status);
        report_error(IMAGE_TOOLS_OUT_OF_MEMORY, message);
    }
    return status;
}
