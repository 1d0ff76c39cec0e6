// What a mount of an EFS image passes by: writes that were cut, maps that are no longer in force,
// blocks that a mount takes for good and that were never written so.
#pragma once

#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "image/efs_image.h"

namespace dolm {

struct EfsTrace {
    enum class Kind : uint8_t {
        interrupted, // by a cut of power, and dealt with: no harm
        rot,         // bytes that changed where nothing reads them
        lost_map,    // the newest map is damaged, and an older one is in force
        zeros        // bytes that only damage leaves, although their checksum matches
    };

    Kind kind;
    size_t at;        // offset in the image
    std::string what; // "BM 0, entry 3"
    std::string text;
};

// In the order of their places. The image is what read_efs_image made of the bytes with the layout.
std::vector<EfsTrace> survey_efs_image(std::span<const uint8_t> bytes, const EfsLayout &layout,
                                       const EfsImage &image);

// Geometry without a file list, as the best header on the image has it; nothing if none is good.
// sku is the low byte of the SKU that the header was written for.
struct EfsOwnGeometry {
    EfsLayout layout;
    uint32_t sku = 0;
    size_t at = 0; // offset of the header
};
std::optional<EfsOwnGeometry> own_geometry(std::span<const uint8_t> bytes);

// Whether the bytes at an offset in the data area of a logical block are a good first record of a
// file of at most max_size bytes.
bool is_good_record(std::span<const uint8_t> bytes, const EfsLayout &layout, const EfsImage &image,
                    const EfsPlace &place);

} // namespace dolm
