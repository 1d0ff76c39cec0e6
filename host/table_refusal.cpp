#include "host/table_refusal.h"

#include <map>
#include <string_view>

#include "image/fcs_store.h"
#include "image/file_table.h"

namespace dolm {

using namespace ftbl;

namespace {

constexpr uint32_t max_efs_slots = 65536;

std::string number(uint64_t value) {
    return std::to_string(value);
}

uint32_t u32(const Bytes &bytes, uint64_t offset) {
    return get_le32(bytes, static_cast<size_t>(offset));
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
    const uint64_t offset = u32(ftbl, row + row_entries_offset);
    const auto count = static_cast<int32_t>(u32(ftbl, row + row_entry_count_offset));
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
    const uint64_t records = u32(ftbl, row + efst_records_offset);
    const uint64_t count = u32(ftbl, row + efst_record_count_offset);
    const uint32_t bm_num = u32(ftbl, row + efst_bm_num_offset);
    const uint64_t valid = u32(ftbl, row + efst_valid_blocks_offset);
    const uint64_t non_valid = u32(ftbl, row + efst_spare_blocks_offset);
    const uint32_t slots = u32(ftbl, row + efst_files_num_offset);
    if (count * efst_record_size < u32(ftbl, row + efst_records_bytes_offset)) {
        return refusal("its file list has " + number(count) + " records in " +
                       number(u32(ftbl, row + efst_records_bytes_offset)) + " bytes");
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
        const uint32_t slot = get_le16(ftbl, static_cast<size_t>(records + i * efst_record_size));
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
    const uint64_t first = section + head_size;
    const uint32_t rows = first > ftbl.size() ? 0 : u32(ftbl, section + row_count_offset);
    if (first + uint64_t{rows} * efst_row_size > ftbl.size()) {
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
    const uint64_t row = find_row(ftbl, head_size, row_size, u32(ftbl, row_count_offset), sku);
    const uint64_t entries = row == 0 ? 0 : u32(ftbl, row + row_entries_offset);
    const auto count = row == 0 ? 0 : static_cast<int32_t>(u32(ftbl, row + row_entry_count_offset));
    for (int32_t i = 0; i < count; ++i) {
        const uint64_t entry = entries + static_cast<uint64_t>(i) * entry_size;
        const std::string_view field(reinterpret_cast<const char *>(ftbl.data() + entry),
                                     name_size);
        names.emplace(u32(ftbl, entry + entry_number_offset), field.substr(0, field.find('\0')));
    }
    return names;
}

std::optional<Refusal> why_store_refused(const Bytes &file, size_t begin, uint64_t length,
                                         const std::map<uint32_t, std::string> &known) {
    if (length < fcs::head_size) {
        return Refusal{begin, number(length) + " bytes are too few for a store"};
    }
    const uint64_t count = u32(file, begin);
    if (fcs::head_size + count * fcs::record_size > length) {
        return Refusal{begin, "its " + number(count) + " records reach past the end"};
    }
    std::map<std::string, uint64_t> first_of;
    for (uint64_t i = 0; i < count; ++i) {
        const uint64_t record = begin + fcs::head_size + i * fcs::record_size;
        const auto refusal = [&](const std::string &why) {
            return Refusal{static_cast<size_t>(record), "record " + number(i) + ", file number " +
                                                            number(u32(file, record)) + ", " + why};
        };
        const uint64_t offset = u32(file, record + fcs::record_offset_offset);
        const uint64_t size = get_le16(file, static_cast<size_t>(record) + fcs::record_size_offset);
        if (size != 0 && offset + size > length) {
            return refusal("reaches past the end: " + number(size) + " bytes at offset " +
                           number(offset) + " of " + number(length));
        }
        if (size > fcs::max_payload) {
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
    if (ftbl.size() < 4 || u32(ftbl, 0) != magic) {
        return Refusal{0, "it does not begin with FTBL"};
    }
    if (ftbl.size() < min_size) {
        return Refusal{0, "it has " + number(ftbl.size()) + " bytes, a file table has " +
                              number(min_size) + " at least"};
    }
    const uint32_t rows = u32(ftbl, row_count_offset);
    if (rows > max_rows) {
        return Refusal{row_count_offset,
                       number(rows) + " rows for SKUs; at most " + number(max_rows) + " are taken"};
    }
    const uint64_t row = find_row(ftbl, head_size, row_size, rows, sku);
    if (row != 0) {
        if (auto refusal = why_entries_refused(ftbl, row)) {
            return refusal;
        }
    }
    return why_efs_section_refused(ftbl, head_size + uint64_t{rows} * row_size, sku);
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
    if (vync_cfg.size() < fcs::vync_head_size) {
        return Refusal{0, "it has " + number(vync_cfg.size()) + " bytes, less than its head of " +
                              number(fcs::vync_head_size)};
    }
    const uint64_t length = u32(vync_cfg, fcs::vync_length_offset);
    const uint64_t room = vync_cfg.size() - fcs::vync_head_size;
    if (length > room) {
        return Refusal{fcs::vync_length_offset, "its head tells of " + number(length) +
                                                    " bytes, only " + number(room) + " follow"};
    }
    return why_store_refused(vync_cfg, fcs::vync_head_size, length, names_by_number(ftbl, sku));
}

} // namespace dolm
