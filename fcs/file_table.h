// What the library reads of the file table. The entries lie in the FTBL as the host gave it, so
// their integers are little-endian bytes on every machine.
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

// Slots of EFS_files: g_efs_files_num, but no more than a list of the library's own has, whatever a
// host sets that variable to; 0 without a list.
uint32_t efs_file_slots();

} // namespace dolm
