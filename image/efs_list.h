// The list of EFS files where the file table no longer leads to it.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "image/efs_image.h"

namespace dolm {

// The longest run of file records in the bytes of a file table whose places hold good records in
// the image.
std::vector<EfsPlace> find_listed_places(std::span<const uint8_t> table,
                                         std::span<const uint8_t> image, const EfsLayout &layout);

// Where files begin in the blocks of the map in force, by the checksums of their records. Which
// number a file has an image does not tell: they are counted from first_number on.
std::vector<EfsPlace> find_places_in_image(std::span<const uint8_t> image, const EfsLayout &layout,
                                           uint32_t first_number);

} // namespace dolm
