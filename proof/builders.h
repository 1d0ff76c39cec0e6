// Builders of the byte formats that the configuration side reads. Shared by tests and fuzz targets.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "FCS.h"
#include "efs_tools_utils.h"
#include "image/bytes.h"
#include "image/fcs_store.h"
#include "image/file_table.h"
#include "proof/guarded_bytes.h"

namespace dolm::proof::builders {

inline void put16(Bytes &bytes, size_t at, uint32_t value) {
    put_le(bytes, at, value, 2);
}

inline void put32(Bytes &bytes, size_t at, uint32_t value) {
    put_le(bytes, at, value, 4);
}

// Adds size zero bytes and returns where they start.
inline size_t grow(Bytes &bytes, size_t size) {
    bytes.resize(bytes.size() + size);
    return bytes.size() - size;
}

struct TableEntry {
    std::string name; // up to 48 characters
    uint32_t fileno;
    uint32_t max_size = 0xFFFF;
    uint16_t attributes = 0;
    uint16_t file_id = 0;
    uint8_t store = 1;
};

struct EfsRecord {
    uint16_t file_index;
    uint16_t block;
    uint16_t offset;
    uint16_t max_size;
};

struct Geometry {
    uint32_t sku = 1;
    uint32_t bm_num = 2;
    uint32_t valid_block_num = 7;
    uint32_t non_valid_block_num = 3;
    uint32_t files_num = 16;
    uint32_t wear_leveling_threshold = 100;
    uint32_t layout_id = 0;
    std::vector<EfsRecord> records = {};
};

// An FTBL: head, SKU rows, EFST section (if there are geometry rows), entries, file records.
struct FileTable {
    struct SkuRow {
        uint32_t sku;
        std::vector<TableEntry> entries;
    };
    std::vector<SkuRow> sku_rows;
    std::vector<Geometry> geometry_rows;

    size_t row_at(size_t row) const { return ftbl::head_size + ftbl::row_size * row; }
    size_t section_at() const { return row_at(sku_rows.size()); }
    size_t geometry_at(size_t row = 0) const {
        return section_at() + ftbl::head_size + ftbl::efst_row_size * row;
    }

    Bytes build() const {
        Bytes bytes(section_at());
        put32(bytes, 0, ftbl::magic);
        put32(bytes, ftbl::row_count_offset, static_cast<uint32_t>(sku_rows.size()));
        if (!geometry_rows.empty()) {
            bytes.resize(geometry_at(geometry_rows.size()));
            put32(bytes, section_at(), ftbl::efst_magic);
            put32(bytes, section_at() + ftbl::row_count_offset,
                  static_cast<uint32_t>(geometry_rows.size()));
        }
        for (size_t i = 0; i < sku_rows.size(); ++i) {
            put_entries(bytes, row_at(i), sku_rows[i]);
        }
        for (size_t i = 0; i < geometry_rows.size(); ++i) {
            put_geometry(bytes, geometry_at(i), geometry_rows[i]);
        }
        bytes.resize(std::max<size_t>(bytes.size(), ftbl::min_size));
        return bytes;
    }

  private:
    static void put_entries(Bytes &bytes, size_t row, const SkuRow &source) {
        put_row(bytes, row, {source.sku, bytes.size(), source.entries.size()});
        for (const TableEntry &entry : source.entries) {
            const size_t at = grow(bytes, ftbl::entry_size);
            std::memcpy(bytes.data() + at, entry.name.data(), entry.name.size());
            put32(bytes, at + ftbl::entry_number_offset, entry.fileno);
            put16(bytes, at + ftbl::entry_attributes_offset, entry.attributes);
            put16(bytes, at + ftbl::entry_id_offset, entry.file_id);
            bytes[at + ftbl::entry_store_offset] = entry.store;
            put32(bytes, at + ftbl::entry_max_size_offset, entry.max_size);
        }
    }

    static void put_geometry(Bytes &bytes, size_t row, const Geometry &source) {
        const size_t count = source.records.size();
        put_row(bytes, row,
                {source.sku, bytes.size(), count, count * ftbl::efst_record_size, source.bm_num,
                 source.valid_block_num, source.non_valid_block_num, source.files_num,
                 source.wear_leveling_threshold, source.layout_id});
        for (const EfsRecord &record : source.records) {
            const size_t at = grow(bytes, ftbl::efst_record_size);
            put16(bytes, at, record.file_index);
            put16(bytes, at + ftbl::record_block_offset, record.block);
            put16(bytes, at + ftbl::record_start_offset, record.offset);
            put16(bytes, at + ftbl::record_max_size_offset, record.max_size);
        }
    }

    static void put_row(Bytes &bytes, size_t at, std::initializer_list<size_t> fields) {
        for (const size_t field : fields) {
            put32(bytes, at, static_cast<uint32_t>(field));
            at += 4;
        }
    }
};

struct StoreFile {
    uint32_t fileno;
    std::string payload;
    uint16_t opaque = 0;
};

// Record and payload, as addNewFile takes them.
inline Bytes block_of(const StoreFile &file, uint32_t offset = 0) {
    Bytes block;
    block.reserve(fcs::record_size + file.payload.size());
    block.resize(fcs::record_size);
    put32(block, 0, file.fileno);
    put32(block, fcs::record_offset_offset, offset);
    put16(block, fcs::record_size_offset, static_cast<uint32_t>(file.payload.size()));
    put16(block, fcs::record_opaque_offset, file.opaque);
    block.insert(block.end(), file.payload.begin(), file.payload.end());
    return block;
}

// A serialised store with the files in the order given and their payloads packed.
inline Bytes store_of(const std::vector<StoreFile> &files) {
    Bytes bytes(fcs::head_size);
    put32(bytes, 0, static_cast<uint32_t>(files.size()));
    Bytes payloads;
    for (const StoreFile &file : files) {
        const size_t offset = fcs::head_size + fcs::record_size * files.size() + payloads.size();
        const Bytes block = block_of(file, static_cast<uint32_t>(offset));
        bytes.insert(bytes.end(), block.begin(), block.begin() + fcs::record_size);
        payloads.insert(payloads.end(), block.begin() + fcs::record_size, block.end());
    }
    bytes.insert(bytes.end(), payloads.begin(), payloads.end());
    return bytes;
}

// Takes the selection out of the process-wide file table.
inline void forget_file_table() {
    g_table_buf = nullptr;
    g_table_num_files = 0;
    g_dfs_sku = 0xFFFFFFFF;
}

} // namespace dolm::proof::builders
