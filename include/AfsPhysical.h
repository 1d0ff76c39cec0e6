// The way from the file layer of AFS to its page layer: a table of operations, and a raw access to
// the device with no translation in between.
#ifndef DOLM_AFS_PHYSICAL_H
#define DOLM_AFS_PHYSICAL_H

#include <cstdint>

#include "AfsFtl.h"
#include "dolm_api.h"

DOLM_EXTERN_C_BEGIN

// The operations that the file layer and the page cache call. Length and device offset belong to
// the calling form: a page is always 64 bytes, and its device offset stands in the context.
struct afs_physical_ops {
    uint32_t (*read_page)(afs_context *context, uint32_t va, uint32_t length, void *buffer,
                          uint32_t device_offset);
    uint32_t (*write_page)(afs_context *context, uint32_t va, uint32_t length, const void *data,
                           uint32_t device_offset);
    uint32_t (*trim_page)(afs_context *context, uint32_t va, uint32_t length,
                          uint32_t device_offset);
    uint32_t (*force_full_reclaim)(afs_context *context);
    uint32_t (*force_dirty_erase)(afs_context *context);
};

// The table for the flash translation layer over the SPI device.
extern DOLM_API const afs_physical_ops afs_physical_spi_handler;

// A place for the host to keep a context in. The library neither sets nor reads it.
extern DOLM_API afs_context *afs_physical_context;

// Reads length bytes at offset from the start of the store, as they lie on the device.
// AFS_RC_OK, or AFS_RC_INVALID for a null argument, no attached device, or a range that leaves the
// context's device_size (not checked while that is 0).
DOLM_API uint32_t afs_sub_pt_read(afs_context *context, uint32_t offset, uint32_t length,
                                  void *buffer);

// Writes length bytes in the same way.
DOLM_API uint32_t afs_sub_pt_write(afs_context *context, uint32_t offset, uint32_t length,
                                   const void *buffer);

// Does nothing. Always AFS_RC_OK.
DOLM_API uint32_t afs_sub_pt_trim(afs_context *context, uint32_t offset, uint32_t length);

DOLM_EXTERN_C_END

#endif
