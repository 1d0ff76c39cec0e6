// Byte strings, and little-endian fields in them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace dolm {

using Bytes = std::vector<uint8_t>;

// Writes the low width bytes of value at offset, least significant first; the bytes must exist.
inline void put_le(Bytes &bytes, size_t offset, uint32_t value, size_t width) {
    for (size_t i = 0; i < width; ++i) {
        bytes.at(offset + i) = static_cast<uint8_t>(value >> (8 * i));
    }
}

// Fields at an offset; the bytes must exist.
inline uint16_t get_le16(std::span<const uint8_t> bytes, size_t offset) {
    return static_cast<uint16_t>(bytes[offset] | bytes[offset + 1] << 8);
}

inline uint32_t get_le32(std::span<const uint8_t> bytes, size_t offset) {
    return get_le16(bytes, offset) | static_cast<uint32_t>(get_le16(bytes, offset + 2)) << 16;
}

} // namespace dolm
