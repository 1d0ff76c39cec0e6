// A reader of file tables (FTBL) that shares no code and no header with the library, on purpose.
// It takes what lies in the bytes, whatever they are, each record with its place, and judges
// nothing: what runs past the end is left out.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

#include "image/bytes.h"

namespace dolm {

namespace ftbl {

// The head, a row for each SKU, then the section of EFS if there is one. Entries and file records
// lie wherever the rows say.
constexpr uint32_t magic = 0x4C425446;      // "FTBL"
constexpr uint32_t efst_magic = 0x54534645; // "EFST"
constexpr uint32_t min_size = 1024;
constexpr uint32_t max_rows = 10;
constexpr uint32_t head_size = 16;        // of the table and of the section
constexpr uint32_t row_count_offset = 12; // in both

// Row: u32 SKU, offset of its entries, their count, 4 unread.
constexpr uint32_t row_size = 16;
constexpr uint32_t row_entries_offset = 4;
constexpr uint32_t row_entry_count_offset = 8; // negative for none

// Entry.
constexpr uint32_t entry_size = 68;
constexpr uint32_t name_size = 48; // of the name, which stands first
constexpr uint32_t entry_number_offset = 48;
constexpr uint32_t entry_attributes_offset = 52; // u16, then 4 unread
constexpr uint32_t entry_id_offset = 58;         // u16, then 3 unread
constexpr uint32_t entry_store_offset = 63;      // u8
constexpr uint32_t entry_max_size_offset = 64;

// Row of the section: ten u32, the SKU first.
constexpr uint32_t efst_row_size = 40;
constexpr uint32_t efst_records_offset = 4;
constexpr uint32_t efst_record_count_offset = 8;
constexpr uint32_t efst_records_bytes_offset = 12;
constexpr uint32_t efst_bm_num_offset = 16;
constexpr uint32_t efst_valid_blocks_offset = 20;
constexpr uint32_t efst_spare_blocks_offset = 24;
constexpr uint32_t efst_files_num_offset = 28;
constexpr uint32_t efst_wear_threshold_offset = 32;
constexpr uint32_t efst_layout_id_offset = 36; // its low 8 bits count

// File record: u16 number of the file, 48 unread, the place, 4 unread.
constexpr uint32_t efst_record_size = 60;
constexpr uint32_t record_block_offset = 50; // u8, then 1 unread
constexpr uint32_t record_start_offset = 52; // u16, in the block's data area
constexpr uint32_t record_max_size_offset = 54;

} // namespace ftbl

// Bits of an entry's attributes.
constexpr uint16_t attribute_trailer = 0x01;
constexpr uint16_t attribute_not_pulled = 0x02;
constexpr uint16_t attribute_long_trailer = 0x40;

// Bytes that a file in flash carries behind its value: 0, 40 or 56.
uint32_t trailer_length(uint16_t attributes);

struct FtblEntry {
    size_t at = 0;         // of its first byte in the table, as in all records here
    std::string_view name; // lies in the table's bytes
    uint32_t number = 0;
    uint16_t attributes = 0;
    uint16_t id = 0;   // inside its store
    uint8_t store = 0; // 1 AFS, 2 EFS; 0 goes to AFS too
    uint32_t max_size = 0;

    bool is_in_efs() const { return store == 2; }
    bool is_in_afs() const { return store == 1; }
    uint32_t trailer() const { return trailer_length(attributes); }
};

struct FtblRow {
    size_t at = 0;
    uint32_t sku = 0;
    uint32_t entries_at = 0;
    uint32_t entries_count = 0;
    std::vector<FtblEntry> entries; // as far as they lie in the table
};

struct EfstRecord {
    size_t at = 0;
    uint16_t file_index = 0;
    uint8_t block = 0;
    uint16_t offset = 0;
    uint16_t max_size = 0;
};

struct EfstRow {
    size_t at = 0;
    uint32_t sku = 0;
    uint32_t records_at = 0;
    uint32_t records_count = 0;
    uint32_t records_bytes = 0;
    uint32_t bm_num = 0;
    uint32_t valid_blocks = 0;
    uint32_t spare_blocks = 0;
    uint32_t files_num = 0;
    uint32_t wear_threshold = 0;
    uint32_t layout_id = 0;          // low 8 bits
    std::vector<EfstRecord> records; // as far as they lie in the table

    // The first record for that file; null if there is none.
    const EfstRecord *record_of(uint32_t file) const;
};

struct FileTable {
    bool has_magic = false;
    uint32_t row_count = 0;
    std::vector<FtblRow> rows;     // as far as they lie in the table, at most ten
    std::optional<size_t> efst_at; // where the section's magic stands
    uint32_t efst_row_count = 0;
    std::vector<EfstRow> efst_rows; // as far as they lie in the table, at most ten

    // The first row with the SKU, which is the one that counts; null if there is none.
    const FtblRow *row_of(uint32_t sku) const;
    const EfstRow *efst_row_of(uint32_t sku) const;
};

// The bytes have to outlive what is returned.
FileTable read_file_table(const Bytes &bytes);

} // namespace dolm
