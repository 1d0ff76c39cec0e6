// The device functions stand alone in this file, so that a test can put a faulty device or a
// logger in their place when it links or loads the library.
#include "AfsPhysicalWin32Spi.h"

#include <cstring>

namespace {

// AFS_RC_OK and AFS_RC_INVALID: the device stands below the header that names them.
constexpr uint32_t device_ok = 0;
constexpr uint32_t device_invalid = 22;

} // namespace

uint8_t *gpBuffer = nullptr;

uint32_t SpiFlashDrvInitialize(void *image) {
    gpBuffer = static_cast<uint8_t *>(image);
    return device_ok;
}

void SpiFlashDrvDeinitialize(void) {}

uint32_t SpiDrvRead(uint32_t address, uint32_t length, void *buffer) {
    if (gpBuffer == nullptr || buffer == nullptr) {
        return device_invalid;
    }
    std::memcpy(buffer, gpBuffer + address, length);
    return device_ok;
}

uint32_t SpiDrvWrite(uint32_t address, uint32_t length, const void *buffer) {
    if (gpBuffer == nullptr || buffer == nullptr) {
        return device_invalid;
    }
    std::memcpy(gpBuffer + address, buffer, length);
    return device_ok;
}

uint32_t SpiDrvEraseBlock(uint32_t address) {
    if (gpBuffer == nullptr) {
        return device_invalid;
    }
    std::memset(gpBuffer + address, 0xFF, SPI_ERASE_BLOCK_SIZE);
    return device_ok;
}
