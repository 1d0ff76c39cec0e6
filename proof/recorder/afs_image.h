// Makes empty AFS images with the exported operations.
#pragma once

#include <cstdint>
#include <vector>

#include "record.h"

namespace recorder {

struct AfsGeometry {
    uint32_t data_eus = 0;
    uint32_t file_count = 0;
    uint32_t device_offset = 0; // bytes in front of the store
    uint32_t device_size = 0;
};

AfsGeometry random_afs_geometry(Random &random);

// Empty if the library refused a step.
std::vector<uint8_t> make_afs_image(const AfsGeometry &geometry);

} // namespace recorder
