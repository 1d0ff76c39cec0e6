// The simulated flash device under the EFS store: an image of 4096-byte blocks in memory. Erased
// bytes are 0xFF. Every access of the store to its image goes through these functions. Their
// results are those of EFS.h.
#ifndef DOLM_EFS_PHY_WIN32_H
#define DOLM_EFS_PHY_WIN32_H

#include <stdint.h>

#include "dolm_api.h"

DOLM_EXTERN_C_BEGIN

// The image, normally the host's, used in place. Null until a store is given one. An image that
// EFS_physical_init allocated belongs to the library.
extern DOLM_API uint8_t *efs_image;
// Size of the image in bytes, 0 without one; no access reaches beyond it.
extern DOLM_API uint32_t efs_size;

// Sets efs_size to what the geometry variables ask for, EFS_get_efs_size() bytes.
// format 0: uses the image that efs_image points to. EFS_OK, or EFS_NOT_MOUNTED if there is none
//   (efs_size is then 0) or if it is one of the library's own and too small for the geometry
//   (efs_size is then its own).
// format not 0: releases the image that an earlier call allocated (never a host's), allocates one
//   of efs_size bytes and fills it with 0xFF. EFS_OK, or EFS_NO_MEMORY: efs_image is then null and
//   efs_size 0.
DOLM_API uint32_t EFS_physical_init(uint8_t format);

// Copies `length` bytes at `address` of the image to `destination`.
// EFS_OK, or EFS_INVALID if the range is empty or not inside the image, or for a null pointer.
DOLM_API uint32_t EFS_physical_read(uint32_t address, uint32_t length, void *destination);

// Copies `length` bytes from `source` over the image at `address`: a plain copy, which can also
// turn 0 bits into 1 bits. Results as for a read.
DOLM_API uint32_t EFS_physical_write(uint32_t address, uint32_t length, const void *source);

// Fills the range with 0xFF. Results as for a read, and EFS_BAD_DATA with the image left alone if
// `address` or `length` is no multiple of 4096.
DOLM_API uint32_t EFS_physical_erase(uint32_t address, uint32_t length);

DOLM_EXTERN_C_END

#endif
