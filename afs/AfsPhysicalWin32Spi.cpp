// The device functions stand alone in this file, so that a test can put a faulty device or a
// logger in their place when it links or loads the library.
#include "AfsPhysicalWin32Spi.h"

#include <cstring>

#include "AfsFtl.h"
#include "afs/ftl_format.h"

namespace {

// Nearly all accesses are of a page slot or a single byte, and a copy of a known size takes a few
// instructions. What a page write reads back it also finds in the parts in which it was written.
void copy(uint8_t *to, const uint8_t *from, uint32_t length) {
    switch (length) {
    case 1:
        *to = *from;
        break;
    case dolm::page_slot_size:
        std::memcpy(to, from, AFS_PAGE_SIZE);
        std::memcpy(to + AFS_PAGE_SIZE, from + AFS_PAGE_SIZE, dolm::page_slot_size - AFS_PAGE_SIZE);
        break;
    default:
        std::memcpy(to, from, length);
    }
}

} // namespace

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
    copy(static_cast<uint8_t *>(buffer), gpBuffer + address, length);
    return AFS_RC_OK;
}

uint32_t SpiDrvWrite(uint32_t address, uint32_t length, const void *buffer) {
    if (gpBuffer == nullptr || buffer == nullptr) {
        return AFS_RC_INVALID;
    }
    copy(gpBuffer + address, static_cast<const uint8_t *>(buffer), length);
    return AFS_RC_OK;
}

uint32_t SpiDrvEraseBlock(uint32_t address) {
    if (gpBuffer == nullptr) {
        return AFS_RC_INVALID;
    }
    std::memset(gpBuffer + address, 0xFF, SPI_ERASE_BLOCK_SIZE);
    return AFS_RC_OK;
}
