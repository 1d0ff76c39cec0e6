#include "image/efs_records.h"

#include <array>

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

constexpr auto crc16_table = [] {
    std::array<uint32_t, 256> table{};
    for (uint32_t i = 0; i < 256; ++i) {
        table[i] = i << 8;
        for (int bit = 0; bit < 8; ++bit) {
            table[i] = (table[i] << 1 ^ ((table[i] & 0x8000) != 0 ? 0x1021 : 0)) & 0xFFFF;
        }
    }
    return table;
}();

} // namespace

uint32_t crc32(std::span<const uint8_t> bytes) {
    uint32_t crc = 0;
    for (const uint8_t byte : bytes) {
        crc = crc >> 8 ^ crc32_table[(crc ^ byte) & 0xFF];
    }
    return crc;
}

uint32_t crc16(uint32_t seed, std::span<const uint8_t> bytes) {
    uint32_t crc = seed;
    for (const uint8_t byte : bytes) {
        crc = (crc << 8 & 0xFFFF) ^ crc16_table[crc >> 8 ^ byte];
    }
    return crc;
}

} // namespace dolm::efs
