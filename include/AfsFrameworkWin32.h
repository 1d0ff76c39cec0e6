// Raw copies between a buffer and an absolute memory address.
#ifndef DOLM_AFS_FRAMEWORK_WIN32_H
#define DOLM_AFS_FRAMEWORK_WIN32_H

#include <cstdint>

#include "AfsFtl.h"
#include "dolm_api.h"

DOLM_EXTERN_C_BEGIN

// Copies length bytes from the absolute memory address a + b (added in 64 bits) to buffer. The
// caller vouches for the address; context and reserved are not used. AFS_RC_OK; AFS_RC_INVALID if
// buffer is null.
DOLM_API uint32_t mg_copyfrom(afs_context *context, uint32_t a, uint32_t b, void *buffer,
                              uint32_t reserved, uint32_t length);

// Copies length bytes from buffer to the absolute memory address a + b, otherwise the same.
DOLM_API uint32_t mg_copyto(afs_context *context, uint32_t a, uint32_t b, const void *buffer,
                            uint32_t reserved, uint32_t length);

DOLM_EXTERN_C_END

#endif
