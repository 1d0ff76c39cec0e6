// The device functions stand alone in this file, so that a test can put a faulty device or a
// logger in their place when it links or loads the library.
#include "AfsPhysicalWin32Spi.h"

#include <cstring>

#include "AfsFtl.h"

uint8_t *gpBuffer = nullptr;

uint32_t SpiFlashDrvInitialize(void *image) {
    gpBuffer = static_cast<uint8_t *>(image);
    return AFS_RC_OK;
}

void SpiFlashDrvDeinitialize(void) {}

uint32_t SpiDrvRead(uint32_t address, uint32_t length, void *buffer) {
    if (gpBuffer == nullptr || buffer == nullptr) {
        return AFS_RC_INVALID;
    }
    std::memcpy(buffer, gpBuffer + address, length);
    return AFS_RC_OK;
}

uint32_t SpiDrvWrite(uint32_t address, uint32_t length, const void *buffer) {
    if (gpBuffer == nullptr || buffer == nullptr) {
        return AFS_RC_INVALID;
    }
    std::memcpy(gpBuffer + address, buffer, length);
    return AFS_RC_OK;
}

uint32_t SpiDrvEraseBlock(uint32_t address) {
    if (gpBuffer == nullptr) {
        return AFS_RC_INVALID;
    }
    std::memset(gpBuffer + address, 0xFF, SPI_ERASE_BLOCK_SIZE);
    return AFS_RC_OK;
}
