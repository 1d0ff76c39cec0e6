#include "device.h"

#include <algorithm>
#include <cstring>

#include "AfsPhysicalWin32Spi.h"
#include "EFS_phy_win32.h"

namespace recorder {

Device device;

constexpr const char *access_names[] = {"read", "write", "erase"};
constexpr uint32_t device_failure = 5;

const Fault *Device::next_fault(Access access, Fault &copy) {
    for (Fault &fault : faults_) {
        if (fault.access != access || fault.count == 0) {
            continue;
        }
        if (fault.skip > 0) {
            --fault.skip;
            continue;
        }
        --fault.count;
        copy = fault;
        return &copy;
    }
    return nullptr;
}

template <typename Real>
uint32_t Device::access(const char *store, Access access, uint8_t *base, uint32_t address,
                        uint32_t length, uint8_t *bytes, Real real) {
    const auto note = [&](std::span<const uint8_t> shown) {
        record->access(store, access_names[static_cast<size_t>(access)], address, shown, length);
    };
    // What a read finds is known only behind it.
    if (access != Access::read) {
        note({bytes, bytes != nullptr ? length : 0});
    }
    if (accesses_left_ == 0) {
        return device_failure;
    }
    --accesses_left_;
    if (access != Access::read && cut_.armed) {
        if (cut_.events == 0) {
            const uint32_t torn = std::min(cut_.torn, length);
            cut_.torn = 0;
            if (access == Access::erase) {
                std::memset(base + address, 0xFF, torn);
            } else if (bytes != nullptr) {
                std::memcpy(base + address, bytes, torn);
            }
            return 0;
        }
        --cut_.events;
    }
    Fault copy;
    const Fault *fault = next_fault(access, copy);
    if (fault != nullptr && fault->effect != Fault::Effect::flip) {
        if (access == Access::read) {
            note({});
        }
        return fault->effect == Fault::Effect::fail ? device_failure : 0;
    }
    const uint32_t status = real();
    if (fault != nullptr && status == 0 && length != 0) {
        (access == Access::read ? bytes : base + address)[length / 2] ^= 0x10;
    }
    if (access == Access::read) {
        note({bytes, status == 0 ? length : 0});
    }
    return status;
}

void plan_faults(Random &random) {
    static constexpr uint32_t counts[] = {1, 1, 2, 7, 8, 30};
    for (uint32_t faults = random.from_to(1, 2); faults > 0; --faults) {
        device.add_fault({static_cast<Access>(random.below(3)), random.skewed(60),
                          counts[random.below(6)], static_cast<Fault::Effect>(random.below(3))});
    }
}

void damage(Random &random, std::span<uint8_t> image) {
    constexpr uint32_t block = 4096;
    const auto size = static_cast<uint32_t>(image.size());
    for (uint32_t n = random.from_to(1, 3); n > 0; --n) {
        // Most records of both formats stand at the head of a block.
        uint32_t at = random.below(size);
        if (!random.one_in(3)) {
            at = std::min(at / block * block + random.skewed(300), size - 1);
        }
        const uint32_t length = std::min(size - at, random.from_to(1, random.one_in(4) ? 300 : 4));
        const std::span<uint8_t> bytes = image.subspan(at, length);
        const uint32_t blocks = size / block;
        switch (random.below(blocks > 0 ? 5 : 4)) {
        case 0:
            bytes[0] = static_cast<uint8_t>(bytes[0] ^ (1U << random.below(8)));
            break;
        case 1:
            random.fill(bytes);
            break;
        case 2:
            std::ranges::fill(bytes, uint8_t{0xFF});
            break;
        case 3:
            std::ranges::fill(bytes, uint8_t{0});
            break;
        default:
            std::memmove(&image[random.below(blocks) * block], &image[random.below(blocks) * block],
                         block);
        }
    }
}

} // namespace recorder

using recorder::Access;
using recorder::device;

// The linker sends every call of a device function here, and __real_ names to the library's own.
extern "C" {

uint32_t __real_SpiDrvRead(uint32_t address, uint32_t length, void *buffer);
uint32_t __real_SpiDrvWrite(uint32_t address, uint32_t length, const void *buffer);
uint32_t __real_SpiDrvEraseBlock(uint32_t address);
uint32_t __real_EFS_physical_read(uint32_t address, uint32_t length, void *destination);
uint32_t __real_EFS_physical_write(uint32_t address, uint32_t length, const void *source);
uint32_t __real_EFS_physical_erase(uint32_t address, uint32_t length);

uint32_t __wrap_SpiDrvRead(uint32_t address, uint32_t length, void *buffer) {
    if (!device.is_in_afs_image(address, length)) {
        return recorder::device_failure;
    }
    return device.access("afs", Access::read, gpBuffer, address, length,
                         static_cast<uint8_t *>(buffer),
                         [=] { return __real_SpiDrvRead(address, length, buffer); });
}

uint32_t __wrap_SpiDrvWrite(uint32_t address, uint32_t length, const void *buffer) {
    if (!device.is_in_afs_image(address, length)) {
        return recorder::device_failure;
    }
    return device.access("afs", Access::write, gpBuffer, address, length,
                         const_cast<uint8_t *>(static_cast<const uint8_t *>(buffer)),
                         [=] { return __real_SpiDrvWrite(address, length, buffer); });
}

uint32_t __wrap_SpiDrvEraseBlock(uint32_t address) {
    if (!device.is_in_afs_image(address, SPI_ERASE_BLOCK_SIZE)) {
        return recorder::device_failure;
    }
    return device.access("afs", Access::erase, gpBuffer, address, SPI_ERASE_BLOCK_SIZE, nullptr,
                         [=] { return __real_SpiDrvEraseBlock(address); });
}

// Of EFS only ranges that its device serves count as accesses.
static bool is_in_efs_image(uint32_t address, uint32_t length) {
    return efs_image != nullptr && address < efs_size && length <= efs_size - address;
}

uint32_t __wrap_EFS_physical_read(uint32_t address, uint32_t length, void *destination) {
    if (!is_in_efs_image(address, length) || destination == nullptr) {
        return __real_EFS_physical_read(address, length, destination);
    }
    return device.access("efs", Access::read, efs_image, address, length,
                         static_cast<uint8_t *>(destination),
                         [=] { return __real_EFS_physical_read(address, length, destination); });
}

uint32_t __wrap_EFS_physical_write(uint32_t address, uint32_t length, const void *source) {
    if (!is_in_efs_image(address, length) || source == nullptr) {
        return __real_EFS_physical_write(address, length, source);
    }
    return device.access("efs", Access::write, efs_image, address, length,
                         const_cast<uint8_t *>(static_cast<const uint8_t *>(source)),
                         [=] { return __real_EFS_physical_write(address, length, source); });
}

uint32_t __wrap_EFS_physical_erase(uint32_t address, uint32_t length) {
    if (!is_in_efs_image(address, length)) {
        return __real_EFS_physical_erase(address, length);
    }
    return device.access("efs", Access::erase, efs_image, address, length, nullptr,
                         [=] { return __real_EFS_physical_erase(address, length); });
}

} // extern "C"
