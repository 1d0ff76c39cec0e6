// The process-wide file table: for each file that the firmware image can hold, its name, its
// number and its properties, and the geometry and file list of the EFS store. All of it is taken
// from one blob, the FTBL. docs/formats.md tells its bytes.
//
// Nothing here is synchronised: load the table first, then read it.
#ifndef DOLM_EFS_TOOLS_UTILS_H
#define DOLM_EFS_TOOLS_UTILS_H

#include <cstddef>
#include <cstdint>

#include "dolm_api.h"

// Number of a file, the key between the records of a configuration store and the file table. It is
// compared as a whole; the top four bits are the class nibble of the dispatch layer.
using fileno_t = uint32_t;

// Flag word of a file. The library tests bits 0, 1 and 6.
using file_attributes_t = uint16_t;

#pragma pack(push, 1)

// One entry of the file table, as it stands in the FTBL. The integers are little-endian.
struct file_table_entry_t {
    char name[48]; // zero-filled behind its end; not terminated if it fills the field
    fileno_t fileno;
    file_attributes_t attributes;
    uint8_t unread_54[4];
    uint16_t file_id; // low 11 bits: id of the file inside its store
    uint8_t unread_60[3];
    uint8_t store;     // flash store that holds the file: 1 AFS, 2 EFS
    uint32_t max_size; // largest value that the file may have, in bytes
};

// One slot of the EFS file list. In memory only.
struct EFS_file_entry {
    uint8_t block;       // first logical block
    uint16_t offset;     // of the first record in the block's data area, in bytes
    uint16_t max_size;   // largest allowed file length in bytes
    uint8_t present : 1; // the slot names a file
    uint8_t reserved : 7;
    uint8_t reserved_bytes[2];
};

#pragma pack(pop)

static_assert(sizeof(file_table_entry_t) == 68, "packed");
static_assert(offsetof(file_table_entry_t, name) == 0, "packed");
static_assert(offsetof(file_table_entry_t, fileno) == 48, "packed");
static_assert(offsetof(file_table_entry_t, attributes) == 52, "packed");
static_assert(offsetof(file_table_entry_t, unread_54) == 54, "packed");
static_assert(offsetof(file_table_entry_t, file_id) == 58, "packed");
static_assert(offsetof(file_table_entry_t, unread_60) == 60, "packed");
static_assert(offsetof(file_table_entry_t, store) == 63, "packed");
static_assert(offsetof(file_table_entry_t, max_size) == 64, "packed");

static_assert(sizeof(EFS_file_entry) == 8, "packed");
static_assert(offsetof(EFS_file_entry, block) == 0, "packed");
static_assert(offsetof(EFS_file_entry, offset) == 1, "packed");
static_assert(offsetof(EFS_file_entry, max_size) == 3, "packed");

DOLM_EXTERN_C_BEGIN

// The selected set of entries. It lies inside the caller's FTBL and is read only. Null until a
// table has been selected.
extern DOLM_API file_table_entry_t *g_table_buf;
// Number of entries of the selected set; 0 or less means that the table is empty.
extern DOLM_API int32_t g_table_num_files;
// SKU of the selected set, 0xFFFFFFFF until one is selected. For the host; not read here.
extern DOLM_API uint32_t g_dfs_sku;

// Geometry of the EFS store: the defaults below, until load_autogen_data replaces them.
extern DOLM_API uint32_t g_efs_bm_num;                  // block-map blocks; 2
extern DOLM_API uint32_t g_efs_valid_block_num;         // logical blocks; 7
extern DOLM_API uint32_t g_efs_non_valid_block_num;     // spare blocks; 3
extern DOLM_API uint32_t g_efs_files_num;               // slots in EFS_files; 16
extern DOLM_API uint32_t g_efs_wear_leveling_threshold; // erase-count gap for a move; 100
extern DOLM_API uint8_t g_efs_layout_id;                // 0
extern DOLM_API uint8_t g_efs_sku_id;                   // 0
// 1 while EFS_files holds a loaded list; without it the EFS store does not mount.
extern DOLM_API uint8_t g_efs_autogen_data_loaded;

// File list of the EFS store, g_efs_files_num slots. Owned by the library and held until the next
// load_autogen_data that stores a geometry; null until the first.
extern DOLM_API EFS_file_entry *EFS_files;

// Selects the entries of a SKU, then runs load_autogen_data on the same table.
//
// buffer: the FTBL. It is not copied: it must stay, unchanged, for as long as the table is in use.
// sku: the number whose row is wanted; the first row that carries it is taken.
// length: bytes in buffer.
//
// 0: done. Without a row for sku the old selection stays in force.
// 1: refused. The selection is unchanged if buffer is null, length is below 1024, the magic is
//    wrong, there are more than 10 rows, or the row's entries do not lie whole within length. If
//    load_autogen_data failed, the new selection is in force.
DOLM_API uint32_t load_file_table(const void *buffer, uint32_t sku, uint32_t length);

// Loads the EFS geometry and file list of a SKU from the EFST section of an FTBL. The arguments
// are those of load_file_table, but nothing points into buffer afterwards.
//
// 0: done, or there is nothing to load (no section, no rows, no row for sku) and nothing changed.
// 1: refused. Nothing changed if buffer is null or no FTBL, if rows or records run past length, or
//    if the row or a record is ill-formed: records_bytes above 60 * records_count, files_num 0 or
//    above 65536, a file_index at or above files_num, a geometry that cannot work (a block count
//    above 255, or valid and spare blocks that are not 2 to 256 together). If only the row's
//    records_offset is wrong and lies past length, the six geometry values are stored all the same.
// 12: out of memory for EFS_files; the six values are stored.
// Where values were stored without a new list, a list that is too short for the new
// g_efs_files_num is released, and g_efs_autogen_data_loaded is 0.
DOLM_API uint32_t load_autogen_data(const void *buffer, uint32_t sku, uint32_t length);

// Look-ups in the selected set. The first match wins; an empty table has no match. Names are
// terminated strings of which the first 48 bytes count. A null argument never matches. Entries
// that are handed out lie inside the caller's FTBL and must not be written to.

// The entry of a name; null if there is none.
DOLM_API file_table_entry_t *get_file_entry_by_file_name(const char *name);

// Stores the number of a name in out. 0, or -1 with out untouched.
DOLM_API int32_t get_fileno_by_file_name(const char *name, fileno_t *out);

// The entry of a number; null if there is none.
DOLM_API file_table_entry_t *get_file_entry_by_fileno(const fileno_t *fileno);

// Copies the 48 bytes of the name of a number, zero fill included and without adding a terminator,
// to out. 0, or -1 with out untouched.
DOLM_API int32_t get_file_name_by_fileno(const fileno_t *fileno, void *out);

// Stores the flag word and the largest value size in bytes of a name. 0, or -1 with both
// untouched.
DOLM_API int32_t get_file_attributes_by_file_name(const char *name, file_attributes_t *attributes,
                                                  uint32_t *max_size);

DOLM_EXTERN_C_END

#endif
