#include "image/file_table.h"

#include <algorithm>
#include <cstring>

namespace dolm {

using namespace ftbl;

namespace {

class Reader {
  public:
    explicit Reader(const Bytes &bytes) : bytes_(bytes) {}

    FileTable read() {
        FileTable table;
        if (!has(0, head_size)) {
            return table;
        }
        table.has_magic = get_le32(bytes_, 0) == magic;
        table.row_count = get_le32(bytes_, row_count_offset);
        for (size_t i = 0; i < std::min(table.row_count, max_rows); ++i) {
            if (has(head_size + i * row_size, row_size)) {
                table.rows.push_back(read_row(head_size + i * row_size));
            }
        }
        const uint64_t section = head_size + uint64_t{table.row_count} * row_size;
        if (has(section, head_size) &&
            get_le32(bytes_, static_cast<size_t>(section)) == efst_magic) {
            read_section(table, static_cast<size_t>(section));
        }
        return table;
    }

  private:
    bool has(uint64_t at, uint64_t size) const { return at + size <= bytes_.size(); }

    // How many of count records of a size lie in the table from an offset on.
    size_t present(uint32_t at, uint32_t count, uint32_t size) const {
        return at > bytes_.size() ? 0 : std::min<size_t>(count, (bytes_.size() - at) / size);
    }

    FtblRow read_row(size_t at) const {
        FtblRow row{at,
                    get_le32(bytes_, at),
                    get_le32(bytes_, at + row_entries_offset),
                    get_le32(bytes_, at + row_entry_count_offset),
                    {}};
        const bool is_empty = row.entries_count >> 31 != 0;
        const size_t count = is_empty ? 0 : present(row.entries_at, row.entries_count, entry_size);
        row.entries.reserve(count);
        for (size_t i = 0; i < count; ++i) {
            row.entries.push_back(read_entry(row.entries_at + i * entry_size));
        }
        return row;
    }

    FtblEntry read_entry(size_t at) const {
        constexpr uint16_t id_mask = 0x7FF;
        FtblEntry entry;
        entry.at = at;
        const char *name = reinterpret_cast<const char *>(bytes_.data()) + at;
        entry.name = {name, strnlen(name, name_size)};
        entry.number = get_le32(bytes_, at + entry_number_offset);
        entry.attributes = get_le16(bytes_, at + entry_attributes_offset);
        entry.id = get_le16(bytes_, at + entry_id_offset) & id_mask;
        entry.store = bytes_[at + entry_store_offset];
        entry.max_size = get_le32(bytes_, at + entry_max_size_offset);
        return entry;
    }

    void read_section(FileTable &table, size_t section) const {
        table.efst_at = section;
        table.efst_row_count = get_le32(bytes_, section + row_count_offset);
        for (size_t i = 0; i < std::min(table.efst_row_count, max_rows); ++i) {
            const size_t at = section + head_size + i * efst_row_size;
            if (has(at, efst_row_size)) {
                table.efst_rows.push_back(read_efst_row(at));
            }
        }
    }

    EfstRow read_efst_row(size_t at) const {
        const auto field = [&](size_t offset) { return get_le32(bytes_, at + offset); };
        EfstRow row{.at = at,
                    .sku = field(0),
                    .records_at = field(efst_records_offset),
                    .records_count = field(efst_record_count_offset),
                    .records_bytes = field(efst_records_bytes_offset),
                    .bm_num = field(efst_bm_num_offset),
                    .valid_blocks = field(efst_valid_blocks_offset),
                    .spare_blocks = field(efst_spare_blocks_offset),
                    .files_num = field(efst_files_num_offset),
                    .wear_threshold = field(efst_wear_threshold_offset),
                    .layout_id = field(efst_layout_id_offset) & 0xFF,
                    .records = {}};
        const size_t count = present(row.records_at, row.records_count, efst_record_size);
        row.records.reserve(count);
        for (size_t i = 0; i < count; ++i) {
            const size_t record = row.records_at + i * efst_record_size;
            row.records.push_back({.at = record,
                                   .file_index = get_le16(bytes_, record),
                                   .block = bytes_[record + record_block_offset],
                                   .offset = get_le16(bytes_, record + record_start_offset),
                                   .max_size = get_le16(bytes_, record + record_max_size_offset)});
        }
        return row;
    }

    const Bytes &bytes_;
};

} // namespace

uint32_t trailer_length(uint16_t attributes) {
    if ((attributes & attribute_trailer) == 0) {
        return 0;
    }
    return (attributes & attribute_long_trailer) != 0 ? 56 : 40;
}

const EfstRecord *EfstRow::record_of(uint32_t file) const {
    const auto found = std::find_if(records.begin(), records.end(), [=](const EfstRecord &record) {
        return record.file_index == file;
    });
    return found == records.end() ? nullptr : &*found;
}

const FtblRow *FileTable::row_of(uint32_t sku) const {
    const auto found =
        std::find_if(rows.begin(), rows.end(), [=](const FtblRow &row) { return row.sku == sku; });
    return found == rows.end() ? nullptr : &*found;
}

const EfstRow *FileTable::efst_row_of(uint32_t sku) const {
    const auto found = std::find_if(efst_rows.begin(), efst_rows.end(),
                                    [=](const EfstRow &row) { return row.sku == sku; });
    return found == efst_rows.end() ? nullptr : &*found;
}

FileTable read_file_table(const Bytes &bytes) {
    return Reader(bytes).read();
}

} // namespace dolm
