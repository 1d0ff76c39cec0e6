// The checksums that run over bulk data, in the ways that a processor may offer: the portable one,
// and one with carry-less multiplication. One of them is chosen when the library is loaded.
#pragma once

#include <cstddef>
#include <cstdint>

namespace dolm {

struct crc_kernels {
    uint16_t (*crc16_page)(const uint8_t *data, uint16_t page);
    uint32_t (*crc32_reflected)(uint32_t crc, const uint8_t *data, size_t length);
};

extern const crc_kernels portable_kernels;

// The portable ones until the library is loaded, then the best that the processor has.
extern crc_kernels kernels_in_use;

// Null where the processor has no such instruction.
const crc_kernels *carry_less_kernels();

} // namespace dolm
