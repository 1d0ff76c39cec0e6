// Damage for flash images. Blind changes end at the first checksum, so the checksums are put right
// behind them: what reaches the store is a sound-looking record with a bad link in it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace damage {

using Image = std::vector<uint8_t>;

// One change: five bytes of the fuzzer's input.
//   0 u8 target (the low bits choose, by the fuzz target) | 1 u24 position | 4 u8 value
struct Edit {
    uint8_t target;
    uint32_t position;
    uint8_t value;
};
inline constexpr size_t edit_size = 5;

// The edits in the input, at most 64.
std::vector<Edit> parse_edits(std::span<const uint8_t> input);

// Sets a byte of an image, the position taken modulo its size.
void set_byte(Image &image, const Edit &edit);

// Sets a byte of AFS metadata: the position is a virtual address, taken modulo the metadata's size,
// in the newest copy of its page.
void set_afs_metadata(Image &image, const Edit &edit);

// Puts the checksums of an AFS image right: EU headers, newest metadata pages, data pages.
void repair_afs(Image &image);

// Puts the checksums of an EFS image of the geometry in force right: BM headers, BMEs, block
// headers and footers, and, if it mounts by then, the first record of each file.
void repair_efs(Image &image);

} // namespace damage
