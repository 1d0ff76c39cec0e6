#include "host/table_entries.h"

#include <cstring>
#include <span>

#include "efs_tools_utils.h"
#include "host/tables.h"
#include "image/file_table.h"

namespace dolm {

namespace {

constexpr uint16_t id_mask = 0x7FF;

TableEntry read_entry(const file_table_entry_t &entry) {
    const std::span bytes(reinterpret_cast<const uint8_t *>(&entry), sizeof entry);
    TableEntry read;
    read.name.assign(entry.name, strnlen(entry.name, sizeof entry.name));
    read.number = get_le32(bytes, ftbl::entry_number_offset);
    read.attributes = get_le16(bytes, ftbl::entry_attributes_offset);
    read.id = get_le16(bytes, ftbl::entry_id_offset) & id_mask;
    read.store = entry.store;
    read.max_size = get_le32(bytes, ftbl::entry_max_size_offset);
    return read;
}

} // namespace

std::string store_name(uint8_t store) {
    switch (static_cast<Store>(store)) {
    case Store::none:
        return "none";
    case Store::afs:
        return "afs";
    case Store::efs:
        return "efs";
    }
    return std::to_string(store);
}

std::optional<TableEntry> find_entry(const std::string &name) {
    const file_table_entry_t *entry = get_file_entry_by_file_name(name.c_str());
    return entry == nullptr ? std::nullopt : std::optional(read_entry(*entry));
}

std::vector<TableEntry> selected_entries() {
    std::vector<TableEntry> entries;
    for (int32_t i = 0; i < g_table_num_files; ++i) {
        entries.push_back(read_entry(g_table_buf[i]));
    }
    return entries;
}

std::map<uint32_t, std::string> names_in_store(const Bytes &ftbl, uint32_t sku, Store store) {
    std::vector<uint32_t> skus{sku};
    const std::vector<uint32_t> others = skus_of(ftbl);
    skus.insert(skus.end(), others.begin(), others.end());
    std::map<uint32_t, std::string> names;
    for (const uint32_t each : skus) {
        if (load_file_table(ftbl.data(), each, static_cast<uint32_t>(ftbl.size())) != 0) {
            continue;
        }
        for (const TableEntry &entry : selected_entries()) {
            if (entry.store == static_cast<uint8_t>(store)) {
                names.emplace(entry.id, entry.name);
            }
        }
    }
    return names;
}

} // namespace dolm
