// Little-endian access to bytes at any alignment, on any host. The only way in which the library
// reads and writes the integers of on-flash and table formats.
#pragma once

#include <cstdint>

namespace dolm {

constexpr uint16_t load_le16(const uint8_t *bytes) {
    return static_cast<uint16_t>(bytes[0] | bytes[1] << 8);
}

constexpr uint32_t load_le32(const uint8_t *bytes) {
    return static_cast<uint32_t>(bytes[0]) | static_cast<uint32_t>(bytes[1]) << 8 |
           static_cast<uint32_t>(bytes[2]) << 16 | static_cast<uint32_t>(bytes[3]) << 24;
}

constexpr void store_le16(uint8_t *bytes, uint16_t value) {
    bytes[0] = static_cast<uint8_t>(value);
    bytes[1] = static_cast<uint8_t>(value >> 8);
}

constexpr void store_le32(uint8_t *bytes, uint32_t value) {
    bytes[0] = static_cast<uint8_t>(value);
    bytes[1] = static_cast<uint8_t>(value >> 8);
    bytes[2] = static_cast<uint8_t>(value >> 16);
    bytes[3] = static_cast<uint8_t>(value >> 24);
}

} // namespace dolm
