// The bytes of file tables and configuration stores.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "record.h"

namespace recorder {

using Bytes = std::vector<uint8_t>;

struct EfsRecord {
    uint32_t file;
    uint32_t block;
    uint32_t offset;
    uint32_t max_size;
};

struct EfsGeometry {
    uint32_t bm_num = 2;
    uint32_t valid_blocks = 7;
    uint32_t spare_blocks = 3;
    uint32_t files_num = 16;
    uint32_t wear_threshold = 100;
    uint32_t layout_id = 0;
    std::vector<EfsRecord> records = {};
};

struct TableEntry {
    std::string name;
    uint32_t fileno;
    uint32_t attributes = 0;
    uint32_t file_id = 0;
    uint32_t store = 1;
    uint32_t max_size = 0xFFFF;
};

inline void append(Bytes &bytes, uint32_t value, size_t width = 4) {
    for (size_t i = 0; i < width; ++i) {
        bytes.push_back(static_cast<uint8_t>(value >> (8 * i)));
    }
}

inline void append(Bytes &bytes, const Bytes &more) {
    bytes.insert(bytes.end(), more.begin(), more.end());
}

// A file table with one SKU.
inline Bytes make_file_table(uint32_t sku, const std::vector<TableEntry> &entries,
                             const EfsGeometry &geometry) {
    constexpr uint32_t heads = 16 + 16 + 16 + 40;
    const auto records_at = static_cast<uint32_t>(heads + 68 * entries.size());
    const auto records = static_cast<uint32_t>(geometry.records.size());
    Bytes bytes;
    for (const uint32_t word : {0x4C425446U,
                                0U,
                                0U,
                                1U,
                                sku,
                                heads,
                                static_cast<uint32_t>(entries.size()),
                                0U,
                                0x54534645U,
                                0U,
                                0U,
                                1U,
                                sku,
                                records_at,
                                records,
                                records * 60,
                                geometry.bm_num,
                                geometry.valid_blocks,
                                geometry.spare_blocks,
                                geometry.files_num,
                                geometry.wear_threshold,
                                geometry.layout_id}) {
        append(bytes, word);
    }
    for (const TableEntry &entry : entries) {
        Bytes name(entry.name.begin(), entry.name.end());
        name.resize(48);
        append(bytes, name);
        append(bytes, entry.fileno);
        append(bytes, entry.attributes, 2);
        append(bytes, 0);
        append(bytes, entry.file_id, 2);
        append(bytes, entry.store << 24);
        append(bytes, entry.max_size);
    }
    for (const EfsRecord &file : geometry.records) {
        append(bytes, file.file, 2);
        append(bytes, Bytes(48));
        append(bytes, file.block, 2);
        append(bytes, file.offset, 2);
        append(bytes, file.max_size, 2);
        append(bytes, 0);
    }
    bytes.resize(bytes.size() < 1024 ? 1024 : bytes.size());
    return bytes;
}

struct StoreFile {
    uint32_t fileno;
    Bytes payload;
};

inline Bytes make_record(const StoreFile &file, uint32_t offset, uint32_t opaque) {
    Bytes bytes;
    append(bytes, file.fileno);
    append(bytes, offset);
    append(bytes, static_cast<uint32_t>(file.payload.size()), 2);
    append(bytes, opaque, 2);
    return bytes;
}

// A serialised configuration store.
inline Bytes make_store(const std::vector<StoreFile> &files) {
    Bytes bytes;
    append(bytes, static_cast<uint32_t>(files.size()));
    auto offset = static_cast<uint32_t>(4 + 12 * files.size());
    for (const StoreFile &file : files) {
        append(bytes, make_record(file, offset, file.fileno * 7 & 0xFFFF));
        offset += static_cast<uint32_t>(file.payload.size());
    }
    for (const StoreFile &file : files) {
        append(bytes, file.payload);
    }
    return bytes;
}

EfsGeometry random_efs_geometry(Random &random);

} // namespace recorder
