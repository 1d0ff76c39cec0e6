// The device functions alone: every other file calls them by their exported names, so that another
// device can be put in their place.
#include "EFS_phy_win32.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "common/at_unload.h"
#include "efs/efs_internal.h"

uint8_t *efs_image = nullptr;
uint32_t efs_size = 0;

namespace {

using dolm::efs::block_size;
using dolm::efs::image_size;

// The image that the library allocated itself, while it has one.
uint8_t *own_image = nullptr;
uint32_t own_image_size = 0;

bool inside_image(uint32_t address, uint32_t length) {
    return efs_image != nullptr && length != 0 && address < efs_size &&
           length <= efs_size - address;
}

void release_image() {
    std::free(own_image);
    own_image = nullptr;
}

[[maybe_unused]] const dolm::at_unload<release_image> image_release;

uint32_t allocate_image() {
    release_image();
    own_image_size = image_size();
    own_image = static_cast<uint8_t *>(std::malloc(own_image_size + size_t{1}));
    dolm::efs::hold_image(own_image);
    if (own_image == nullptr) {
        return EFS_NO_MEMORY;
    }
    std::memset(own_image, 0xFF, own_image_size);
    return EFS_OK;
}

} // namespace

void dolm::efs::hold_image(uint8_t *image) {
    efs_image = image;
    efs_size = image == nullptr ? 0 : image_size();
    if (image != nullptr && image == own_image) {
        efs_size = std::min(efs_size, own_image_size);
    }
}

uint32_t EFS_physical_init(uint8_t format) {
    if (format != 0) {
        return allocate_image();
    }
    dolm::efs::hold_image(efs_image);
    return efs_image == nullptr || efs_size < image_size() ? EFS_NOT_MOUNTED : EFS_OK;
}

uint32_t EFS_physical_read(uint32_t address, uint32_t length, void *destination) {
    if (!inside_image(address, length) || destination == nullptr) {
        return EFS_INVALID;
    }
    std::memcpy(destination, efs_image + address, length);
    return EFS_OK;
}

uint32_t EFS_physical_write(uint32_t address, uint32_t length, const void *source) {
    if (!inside_image(address, length) || source == nullptr) {
        return EFS_INVALID;
    }
    std::memcpy(efs_image + address, source, length);
    return EFS_OK;
}

uint32_t EFS_physical_erase(uint32_t address, uint32_t length) {
    if (!inside_image(address, length)) {
        return EFS_INVALID;
    }
    if (address % block_size != 0 || length % block_size != 0) {
        return EFS_BAD_DATA;
    }
    std::memset(efs_image + address, 0xFF, length);
    return EFS_OK;
}
