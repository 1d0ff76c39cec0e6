#include "host/table_refusal.h"

#include <map>
#include <string_view>

#include "host/manifest.h"

namespace dolm {

namespace {

// A store: u32 count | records | values. A record: u32 file number | u32 offset of its value, from
// the start of the store | u16 size | u16 unread.
constexpr uint64_t store_head_size = 4;
constexpr uint64_t record_size = 12;

// "vync.cfg": 8 unread | u32 length of the store | 4 unread | the store.
constexpr size_t vync_head_size = 16;
constexpr size_t vync_length_at = 8;

// "ftbl.bin": "FTBL" | 8 unread | u32 rows | rows | EFS section. A row: u32 SKU | u32 offset of its
// entries | u32 count, negative for none | 4 unread. An entry: 48 name | u32 file number | 16.
constexpr uint32_t ftbl_magic = 0x4C425446;
constexpr size_t ftbl_min_size = 1024;
constexpr size_t ftbl_row_count_at = 12;
constexpr uint64_t row_size = 16;
constexpr uint64_t entry_size = 68;
constexpr uint64_t entry_number_at = 48;

// The EFS section: "EFST" | 8 unread | u32 rows | rows of 40 bytes. A row: u32 SKU | u32 offset of
// its file records | u32 count | u32 bytes | u32 block maps | u32 logical blocks | u32 spare blocks
// | u32 file slots | 8. A file record: u16 slot | 58.
constexpr uint32_t efst_magic = 0x54534645;
constexpr uint64_t efst_row_size = 40;
constexpr uint64_t efst_record_size = 60;
constexpr uint32_t max_efs_slots = 65536;

std::string number(uint64_t value) {
    return std::to_string(value);
}

uint32_t u32(const Bytes &bytes, uint64_t offset) {
    return get_le32(bytes, static_cast<size_t>(offset));
}

uint32_t u16(const Bytes &bytes, uint64_t offset) {
    const auto at = static_cast<size_t>(offset);
    return bytes.at(at) | static_cast<uint32_t>(bytes.at(at + 1)) << 8;
}

// Where a SKU has its row, of rows that lie within the table; 0 if it has none.
uint64_t find_row(const Bytes &table, uint64_t first, uint64_t size, uint32_t rows, uint32_t sku) {
    for (uint64_t i = 0; i < rows; ++i) {
        const uint64_t row = first + i * size;
        if (u32(table, row) == sku) {
            return row;
        }
    }
    return 0;
}

std::optional<Refusal> why_entries_refused(const Bytes &ftbl, uint64_t row) {
    const uint64_t offset = u32(ftbl, row + 4);
    const auto count = static_cast<int32_t>(u32(ftbl, row + 8));
    const uint64_t size = count > 0 ? static_cast<uint64_t>(count) * entry_size : 0;
    if (offset + size > ftbl.size()) {
        return Refusal{static_cast<size_t>(row), "the entries of SKU " + number(u32(ftbl, row)) +
                                                     " reach past the end: " + number(size) +
                                                     " bytes at offset " + number(offset) + " of " +
                                                     number(ftbl.size())};
    }
    return std::nullopt;
}

std::optional<Refusal> why_geometry_refused(const Bytes &ftbl, uint64_t row) {
    const auto refusal = [row](std::string text) {
        return Refusal{static_cast<size_t>(row), "the EFS section: " + std::move(text)};
    };
    const uint64_t records = u32(ftbl, row + 4);
    const uint64_t count = u32(ftbl, row + 8);
    const uint32_t bm_num = u32(ftbl, row + 16);
    const uint64_t valid = u32(ftbl, row + 20);
    const uint64_t non_valid = u32(ftbl, row + 24);
    const uint32_t slots = u32(ftbl, row + 28);
    if (count * efst_record_size < u32(ftbl, row + 12)) {
        return refusal("its file list has " + number(count) + " records in " +
                       number(u32(ftbl, row + 12)) + " bytes");
    }
    if (bm_num > 255 || valid > 255 || non_valid > 255 || valid + non_valid < 2 ||
        valid + non_valid > 256) {
        return refusal(number(bm_num) + " block maps, " + number(valid) + " logical and " +
                       number(non_valid) + " spare blocks make no image");
    }
    if (slots == 0 || slots > max_efs_slots) {
        return refusal(number(slots) + " file slots");
    }
    if (records + count * efst_record_size > ftbl.size()) {
        return refusal("its file list reaches past the end");
    }
    for (uint64_t i = 0; i < count; ++i) {
        const uint32_t slot = u16(ftbl, records + i * efst_record_size);
        if (slot >= slots) {
            return refusal("its file list names file " + number(slot) + " of " + number(slots));
        }
    }
    return std::nullopt;
}

std::optional<Refusal> why_efs_section_refused(const Bytes &ftbl, uint64_t section, uint32_t sku) {
    if (section + 4 > ftbl.size() || u32(ftbl, section) != efst_magic) {
        return std::nullopt;
    }
    const uint64_t first = section + row_size; // its head is as long as a row of the table's
    const uint32_t rows = first > ftbl.size() ? 0 : u32(ftbl, section + ftbl_row_count_at);
    if (first + rows * efst_row_size > ftbl.size()) {
        return Refusal{static_cast<size_t>(section), "the EFS section reaches past the end"};
    }
    const uint64_t row = find_row(ftbl, first, efst_row_size, rows, sku);
    return row == 0 ? std::nullopt : why_geometry_refused(ftbl, row);
}

// The names of the file numbers that the table of a SKU knows; of a name that stands twice or a
// number that does, the first counts.
std::map<uint32_t, std::string> names_by_number(const Bytes &ftbl, uint32_t sku) {
    std::map<uint32_t, std::string> names;
    if (why_ftbl_refused(ftbl, sku)) {
        return names;
    }
    const uint64_t row = find_row(ftbl, row_size, row_size, u32(ftbl, ftbl_row_count_at), sku);
    const uint64_t entries = row == 0 ? 0 : u32(ftbl, row + 4);
    const auto count = row == 0 ? 0 : static_cast<int32_t>(u32(ftbl, row + 8));
    for (int32_t i = 0; i < count; ++i) {
        const uint64_t entry = entries + static_cast<uint64_t>(i) * entry_size;
        const std::string_view field(reinterpret_cast<const char *>(ftbl.data() + entry),
                                     entry_number_at);
        names.emplace(u32(ftbl, entry + entry_number_at), field.substr(0, field.find('\0')));
    }
    return names;
}

std::optional<Refusal> why_store_refused(const Bytes &file, size_t begin, uint64_t length,
                                         const std::map<uint32_t, std::string> &known) {
    if (length < store_head_size) {
        return Refusal{begin, number(length) + " bytes are too few for a store"};
    }
    const uint64_t count = u32(file, begin);
    if (store_head_size + count * record_size > length) {
        return Refusal{begin, "its " + number(count) + " records reach past the end"};
    }
    std::map<std::string, uint64_t> first_of;
    for (uint64_t i = 0; i < count; ++i) {
        const uint64_t record = begin + store_head_size + i * record_size;
        const auto refusal = [&](const std::string &why) {
            return Refusal{static_cast<size_t>(record), "record " + number(i) + ", file number " +
                                                            number(u32(file, record)) + ", " + why};
        };
        const uint64_t offset = u32(file, record + 4);
        const uint64_t size = u16(file, record + 8);
        if (size != 0 && offset + size > length) {
            return refusal("reaches past the end: " + number(size) + " bytes at offset " +
                           number(offset) + " of " + number(length));
        }
        if (size > max_value_size) {
            return refusal("has a value of " + number(size) + " bytes, more than any can have");
        }
        const auto name = known.find(u32(file, record));
        if (name == known.end()) {
            continue; // the library passes it by
        }
        const auto [first, is_new] = first_of.emplace(name->second, i);
        if (!is_new) {
            return refusal("is " + name->second + " again, as record " + number(first->second));
        }
    }
    return std::nullopt;
}

} // namespace

std::optional<Refusal> why_ftbl_refused(const Bytes &ftbl, uint32_t sku) {
    if (ftbl.size() < 4 || u32(ftbl, 0) != ftbl_magic) {
        return Refusal{0, "it does not begin with FTBL"};
    }
    if (ftbl.size() < ftbl_min_size) {
        return Refusal{0, "it has " + number(ftbl.size()) + " bytes, a file table has " +
                              number(ftbl_min_size) + " at least"};
    }
    const uint32_t rows = u32(ftbl, ftbl_row_count_at);
    if (rows > max_sku_rows) {
        return Refusal{ftbl_row_count_at, number(rows) + " rows for SKUs; at most " +
                                              number(max_sku_rows) + " are taken"};
    }
    const uint64_t row = find_row(ftbl, row_size, row_size, rows, sku);
    if (row != 0) {
        if (auto refusal = why_entries_refused(ftbl, row)) {
            return refusal;
        }
    }
    return why_efs_section_refused(ftbl, (uint64_t{rows} + 1) * row_size, sku);
}

std::optional<Refusal> why_orvel_refused(const Bytes &orvel_cfg, const Bytes &ftbl, uint32_t sku) {
    if (orvel_cfg.empty()) {
        return Refusal{0, "it is empty"};
    }
    return why_store_refused(orvel_cfg, 0, orvel_cfg.size(), names_by_number(ftbl, sku));
}

std::optional<Refusal> why_vync_refused(const Bytes &vync_cfg, const Bytes &ftbl, uint32_t sku) {
    if (vync_cfg.empty()) {
        return std::nullopt; // an absent one
    }
    if (vync_cfg.size() < vync_head_size) {
        return Refusal{0, "it has " + number(vync_cfg.size()) + " bytes, less than its head of " +
                              number(vync_head_size)};
    }
    const uint64_t length = u32(vync_cfg, vync_length_at);
    const uint64_t room = vync_cfg.size() - vync_head_size;
    if (length > room) {
        return Refusal{vync_length_at, "its head tells of " + number(length) + " bytes, only " +
                                           number(room) + " follow"};
    }
    return why_store_refused(vync_cfg, vync_head_size, length, names_by_number(ftbl, sku));
}

} // namespace dolm
