/* Memory helpers for the host: the library's allocator, and a bounded copy. Compiles as C11.
 *
 * Sizes and counts are in bytes and have 64 bits everywhere. One above SIZE_MAX, which a host of 32
 * bits can be given, fails as told and touches nothing. */
#ifndef DOLM_MEMORY_UTILS_H
#define DOLM_MEMORY_UTILS_H

#include <stdint.h>

#include "dolm_api.h"

DOLM_EXTERN_C_BEGIN

/* Status of ByteCopy. */
enum {
    BYTE_COPY_OK = 0,
    BYTE_COPY_NULL_POINTER = 3,
    BYTE_COPY_TOO_LONG = 40,
    BYTE_COPY_FAILED = 43
};

/* malloc of size bytes. The caller owns the block and gives it back to LtFreeMemory. Null if there
 * is no memory, or for a size above SIZE_MAX. */
DOLM_API void *LtAllocateMemory(uint64_t size);

/* The same for count bytes that are all zero. */
DOLM_API void *LtAllocateZeroMemory(uint64_t count);

/* Releases a block of the two functions above; null is accepted. */
DOLM_API void LtFreeMemory(void *memory);

/* Sets count bytes at memory to value and returns memory; null for a count above SIZE_MAX. */
DOLM_API void *LtSetMemory(void *memory, uint8_t value, uint64_t count);

/* Compares count bytes: 0 if equal, else negative or positive as memcmp orders the ranges. -1 for a
 * count above SIZE_MAX. */
DOLM_API int64_t LtCompareMemory(const void *first, const void *second, uint64_t count);

/* Copies count bytes from source to destination, which has room for destinationSize bytes. The
 * ranges may overlap. Tests in this order, and copies nothing unless all pass:
 *   BYTE_COPY_NULL_POINTER  a pointer is null, whatever the sizes
 *   BYTE_COPY_TOO_LONG      count exceeds destinationSize, or SIZE_MAX
 *   BYTE_COPY_OK            done
 * BYTE_COPY_FAILED, a failure of the copy itself, is reserved: with the tests passed it cannot
 * fail. */
DOLM_API uint32_t ByteCopy(void *destination, uint64_t destinationSize, const void *source,
                           uint64_t count);

DOLM_EXTERN_C_END

#endif
