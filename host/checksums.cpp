#include "host/checksums.h"

#include <algorithm>
#include <bit>

#include "image/efs_records.h"

namespace dolm {

namespace {

constexpr uint64_t most_blocks = 128;
constexpr uint64_t least_block = 64;

uint64_t block_size_for(uint64_t size) {
    return std::max(least_block, std::bit_ceil((size + most_blocks - 1) / most_blocks));
}

uint64_t blocks_in(const Checksums &checksums) {
    return (checksums.size + checksums.block - 1) / checksums.block;
}

} // namespace

Checksums checksums_of(const Bytes &file) {
    Checksums checksums{
        file.size(), static_cast<uint32_t>(block_size_for(file.size())), {}, efs::crc32(file)};
    for (size_t i = 0; i < blocks_in(checksums); ++i) {
        checksums.crc32s.push_back(efs::crc32(block_of(file, checksums, i)));
    }
    return checksums;
}

bool is_possible(const Checksums &checksums) {
    return checksums.size < UINT32_MAX && checksums.block == block_size_for(checksums.size) &&
           checksums.crc32s.size() == blocks_in(checksums);
}

std::span<const uint8_t> block_of(const Bytes &file, const Checksums &checksums, size_t index) {
    const size_t begin = std::min<size_t>(file.size(), index * checksums.block);
    const auto end =
        static_cast<size_t>(std::min<uint64_t>(begin + checksums.block, checksums.size));
    return std::span(file).subspan(begin, std::min(end, file.size()) - begin);
}

std::vector<size_t> changed_blocks(const Bytes &file, const Checksums &checksums) {
    std::vector<size_t> changed;
    for (size_t i = 0; i < checksums.crc32s.size(); ++i) {
        const auto due = std::min<uint64_t>(checksums.block, checksums.size - i * checksums.block);
        const auto bytes = block_of(file, checksums, i);
        if (bytes.size() != due || efs::crc32(bytes) != checksums.crc32s[i]) {
            changed.push_back(i);
        }
    }
    return changed;
}

} // namespace dolm
