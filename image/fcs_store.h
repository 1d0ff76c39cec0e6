// A reader of serialised configuration stores, the form of "orvel.cfg" and of what follows the
// head of "vync.cfg". It shares no code and no header with the library, on purpose, and judges
// nothing: records that run past the end are left out.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "image/bytes.h"

namespace dolm {

namespace fcs {

constexpr uint32_t head_size = 4; // the number of records

// Record: u32 number, u32 offset of the payload in the store, u16 size of it, u16 that nothing
// reads.
constexpr uint32_t record_size = 12;
constexpr uint32_t record_offset_offset = 4;
constexpr uint32_t record_size_offset = 8;
constexpr uint32_t record_opaque_offset = 10;
constexpr uint32_t max_payload = 65523; // record and payload travel with a length of 16 bits

constexpr uint32_t vync_head_size = 16;
constexpr uint32_t vync_length_offset = 8;

} // namespace fcs

struct FcsRecord {
    size_t at = 0; // in the store
    uint32_t number = 0;
    uint32_t offset = 0; // of its payload in the store
    uint16_t size = 0;
    uint16_t opaque = 0;

    uint64_t end() const { return uint64_t{offset} + size; }
};

struct FcsStore {
    std::span<const uint8_t> bytes;
    uint32_t count = 0;
    std::vector<FcsRecord> records; // as far as they lie in the store

    bool has_all_records() const {
        return bytes.size() >= fcs::head_size && records.size() == count;
    }
    bool has_payload(const FcsRecord &record) const {
        return record.size == 0 || record.end() <= bytes.size();
    }
    // The record must have its payload in the store.
    std::span<const uint8_t> payload(const FcsRecord &record) const {
        return record.size == 0 ? std::span<const uint8_t>{}
                                : bytes.subspan(record.offset, record.size);
    }
    // Where the payloads begin if they follow the records.
    uint64_t payloads_at() const { return fcs::head_size + uint64_t{count} * fcs::record_size; }
};

// The bytes have to outlive what is returned.
FcsStore read_fcs_store(std::span<const uint8_t> bytes);

// The same, with another count than the one in the bytes.
FcsStore read_fcs_store(std::span<const uint8_t> bytes, uint32_t count);

} // namespace dolm
