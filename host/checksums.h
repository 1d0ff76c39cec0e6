// Checksums of a table of a set, block by block, which tell later whether it is still what it was,
// and where not.
#pragma once

#include <span>
#include <vector>

#include "image/bytes.h"

namespace dolm {

struct Checksums {
    uint64_t size = 0;            // of the file
    uint32_t block = 0;           // size of a block; the last one may be shorter
    std::vector<uint32_t> crc32s; // of each block, as EFS computes them
    uint32_t whole = 0;           // of the file, so that a wrong one of them is known as such

    friend bool operator==(const Checksums &, const Checksums &) = default;
};

// In 128 blocks at most, so that they take little room whatever the file.
Checksums checksums_of(const Bytes &file);

// Whether they can have come from checksums_of().
bool is_possible(const Checksums &checksums);

// The bytes of a block as far as the file has them now.
std::span<const uint8_t> block_of(const Bytes &file, const Checksums &checksums, size_t index);

// The blocks that the file does not have any more as they were.
std::vector<size_t> changed_blocks(const Bytes &file, const Checksums &checksums);

} // namespace dolm
