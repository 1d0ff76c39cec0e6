// The flash device under AFS, simulated on a block of the host's memory. One device per process:
// attaching another image replaces the first. Addresses are byte offsets from the attached image;
// the device does not know its size, so the layers above keep every address inside it.
#ifndef DOLM_AFS_PHYSICAL_WIN32_SPI_H
#define DOLM_AFS_PHYSICAL_WIN32_SPI_H

#include <cstdint>

#include "dolm_api.h"

// Bytes that one erase clears.
constexpr uint32_t SPI_ERASE_BLOCK_SIZE = 4096;

DOLM_EXTERN_C_BEGIN

// Base of the attached image, null before the first attach. The image stays the host's.
extern DOLM_API uint8_t *gpBuffer;

// Attaches an image. Always 0.
DOLM_API uint32_t SpiFlashDrvInitialize(void *image);

// Does nothing: the image belongs to the host.
DOLM_API void SpiFlashDrvDeinitialize(void);

// Copies length bytes at address from the device. AFS_RC_OK; AFS_RC_INVALID if no image is attached
// or buffer is null.
DOLM_API uint32_t SpiDrvRead(uint32_t address, uint32_t length, void *buffer);

// Copies length bytes to the device at address. They replace what was there: no erase is needed
// and bits can go from 0 to 1. AFS_RC_OK; AFS_RC_INVALID if no image is attached or buffer is null.
DOLM_API uint32_t SpiDrvWrite(uint32_t address, uint32_t length, const void *buffer);

// Sets the 4096 bytes from address on to 0xFF. AFS_RC_OK; AFS_RC_INVALID if no image is attached.
DOLM_API uint32_t SpiDrvEraseBlock(uint32_t address);

DOLM_EXTERN_C_END

#endif
