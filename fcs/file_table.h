// The file table as the library uses it: the fields of an entry, which lie in the FTBL as the host
// gave it, so in little-endian bytes on every machine, and the bounds of the EFS geometry.
#pragma once

#include "common/little_endian.h"
#include "efs_tools_utils.h"

namespace dolm {

inline const uint8_t *entry_bytes(const file_table_entry_t &entry) {
    return reinterpret_cast<const uint8_t *>(&entry);
}

inline fileno_t entry_fileno(const file_table_entry_t &entry) {
    return load_le32(entry_bytes(entry) + offsetof(file_table_entry_t, fileno));
}

inline file_attributes_t entry_attributes(const file_table_entry_t &entry) {
    return load_le16(entry_bytes(entry) + offsetof(file_table_entry_t, attributes));
}

inline uint16_t entry_file_id(const file_table_entry_t &entry) {
    return load_le16(entry_bytes(entry) + offsetof(file_table_entry_t, file_id));
}

inline uint32_t entry_max_size(const file_table_entry_t &entry) {
    return load_le32(entry_bytes(entry) + offsetof(file_table_entry_t, max_size));
}

// Blocks of an EFS image: their numbers and counts have to fit into single bytes, and a lost erase
// count is made up from those of the other data blocks, so there is more than one.
inline constexpr uint32_t max_efs_count = 255;
inline constexpr uint32_t min_efs_data_blocks = 2;
inline constexpr uint32_t max_efs_data_blocks = 256;

constexpr bool efs_block_counts_fit(uint32_t bm_num, uint32_t valid, uint32_t non_valid) {
    return bm_num <= max_efs_count && valid <= max_efs_count && non_valid <= max_efs_count &&
           valid + non_valid >= min_efs_data_blocks && valid + non_valid <= max_efs_data_blocks;
}

// Slots of EFS_files: g_efs_files_num, but no more than a list of the library's own has, whatever a
// host sets that variable to; 0 without a list.
uint32_t efs_file_slots();

} // namespace dolm
