#include "image/efs_layout.h"

#include <stdexcept>

namespace dolm {

namespace {

constexpr uint32_t ftbl_magic = 0x4C425446; // "FTBL"
constexpr uint32_t efst_magic = 0x54534645; // "EFST"
constexpr uint64_t head_size = 16;          // of the table and of the section
constexpr uint64_t row_count_offset = 12;   // in both
constexpr uint64_t efst_row_size = 40;
constexpr uint64_t record_size = 60;
constexpr uint32_t max_files = 2048;

// Reads fields of a table that may be anything.
class Fields {
  public:
    explicit Fields(const Bytes &ftbl) : bytes_(ftbl) {}

    void require(uint64_t offset, uint64_t length) const {
        if (offset + length > bytes_.size()) {
            throw std::runtime_error("the EFS section of the file table runs past its end");
        }
    }
    uint32_t u32(uint64_t offset) const {
        require(offset, 4);
        return get_le32(bytes_, static_cast<size_t>(offset));
    }
    uint32_t u16(uint64_t offset) const {
        require(offset, 2);
        const auto at = static_cast<size_t>(offset);
        return bytes_[at] | static_cast<uint32_t>(bytes_[at + 1]) << 8;
    }

  private:
    const Bytes &bytes_;
};

uint64_t find_section(const Fields &table) {
    if (table.u32(0) != ftbl_magic) {
        throw std::runtime_error("the file table does not begin with FTBL");
    }
    const uint64_t section = (uint64_t{table.u32(row_count_offset)} + 1) * head_size;
    if (table.u32(section) != efst_magic) {
        throw std::runtime_error("the file table has no section for EFS");
    }
    return section;
}

uint64_t find_row(const Fields &table, uint64_t section, uint32_t sku) {
    const uint32_t rows = table.u32(section + row_count_offset);
    for (uint64_t i = 0; i < rows; ++i) {
        const uint64_t row = section + head_size + i * efst_row_size;
        if (table.u32(row) == sku) {
            table.require(row, efst_row_size);
            return row;
        }
    }
    throw std::runtime_error("the file table has no EFS row for SKU " + std::to_string(sku));
}

} // namespace

EfsLayout read_efs_layout(const Bytes &ftbl, uint32_t sku) {
    const Fields table(ftbl);
    const uint64_t row = find_row(table, find_section(table), sku);
    EfsLayout layout{table.u32(row + 16),
                     table.u32(row + 20),
                     table.u32(row + 24),
                     table.u32(row + 36) & 0xFF,
                     {}};
    const uint32_t file_count = table.u32(row + 28);
    if (layout.bm_num == 0 || layout.bm_num > 255 || layout.valid_blocks > 255 ||
        layout.spare_blocks > 255 || layout.data_blocks() < 2 || layout.data_blocks() > 256 ||
        file_count > max_files) {
        throw std::runtime_error(
            "the EFS geometry of the file table is none that an image can have");
    }
    const uint64_t records = table.u32(row + 4);
    const uint32_t count = table.u32(row + 8);
    table.require(records, count * record_size);
    for (uint32_t i = 0; i < count; ++i) {
        const uint64_t at = records + i * record_size;
        if (table.u16(at) >= file_count) {
            throw std::runtime_error("the EFS file list names file " +
                                     std::to_string(table.u16(at)) + " of " +
                                     std::to_string(file_count));
        }
        layout.files.push_back(
            {table.u16(at), table.u16(at + 50) & 0xFF, table.u16(at + 52), table.u16(at + 54)});
    }
    return layout;
}

} // namespace dolm
