#include "image/efs_layout.h"

#include <stdexcept>

namespace dolm {

namespace {

constexpr uint32_t max_files = 65536; // what an index of 16 bits can reach

const EfstRow &find_row(const FileTable &table, uint32_t sku) {
    if (!table.has_magic) {
        throw std::runtime_error("the file table does not begin with FTBL");
    }
    if (!table.efst_at) {
        throw std::runtime_error("the file table has no section for EFS");
    }
    if (const EfstRow *row = table.efst_row_of(sku)) {
        return *row;
    }
    throw std::runtime_error("the file table has no EFS row for SKU " + std::to_string(sku));
}

} // namespace

bool is_possible(const EfsLayout &layout) {
    return layout.bm_num != 0 && layout.bm_num <= 255 && layout.valid_blocks <= 255 &&
           layout.spare_blocks <= 255 && layout.data_blocks() >= 2 && layout.data_blocks() <= 256;
}

EfsLayout efs_layout_of(const EfstRow &row) {
    EfsLayout layout{row.bm_num, row.valid_blocks, row.spare_blocks, row.layout_id, {}};
    for (const EfstRecord &record : row.records) {
        layout.files.push_back({record.file_index, record.block, record.offset, record.max_size});
    }
    return layout;
}

EfsLayout read_efs_layout(const Bytes &ftbl, uint32_t sku) {
    const FileTable table = read_file_table(ftbl);
    const EfstRow &row = find_row(table, sku);
    EfsLayout layout = efs_layout_of(row);
    if (!is_possible(layout) || row.files_num > max_files) {
        throw std::runtime_error(
            "the EFS geometry of the file table is none that an image can have");
    }
    if (row.records.size() != row.records_count) {
        throw std::runtime_error("the EFS section of the file table runs past its end");
    }
    for (const EfsPlace &place : layout.files) {
        if (place.number >= row.files_num) {
            throw std::runtime_error("the EFS file list names file " +
                                     std::to_string(place.number) + " of " +
                                     std::to_string(row.files_num));
        }
    }
    return layout;
}

} // namespace dolm
