// The checksum of 16 bits that both stores have: polynomial 0x1021, most significant bit first.
#pragma once

#include <cstdint>
#include <span>

namespace dolm {

// What the register holds behind the bytes if it held seed before them.
uint16_t crc16(uint16_t seed, std::span<const uint8_t> bytes);

} // namespace dolm
