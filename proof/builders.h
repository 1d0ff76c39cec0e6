// Builders of the byte formats that the configuration side reads, and memory that catches an
// access outside it. Shared by tests and fuzz targets.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "FCS.h"
#include "efs_tools_utils.h"
#include "image/bytes.h"

namespace builders {

using dolm::Bytes;

inline void put16(Bytes &bytes, size_t at, uint32_t value) {
    dolm::put_le(bytes, at, value, 2);
}

inline void put32(Bytes &bytes, size_t at, uint32_t value) {
    dolm::put_le(bytes, at, value, 4);
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

    size_t section_at() const { return 16 * (sku_rows.size() + 1); }
    size_t geometry_at(size_t row = 0) const { return section_at() + 16 + 40 * row; }

    Bytes build() const {
        Bytes bytes(section_at());
        std::memcpy(bytes.data(), "FTBL", 4);
        put32(bytes, 12, static_cast<uint32_t>(sku_rows.size()));
        if (!geometry_rows.empty()) {
            const size_t section = grow(bytes, 16 + 40 * geometry_rows.size());
            std::memcpy(bytes.data() + section, "EFST", 4);
            put32(bytes, section + 12, static_cast<uint32_t>(geometry_rows.size()));
        }
        for (size_t i = 0; i < sku_rows.size(); ++i) {
            put_entries(bytes, 16 * (i + 1), sku_rows[i]);
        }
        for (size_t i = 0; i < geometry_rows.size(); ++i) {
            put_geometry(bytes, geometry_at(i), geometry_rows[i]);
        }
        bytes.resize(bytes.size() < 1024 ? 1024 : bytes.size());
        return bytes;
    }

  private:
    static void put_entries(Bytes &bytes, size_t row, const SkuRow &source) {
        put_row(bytes, row, {source.sku, bytes.size(), source.entries.size()});
        for (const TableEntry &entry : source.entries) {
            const size_t at = grow(bytes, 68);
            std::memcpy(bytes.data() + at, entry.name.data(), entry.name.size());
            put32(bytes, at + 48, entry.fileno);
            put16(bytes, at + 52, entry.attributes);
            put16(bytes, at + 58, entry.file_id);
            bytes[at + 63] = entry.store;
            put32(bytes, at + 64, entry.max_size);
        }
    }

    static void put_geometry(Bytes &bytes, size_t row, const Geometry &source) {
        const size_t count = source.records.size();
        put_row(bytes, row,
                {source.sku, bytes.size(), count, count * 60, source.bm_num, source.valid_block_num,
                 source.non_valid_block_num, source.files_num, source.wear_leveling_threshold,
                 source.layout_id});
        for (const EfsRecord &record : source.records) {
            const size_t at = grow(bytes, 60);
            put16(bytes, at, record.file_index);
            put16(bytes, at + 50, record.block);
            put16(bytes, at + 52, record.offset);
            put16(bytes, at + 54, record.max_size);
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
    block.reserve(12 + file.payload.size());
    block.resize(12);
    put32(block, 0, file.fileno);
    put32(block, 4, offset);
    put16(block, 8, static_cast<uint32_t>(file.payload.size()));
    put16(block, 10, file.opaque);
    block.insert(block.end(), file.payload.begin(), file.payload.end());
    return block;
}

// A serialised store with the files in the order given and their payloads packed.
inline Bytes store_of(const std::vector<StoreFile> &files) {
    Bytes bytes(4);
    put32(bytes, 0, static_cast<uint32_t>(files.size()));
    Bytes payloads;
    for (const StoreFile &file : files) {
        const size_t offset = 4 + 12 * files.size() + payloads.size();
        const Bytes block = block_of(file, static_cast<uint32_t>(offset));
        bytes.insert(bytes.end(), block.begin(), block.begin() + 12);
        payloads.insert(payloads.end(), block.begin() + 12, block.end());
    }
    bytes.insert(bytes.end(), payloads.begin(), payloads.end());
    return bytes;
}

// Read-only copy of bytes that ends where unreadable memory starts.
class GuardedBytes {
  public:
    explicit GuardedBytes(const Bytes &bytes) {
        const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
        const size_t used = (bytes.size() + page - 1) / page * page;
        map_size_ = used + page;
        map_ = static_cast<uint8_t *>(
            mmap(nullptr, map_size_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        data_ = map_ + used - bytes.size();
        std::memcpy(data_, bytes.data(), bytes.size());
        mprotect(map_, used, PROT_READ);
        mprotect(map_ + used, page, PROT_NONE);
    }
    ~GuardedBytes() { munmap(map_, map_size_); }
    GuardedBytes(const GuardedBytes &) = delete;
    GuardedBytes &operator=(const GuardedBytes &) = delete;

    const uint8_t *data() const { return data_; }

  private:
    uint8_t *map_;
    uint8_t *data_;
    size_t map_size_;
};

// Takes the selection out of the process-wide file table.
inline void forget_file_table() {
    g_table_buf = nullptr;
    g_table_num_files = 0;
    g_dfs_sku = 0xFFFFFFFF;
}

} // namespace builders
