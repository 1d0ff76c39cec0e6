#include "host/check/table_spot.h"

#include <algorithm>
#include <iterator>

namespace dolm {

namespace {

struct Field {
    size_t at;
    size_t size;
    const char *name;
};

constexpr Field record_fields[] = {
    {0, 4, "number"}, {4, 4, "offset"}, {8, 2, "size"}, {10, 2, "opaque word"}};

constexpr Field entry_fields[] = {
    {0, 48, "name"},    {48, 4, "number"},       {52, 2, "attributes"}, {54, 4, "unread bytes"},
    {58, 2, "file_id"}, {60, 3, "unread bytes"}, {63, 1, "store"},      {64, 4, "max_size"}};

constexpr Field row_fields[] = {
    {0, 4, "sku"}, {4, 4, "entries_offset"}, {8, 4, "entries_count"}, {12, 4, "unread bytes"}};

constexpr Field efst_row_fields[] = {{0, 4, "sku"},
                                     {4, 4, "records_offset"},
                                     {8, 4, "records_count"},
                                     {12, 4, "records_bytes"},
                                     {16, 4, "bm_num"},
                                     {20, 4, "valid_block_num"},
                                     {24, 4, "non_valid_block_num"},
                                     {28, 4, "files_num"},
                                     {32, 4, "wear_leveling_threshold"},
                                     {36, 4, "layout_id"}};

constexpr Field efst_record_fields[] = {{0, 2, "file_index"}, {2, 48, "unread bytes"},
                                        {50, 2, "block"},     {52, 2, "offset"},
                                        {54, 2, "max_size"},  {56, 4, "unread bytes"}};

// The field of a record in which the offset lies; null outside of the record.
template <size_t count>
const char *field_at(const Field (&fields)[count], size_t record_at, size_t offset) {
    const auto found = std::find_if(std::begin(fields), std::end(fields), [&](const Field &field) {
        const size_t at = record_at + field.at;
        return offset >= at && offset < at + field.size;
    });
    return found == std::end(fields) ? nullptr : found->name;
}

TableSpot spot_in_store(const SetView &view, const FcsStore &store, size_t offset) {
    if (offset < fcs::head_size) {
        return {"count", ""};
    }
    for (size_t i = 0; i < store.records.size(); ++i) {
        const FcsRecord &record = store.records[i];
        const char *field = field_at(record_fields, record.at, offset);
        const bool is_in_value = offset >= record.offset && offset < record.end();
        if (field != nullptr || is_in_value) {
            return {std::string(field == nullptr ? "value" : field) + " of record " +
                        std::to_string(i),
                    name_in(view.names, record.number)};
        }
    }
    return {"bytes behind the values", ""};
}

std::string of_sku(uint32_t sku) {
    return " of SKU " + std::to_string(sku);
}

TableSpot spot_in_efst(const SetView &view, size_t offset) {
    for (const EfstRow &row : view.table.efst_rows) {
        if (const char *field = field_at(efst_row_fields, row.at, offset)) {
            return {std::string(field) + " in the EFST row" + of_sku(row.sku), ""};
        }
        for (size_t i = 0; i < row.records.size(); ++i) {
            if (const char *field = field_at(efst_record_fields, row.records[i].at, offset)) {
                return {std::string(field) + " of EFST file record " + std::to_string(i) +
                            of_sku(row.sku),
                        name_in(view.efs_names, row.records[i].file_index)};
            }
        }
    }
    return {"bytes that nothing reads", ""};
}

TableSpot spot_in_table(const SetView &view, size_t offset) {
    const auto &efst_at = view.table.efst_at;
    if (offset < ftbl::head_size || (efst_at && offset >= *efst_at && offset < *efst_at + 16)) {
        return {offset < ftbl::head_size ? "head" : "head of the EFST section", ""};
    }
    for (const FtblRow &row : view.table.rows) {
        if (const char *field = field_at(row_fields, row.at, offset)) {
            return {std::string(field) + " in the row" + of_sku(row.sku), ""};
        }
        for (size_t i = 0; i < row.entries.size(); ++i) {
            if (const char *field = field_at(entry_fields, row.entries[i].at, offset)) {
                return {std::string(field) + " of entry " + std::to_string(i) + of_sku(row.sku),
                        std::string(row.entries[i].name)};
            }
        }
    }
    return spot_in_efst(view, offset);
}

} // namespace

TableSpot spot_at(const SetView &view, const std::string &file, size_t offset) {
    if (file == ftbl_bin) {
        return spot_in_table(view, offset);
    }
    if (file == orvel_cfg) {
        return spot_in_store(view, view.base, offset);
    }
    return offset < fcs::vync_head_size
               ? TableSpot{"head", ""}
               : spot_in_store(view, view.overrides, offset - fcs::vync_head_size);
}

} // namespace dolm
