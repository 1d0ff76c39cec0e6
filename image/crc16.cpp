#include "image/crc16.h"

#include <array>

namespace dolm {

namespace {

constexpr auto table = [] {
    std::array<uint16_t, 256> made{};
    for (uint32_t i = 0; i < 256; ++i) {
        uint32_t reg = i << 8;
        for (int bit = 0; bit < 8; ++bit) {
            reg = reg << 1 ^ ((reg & 0x8000) != 0 ? 0x1021 : 0);
        }
        made[i] = static_cast<uint16_t>(reg);
    }
    return made;
}();

} // namespace

uint16_t crc16(uint16_t seed, std::span<const uint8_t> bytes) {
    uint16_t crc = seed;
    for (const uint8_t byte : bytes) {
        crc = static_cast<uint16_t>(crc << 8 ^ table[crc >> 8 ^ byte]);
    }
    return crc;
}

} // namespace dolm
