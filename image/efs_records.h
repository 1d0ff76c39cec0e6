// The records of an EFS image as the readers see them: sizes, values and checksums.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "image/bytes.h"

namespace dolm::efs {

constexpr uint32_t block_size = 4096;

// BM: header with checksum at 12, then entries; the last one ends at 4095 at most.
constexpr uint32_t header_size = 16;
constexpr uint32_t entry_limit = 4095;
constexpr uint32_t entry_words_size = 12; // two free words and the checksum
constexpr uint32_t entries_in_bm(uint32_t data_blocks) {
    return (entry_limit - header_size) / (data_blocks + entry_words_size);
}

// Data block: header, data area, checksum of the data area.
constexpr uint32_t data_offset = 16;
constexpr uint32_t data_size = 4076;
constexpr uint32_t footer_offset = data_offset + data_size;

// Record: length or no_file, checksum, payload.
constexpr uint32_t record_head_size = 4;
constexpr uint32_t record_room = data_size - record_head_size;
constexpr uint32_t no_file = 0xFFFF;

uint32_t crc32(std::span<const uint8_t> bytes);

// Whether a record carries the checksum of its length and so many bytes of payload in the logical
// block, whose number the checksum begins with: one in the wrong place fails.
bool record_is_good(std::span<const uint8_t> record, uint32_t logical, uint32_t payload);

inline bool all(std::span<const uint8_t> bytes, uint8_t value) {
    return std::all_of(bytes.begin(), bytes.end(), [=](uint8_t byte) { return byte == value; });
}

// Whether the last four bytes are the checksum of those before.
inline bool is_sealed(std::span<const uint8_t> bytes) {
    return crc32(bytes.first(bytes.size() - 4)) == get_le32(bytes, bytes.size() - 4);
}

// Of bytes that fail their checksum at the end: the one byte that, if it alone is wrong, explains
// it, and the bits that are wrong in it.
struct WrongByte {
    size_t at;
    uint8_t bits;
};
std::optional<WrongByte> wrong_byte(std::span<const uint8_t> bytes);

// The same for bytes that had another checksum, in which nothing is wrong.
std::optional<WrongByte> wrong_byte(std::span<const uint8_t> bytes, uint32_t checksum);

} // namespace dolm::efs
