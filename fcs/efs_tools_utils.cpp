#include "efs_tools_utils.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "common/at_unload.h"
#include "common/hash_index.h"
#include "common/little_endian.h"
#include "fcs/file_table.h"

using dolm::load_le16;
using dolm::load_le32;

file_table_entry_t *g_table_buf = nullptr;
int32_t g_table_num_files = 0;
uint32_t g_dfs_sku = 0xFFFFFFFF;

uint32_t g_efs_bm_num = 2;
uint32_t g_efs_valid_block_num = 7;
uint32_t g_efs_non_valid_block_num = 3;
uint32_t g_efs_files_num = 16;
uint32_t g_efs_wear_leveling_threshold = 100;
uint8_t g_efs_layout_id = 0;
uint8_t g_efs_sku_id = 0;
uint8_t g_efs_autogen_data_loaded = 0;
EFS_file_entry *EFS_files = nullptr;

namespace {

enum : uint32_t {
    ok = 0,
    refused = 1,
    out_of_memory = 12,
};

enum : int32_t {
    found = 0,
    not_found = -1,
};

// FTBL. Offsets in bytes from its start; every integer is little-endian.
//   0 u32 magic | 4 unread | 12 u32 row_count | 16 SKU rows | behind the rows: EFST section
constexpr uint32_t ftbl_magic = 0x4C425446; // "FTBL"
constexpr uint32_t ftbl_min_length = 1024;
constexpr uint32_t ftbl_head_size = 16;
constexpr uint32_t ftbl_row_count_at = 12;
constexpr uint32_t ftbl_max_rows = 10;

// SKU row:
//   0 u32 sku | 4 u32 entries_offset, from byte 0 of the FTBL | 8 u32 entries_count | 12 unread
constexpr uint32_t sku_row_size = 16;

// EFST section. Offsets in bytes from its start.
//   0 u32 magic | 4 unread | 12 u32 row_count | 16 geometry rows
constexpr uint32_t efst_magic = 0x54534645; // "EFST"
constexpr uint32_t efst_head_size = 16;
constexpr uint32_t efst_row_count_at = 12;
constexpr uint32_t geometry_row_size = 40;
constexpr uint32_t file_record_size = 60;
constexpr uint32_t max_files = 65536; // as many as the file_index of a record can tell apart

struct geometry_row {
    uint32_t sku;
    uint32_t records_offset; // from byte 0 of the FTBL
    uint32_t records_count;
    uint32_t records_bytes;
    uint32_t bm_num;
    uint32_t valid_block_num;
    uint32_t non_valid_block_num;
    uint32_t files_num;
    uint32_t wear_leveling_threshold;
    uint32_t layout_id;
};

geometry_row parse_geometry_row(const uint8_t *row) {
    return {
        .sku = load_le32(row),
        .records_offset = load_le32(row + 4),
        .records_count = load_le32(row + 8),
        .records_bytes = load_le32(row + 12),
        .bm_num = load_le32(row + 16),
        .valid_block_num = load_le32(row + 20),
        .non_valid_block_num = load_le32(row + 24),
        .files_num = load_le32(row + 28),
        .wear_leveling_threshold = load_le32(row + 32),
        .layout_id = load_le32(row + 36),
    };
}

// Record of one EFS file. Only these fields of its 60 bytes are read.
struct file_record {
    uint16_t file_index; // slot of EFS_files
    uint8_t block;
    uint16_t offset;
    uint16_t max_size;
};

file_record parse_file_record(const uint8_t *record) {
    return {
        .file_index = load_le16(record),
        .block = static_cast<uint8_t>(load_le16(record + 50)),
        .offset = load_le16(record + 52),
        .max_size = load_le16(record + 54),
    };
}

// The list behind EFS_files. The host can reach and change that variable, so what has to be freed
// and how long it is are kept here.
EFS_file_entry *owned_list = nullptr;
uint32_t owned_slots = 0;

void replace_file_list(EFS_file_entry *list, uint32_t slots) {
    std::free(owned_list);
    owned_list = list;
    owned_slots = slots;
    EFS_files = list;
    g_efs_autogen_data_loaded = list != nullptr ? 1 : 0;
}

void release_file_list() {
    replace_file_list(nullptr, 0);
}

[[maybe_unused]] const dolm::at_unload<release_file_list> list_release;

bool lies_within(uint32_t offset, uint64_t size, uint32_t length) {
    return offset + size <= length;
}

// Without a BM the geometry loads all the same; it is the store that will not mount.
bool geometry_can_work(const geometry_row &row) {
    return row.files_num != 0 && row.files_num <= max_files &&
           dolm::efs_block_counts_fit(row.bm_num, row.valid_block_num, row.non_valid_block_num);
}

bool records_are_sound(const uint8_t *table, uint32_t length, const geometry_row &row) {
    if (!lies_within(row.records_offset, uint64_t{row.records_count} * file_record_size, length)) {
        return false;
    }
    const uint8_t *record = table + row.records_offset;
    for (uint32_t i = 0; i < row.records_count; ++i, record += file_record_size) {
        if (parse_file_record(record).file_index >= row.files_num) {
            return false;
        }
    }
    return true;
}

// Keeps the invariant that EFS_files, if not null, has a slot for each index below
// g_efs_files_num, also when no new list follows.
void store_geometry(const geometry_row &row) {
    if (row.files_num > owned_slots) {
        release_file_list();
    }
    g_efs_bm_num = row.bm_num;
    g_efs_valid_block_num = row.valid_block_num;
    g_efs_non_valid_block_num = row.non_valid_block_num;
    g_efs_files_num = row.files_num;
    g_efs_wear_leveling_threshold = row.wear_leveling_threshold;
    g_efs_layout_id = static_cast<uint8_t>(row.layout_id);
}

uint32_t fill_file_list(const uint8_t *table, const geometry_row &row) {
    auto *list = static_cast<EFS_file_entry *>(std::calloc(row.files_num, sizeof(EFS_file_entry)));
    if (list == nullptr) {
        return out_of_memory;
    }
    const uint8_t *bytes = table + row.records_offset;
    for (uint32_t i = 0; i < row.records_count; ++i, bytes += file_record_size) {
        const file_record record = parse_file_record(bytes);
        list[record.file_index] = {.block = record.block,
                                   .offset = record.offset,
                                   .max_size = record.max_size,
                                   .present = 1,
                                   .reserved = 0,
                                   .reserved_bytes = {}};
    }
    replace_file_list(list, row.files_num);
    return ok;
}

uint32_t load_geometry_row(const uint8_t *table, uint32_t length, const geometry_row &row) {
    if (uint64_t{row.records_count} * file_record_size < row.records_bytes ||
        !geometry_can_work(row)) {
        return refused;
    }
    if (row.records_offset > length) {
        store_geometry(row);
        return refused;
    }
    if (!records_are_sound(table, length, row)) {
        return refused;
    }
    store_geometry(row);
    const uint32_t status = fill_file_list(table, row);
    if (status == ok) {
        g_efs_sku_id = static_cast<uint8_t>(row.sku);
    }
    return status;
}

// The rows of the set that was selected last, by number and by name: the first of each. Made at the
// first look-up in that set, and empty where there was no memory for it.
struct row_index {
    const file_table_entry_t *rows = nullptr;
    int32_t count = 0;
    bool made = false;
    dolm::hash_index<file_table_entry_t> numbers = {};
    dolm::hash_index<file_table_entry_t> names = {};
};
row_index selected;

size_t hash_of(fileno_t fileno) {
    return static_cast<size_t>(fileno * uint64_t{0x9E3779B97F4A7C15} >> 32);
}

std::string_view name_of(const char *name) {
    return {name, strnlen(name, sizeof(file_table_entry_t::name))};
}

auto has_number(fileno_t fileno) {
    return [=](const file_table_entry_t &row) { return dolm::entry_fileno(row) == fileno; };
}

auto has_name(std::string_view name) {
    return [=](const file_table_entry_t &row) {
        return std::memcmp(row.name, name.data(), name.size()) == 0 &&
               (name.size() == sizeof row.name || row.name[name.size()] == '\0');
    };
}

template <typename Matches>
bool add_first(dolm::hash_index<file_table_entry_t> &index, size_t hash, file_table_entry_t &row,
               Matches matches) {
    return index.find(hash, matches) != nullptr || index.add(hash, &row);
}

void make_index() {
    selected.made = true;
    for (int32_t i = 0; i < selected.count; ++i) {
        file_table_entry_t &row = g_table_buf[i];
        const fileno_t fileno = dolm::entry_fileno(row);
        const std::string_view name = name_of(row.name);
        if (!add_first(selected.numbers, hash_of(fileno), row, has_number(fileno)) ||
            !add_first(selected.names, dolm::hash_of(name), row, has_name(name))) {
            selected.numbers = {};
            selected.names = {};
            return;
        }
    }
}

// Whether the table in use is the selected one, rather than one that a host points to itself.
bool can_use_index() {
    if (g_table_buf == nullptr || g_table_buf != selected.rows ||
        g_table_num_files != selected.count) {
        return false;
    }
    if (!selected.made) {
        make_index();
    }
    return true;
}

// Selects the set of a SKU row. False if it does not lie whole within the table.
bool select_entries(const uint8_t *table, uint32_t length, const uint8_t *row) {
    const uint32_t offset = load_le32(row + 4);
    // Zero and the counts that are negative as signed numbers make an empty table.
    const auto count = static_cast<int32_t>(load_le32(row + 8));
    const uint64_t size = count > 0 ? static_cast<uint64_t>(count) * sizeof(file_table_entry_t) : 0;
    if (!lies_within(offset, size, length)) {
        return false;
    }
    g_dfs_sku = load_le32(row);
    g_table_buf = const_cast<file_table_entry_t *>(
        reinterpret_cast<const file_table_entry_t *>(table + offset));
    g_table_num_files = count;
    selected = {.rows = g_table_buf, .count = count};
    return true;
}

// The first row that matches. A row that the index finds is compared as it is now; what the index
// does not find is looked for in the table itself.
template <typename Matches>
file_table_entry_t *find_entry(const dolm::hash_index<file_table_entry_t> &index, size_t hash,
                               Matches matches) {
    if (can_use_index()) {
        if (file_table_entry_t *row = index.find(hash, matches); row != nullptr) {
            return row;
        }
    }
    for (int32_t i = 0; i < g_table_num_files; ++i) {
        if (matches(g_table_buf[i])) {
            return &g_table_buf[i];
        }
    }
    return nullptr;
}

} // namespace

uint32_t dolm::efs_file_slots() {
    if (EFS_files == nullptr) {
        return 0;
    }
    return EFS_files == owned_list ? std::min(g_efs_files_num, owned_slots) : g_efs_files_num;
}

uint32_t load_file_table(const void *buffer, uint32_t sku, uint32_t length) {
    const auto *table = static_cast<const uint8_t *>(buffer);
    if (table == nullptr || length < ftbl_min_length || load_le32(table) != ftbl_magic) {
        return refused;
    }
    const uint32_t row_count = load_le32(table + ftbl_row_count_at);
    if (row_count > ftbl_max_rows) {
        return refused;
    }
    for (uint32_t i = 0; i < row_count; ++i) {
        const uint8_t *row = table + ftbl_head_size + uint64_t{i} * sku_row_size;
        if (load_le32(row) == sku) {
            if (!select_entries(table, length, row)) {
                return refused;
            }
            break;
        }
    }
    return load_autogen_data(buffer, sku, length) == ok ? ok : refused;
}

uint32_t load_autogen_data(const void *buffer, uint32_t sku, uint32_t length) {
    const auto *table = static_cast<const uint8_t *>(buffer);
    if (table == nullptr || length < ftbl_head_size || load_le32(table) != ftbl_magic) {
        return refused;
    }
    const uint64_t section_at =
        ftbl_head_size + uint64_t{load_le32(table + ftbl_row_count_at)} * sku_row_size;
    if (section_at > length) {
        return refused;
    }
    const uint8_t *section = table + section_at;
    const uint64_t room = length - section_at;
    if (room < sizeof(uint32_t) || load_le32(section) != efst_magic) {
        return ok;
    }
    if (room < efst_head_size) {
        return refused;
    }
    const uint32_t row_count = load_le32(section + efst_row_count_at);
    if (efst_head_size + uint64_t{row_count} * geometry_row_size > room) {
        return refused;
    }
    for (uint32_t i = 0; i < row_count; ++i) {
        const uint8_t *row = section + efst_head_size + uint64_t{i} * geometry_row_size;
        if (load_le32(row) == sku) {
            return load_geometry_row(table, length, parse_geometry_row(row));
        }
    }
    return ok;
}

file_table_entry_t *get_file_entry_by_file_name(const char *name) {
    if (name == nullptr) {
        return nullptr;
    }
    const std::string_view wanted = name_of(name);
    return find_entry(selected.names, dolm::hash_of(wanted), has_name(wanted));
}

int32_t get_fileno_by_file_name(const char *name, fileno_t *out) {
    const file_table_entry_t *entry = get_file_entry_by_file_name(name);
    if (entry == nullptr || out == nullptr) {
        return not_found;
    }
    *out = dolm::entry_fileno(*entry);
    return found;
}

file_table_entry_t *get_file_entry_by_fileno(const fileno_t *fileno) {
    if (fileno == nullptr) {
        return nullptr;
    }
    return find_entry(selected.numbers, hash_of(*fileno), has_number(*fileno));
}

int32_t get_file_name_by_fileno(const fileno_t *fileno, void *out) {
    const file_table_entry_t *entry = get_file_entry_by_fileno(fileno);
    if (entry == nullptr || out == nullptr) {
        return not_found;
    }
    std::memcpy(out, entry->name, sizeof(entry->name));
    return found;
}

int32_t get_file_attributes_by_file_name(const char *name, file_attributes_t *attributes,
                                         uint32_t *max_size) {
    const file_table_entry_t *entry = get_file_entry_by_file_name(name);
    if (entry == nullptr || attributes == nullptr || max_size == nullptr) {
        return not_found;
    }
    *attributes = dolm::entry_attributes(*entry);
    *max_size = dolm::entry_max_size(*entry);
    return found;
}
