// The configuration tables: each a loaded store with a list of its files, and the operations by
// which they are loaded, searched, merged and serialised.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <vector>

#include "FCS.h"
#include "common/hash_index.h"
#include "efs_tools_utils.h"
#include "qoqfs.h"

#pragma pack(push, 1)

// One file of a table, with its own copy of the value. Its first 18 bytes are the head that
// getFileAttributes fills.
struct FcsFileEntry {
    _cfg_file_entry_t record; // as the store holds it; goes back as the head of the file's block,
                              // so the file keeps its number. Its size field is that of the load
    file_attributes_t attributes; // flag word of the file table's row
    uint32_t maxSize;             // largest value, of the file table's row
    uint8_t *data;                // the value, from malloc; null exactly when size is 0
    uint8_t hidden;               // not 0: not accessible
    uint8_t available;            // 0: not accessible
    char name[255];               // full path, NUL-terminated
    uint32_t size;                // bytes of data; the authority on the value's size
    uint8_t linked;               // 1 once the entry stands in a list, which then owns it
    FcsFileEntry *prev;
    FcsFileEntry *next;
};

// The head that getFileAttributes fills ends where data begins.
static_assert(offsetof(FcsFileEntry, record) == 0);
static_assert(offsetof(FcsFileEntry, attributes) == 12);
static_assert(offsetof(FcsFileEntry, maxSize) == 14);
static_assert(offsetof(FcsFileEntry, data) == 18);
static_assert(offsetof(FcsFileEntry, hidden) == 18 + sizeof(void *));
static_assert(offsetof(FcsFileEntry, available) == 19 + sizeof(void *));
static_assert(offsetof(FcsFileEntry, name) == 20 + sizeof(void *));
static_assert(offsetof(FcsFileEntry, size) == 275 + sizeof(void *));
static_assert(offsetof(FcsFileEntry, linked) == 279 + sizeof(void *));
static_assert(offsetof(FcsFileEntry, prev) == 280 + sizeof(void *));
static_assert(offsetof(FcsFileEntry, next) == 280 + 2 * sizeof(void *));
static_assert(sizeof(FcsFileEntry) == 280 + 3 * sizeof(void *));

// One table. It owns its handle, its buffer, its entries and their values; a whole table is moved
// by copying it byte for byte.
struct FcsTable {
    void *handle;             // store handle; null when closed
    FcsFileName fileName;     // for whoever looks at a dump; nothing branches on it
    uint32_t entryCount;      // entries in the list
    uint8_t *buffer;          // the serialised store it was loaded from or built into, from malloc
    uint32_t bufferSize;      // bytes of buffer
    FcsFileEntry *firstEntry; // null for an empty table
    FcsFileEntry *lastEntry;  // meaningful only while firstEntry is not null
};

static_assert(offsetof(FcsTable, handle) == 0);
static_assert(offsetof(FcsTable, fileName) == sizeof(void *));
static_assert(offsetof(FcsTable, entryCount) == 4 + sizeof(void *));
static_assert(offsetof(FcsTable, buffer) == 8 + sizeof(void *));
static_assert(offsetof(FcsTable, bufferSize) == 8 + 2 * sizeof(void *));
static_assert(offsetof(FcsTable, firstEntry) == 12 + 2 * sizeof(void *));
static_assert(offsetof(FcsTable, lastEntry) == 12 + 3 * sizeof(void *));
static_assert(sizeof(FcsTable) == 12 + 4 * sizeof(void *));

#pragma pack(pop)

namespace dolm::frontend {

// A table with its entries by name: the first of each name. The index is whole while it has as many
// entries as the list; without memory for it the list is walked.
struct indexed_table : FcsTable {
    hash_index<FcsFileEntry> names;
};

// Bits of FcsFileEntry::attributes. With a trailer, the file in a deployed VFS ends in bytes that
// are not part of the value, and it is never written back.
inline constexpr file_attributes_t attribute_has_trailer = 0x01;
inline constexpr file_attributes_t attribute_not_pulled = 0x02;   // not read from a deployed VFS
inline constexpr file_attributes_t attribute_long_trailer = 0x40; // the trailer is 56 bytes, not 40

inline constexpr size_t name_limit = sizeof(FcsFileEntry::name);

// A table that was never set up.
inline constexpr FcsTable unset_table = {nullptr, FCS_FILE_UNSET, 0, nullptr, 0, nullptr, nullptr};

// Whether an entry takes part in current values and in the rebuilt store.
inline bool takes_part(const FcsFileEntry &entry) {
    return entry.available != 0 || entry.hidden != 0;
}

// Whether the host may see the entry, and flash may be read into it or written from it.
inline bool is_accessible(const FcsFileEntry &entry) {
    return entry.available != 0 && entry.hidden == 0;
}

struct free_deleter {
    void operator()(void *memory) const { std::free(memory); }
};
using malloc_block = std::unique_ptr<uint8_t, free_deleter>;

// A block from malloc; null, reported as 324, without memory.
malloc_block allocate(size_t size);

// Opens an empty store in table.handle; reports a failure as number 331.
bool open_empty_store(FcsTable &table);

// The outcome of adding an entry; all but the first have been reported.
enum class add_result { added, refused, no_memory };

// The entry of path among the current values; null, reported, if there is none or it is not
// accessible.
FcsFileEntry *find_current_value(const char *path);

// Copies the current values that take part into s_builtVynCfgTable, within their limits. False,
// reported, at the first that is refused; a lack of memory for an entry itself is not reported.
bool copy_current_values_to_built();

// Releases all four tables and takes them down.
void free_all_tables();

} // namespace dolm::frontend

extern dolm::frontend::indexed_table s_orvelCfgTable; // base values; unchanged after the load
extern dolm::frontend::indexed_table s_vynCfgTable; // overriding values, or what termination built
extern dolm::frontend::indexed_table s_currentValuesTable; // what the host reads and changes
extern dolm::frontend::indexed_table s_builtVynCfgTable;   // under construction during termination

// The library's copy of the file table. The selected rows point into it, so it stays for the life
// of the process.
extern std::vector<uint8_t> s_fileTableBuffer;
extern uint32_t s_mDolmAfsSkuId;
extern bool s_mDolmLoadFileTable; // the file table still has to be loaded, by the next table load
extern bool s_fcsInitialized;     // the tables are up

// Whether an input range is absent or has data; if not, reported with its label, which is short.
bool verifyOrvelTable(const char *label, const _commonDolmTable &table);

// Fills the list of a table from its buffer, after loading the file table if that is still due. On
// false everything has been reported; the caller frees the table, with the entries it got so far.
bool qoQfsLoadFcsTableFiles(dolm::frontend::indexed_table &table, bool withData);

// A deep copy that stands in no list; null without memory (or for null).
FcsFileEntry *copyFileEntry(const FcsFileEntry *entry);

// Adds entry to the table's store and list, which then owns it; an entry that is not added stays
// the caller's. With enforceLimit a value over its maximum size is refused.
dolm::frontend::add_result qoQfsAddNewFileFcs(dolm::frontend::indexed_table &table,
                                              FcsFileEntry *entry, bool enforceLimit);

// The entry of path in the table of that name, or null; only a null path and an unknown table are
// reported. A path that does not begin with "/home/" is taken as one below it.
FcsFileEntry *qoQfsFindFileEntryInTable(FcsFileName fileName, const char *path);

void qoQfsFreeFileEntry(FcsFileEntry *entry);

// Releases what the table owns; harmless on a free table. The other fields stay as they are.
void qoQfsFreeFcsTable(dolm::frontend::indexed_table &table);

// Builds s_currentValuesTable, whose former content the caller has released: the entries of
// s_orvelCfgTable in their order, with the entry of the same name from s_vynCfgTable where there is
// one. An entry that the store refuses is reported and left out. False, reported, without memory:
// the table is then free, its handle null.
bool qoQfsGenerateFcsCurrentsTable();

// Flushes the store of s_builtVynCfgTable into its buffer.
bool qoQfsSerializeFcsTable();

// ByteCopy that reports a failure as number 324. A count of 0 gives 0 and touches nothing.
uint32_t qoQfsMemCpy(void *destination, uint64_t destinationSize, const void *source,
                     uint64_t count);
