// Byte strings, and little-endian fields in them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace dolm {

using Bytes = std::vector<uint8_t>;

// Writes the low width bytes of value at offset, least significant first; the bytes must exist.
inline void put_le(Bytes &bytes, size_t offset, uint32_t value, size_t width) {
    for (size_t i = 0; i < width; ++i) {
        bytes.at(offset + i) = static_cast<uint8_t>(value >> (8 * i));
    }
}

// The 32-bit field at offset; the bytes must exist.
inline uint32_t get_le32(const Bytes &bytes, size_t offset) {
    uint32_t value = 0;
    for (size_t i = 0; i < 4; ++i) {
        value |= static_cast<uint32_t>(bytes.at(offset + i)) << (8 * i);
    }
    return value;
}

} // namespace dolm
