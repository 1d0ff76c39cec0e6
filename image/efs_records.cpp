#include "image/efs_records.h"

#include <array>

#include "image/crc16.h"

namespace dolm::efs {

namespace {

constexpr auto crc32_table = [] {
    std::array<uint32_t, 256> table{};
    for (uint32_t i = 0; i < 256; ++i) {
        table[i] = i;
        for (int bit = 0; bit < 8; ++bit) {
            table[i] = table[i] >> 1 ^ ((table[i] & 1) != 0 ? 0xEDB88320 : 0);
        }
    }
    return table;
}();

// The index into the table of the entry with a top byte; each entry has another.
constexpr auto index_by_top_byte = [] {
    std::array<uint8_t, 256> index{};
    for (uint32_t i = 0; i < 256; ++i) {
        index[crc32_table[i] >> 24] = static_cast<uint8_t>(i);
    }
    return index;
}();

// What the register held before a byte of zero.
uint32_t step_back(uint32_t crc) {
    const uint32_t index = index_by_top_byte[crc >> 24];
    return (crc ^ crc32_table[index]) << 8 | index;
}

} // namespace

uint32_t crc32(std::span<const uint8_t> bytes) {
    uint32_t crc = 0;
    for (const uint8_t byte : bytes) {
        crc = crc >> 8 ^ crc32_table[(crc ^ byte) & 0xFF];
    }
    return crc;
}

bool record_is_good(std::span<const uint8_t> record, uint32_t logical, uint32_t payload) {
    const uint16_t head = crc16(static_cast<uint16_t>(logical), record.first(2));
    return crc16(head, record.subspan(record_head_size, payload)) == get_le16(record, 2);
}

std::optional<WrongByte> wrong_byte(std::span<const uint8_t> bytes) {
    const size_t size = bytes.size() - 4;
    const uint32_t checksum = get_le32(bytes, size);
    const uint32_t difference = crc32(bytes.first(size)) ^ checksum;
    for (size_t i = 0; i < 4; ++i) {
        if ((difference & ~(uint32_t{0xFF} << (8 * i))) == 0) {
            return WrongByte{size + i, static_cast<uint8_t>(difference >> (8 * i))};
        }
    }
    return wrong_byte(bytes.first(size), checksum);
}

// The checksum is linear: a wrong byte leaves its difference in the register, and the bytes behind
// it move that on as zeros do.
std::optional<WrongByte> wrong_byte(std::span<const uint8_t> bytes, uint32_t checksum) {
    uint32_t difference = crc32(bytes) ^ checksum;
    for (size_t i = bytes.size(); i > 0; --i) {
        difference = step_back(difference);
        if (difference < 256) {
            return WrongByte{i - 1, static_cast<uint8_t>(difference)};
        }
    }
    return std::nullopt;
}

} // namespace dolm::efs
