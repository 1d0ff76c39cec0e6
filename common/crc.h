// Checksum tables made from their polynomials at compile time, and the engines that run over
// long data. Slicing: table k holds the register after byte i and k zero bytes, so that a block
// of bytes costs one independent look-up each instead of a chain of dependent ones. The few terms
// of the 16-bit polynomial allow more: see fold_words.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "common/crc_kernels.h"
#include "common/little_endian.h"

namespace dolm {

// Byte table of a CRC that shifts out its most significant bit first. T is the register's width.
template <typename T>
constexpr std::array<T, 256> crc_table_msb_first(T polynomial) {
    constexpr unsigned width = sizeof(T) * 8;
    std::array<T, 256> table{};
    for (unsigned i = 0; i < 256; ++i) {
        unsigned reg = i << (width - 8);
        for (int bit = 0; bit < 8; ++bit) {
            const bool carry = (reg >> (width - 1) & 1) != 0;
            reg = reg << 1 ^ (carry ? polynomial : 0);
        }
        table[i] = static_cast<T>(reg);
    }
    return table;
}

// Byte table of a reflected 32-bit CRC; the polynomial is given reflected.
constexpr std::array<uint32_t, 256> crc32_table_reflected(uint32_t polynomial) {
    std::array<uint32_t, 256> table{};
    for (uint32_t i = 0; i < 256; ++i) {
        uint32_t reg = i;
        for (int bit = 0; bit < 8; ++bit) {
            reg = reg >> 1 ^ ((reg & 1) != 0 ? polynomial : 0);
        }
        table[i] = reg;
    }
    return table;
}

inline constexpr uint8_t crc8_polynomial = 0x07;

// CRC-8, most significant bit first, no final XOR, continued from crc.
uint8_t crc8_msb_first(uint8_t crc, const uint8_t *data, size_t length);

inline constexpr uint16_t crc16_ccitt_polynomial = 0x1021;
inline constexpr auto crc16_ccitt_table = crc_table_msb_first<uint16_t>(crc16_ccitt_polynomial);

// The same register cut to 14 bits after every byte.
inline constexpr uint16_t crc14_mask = 0x3FFF;

constexpr uint16_t crc14_step(uint16_t crc, uint8_t byte) {
    return static_cast<uint16_t>((crc << 8 ^ crc16_ccitt_table[byte ^ crc >> 8]) & crc14_mask);
}

// CRC-16 with the CCITT polynomial, most significant bit first, no final XOR, continued from crc.
uint16_t crc16_ccitt(uint16_t crc, const uint8_t *data, size_t length);

// CRC-16 of a page of 64 bytes followed by its number, low byte first, started at 0xFFFF.
inline uint16_t crc16_page(const uint8_t *data, uint16_t page) {
    return kernels_in_use.crc16_page(data, page);
}

inline constexpr uint32_t crc32_reflected_polynomial = 0xEDB88320;

// CRC-32 with the reflected polynomial above, without inversions, continued from crc.
inline uint32_t crc32_reflected(uint32_t crc, const uint8_t *data, size_t length) {
    return kernels_in_use.crc32_reflected(crc, data, length);
}

} // namespace dolm
