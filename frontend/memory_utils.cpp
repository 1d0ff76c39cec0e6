#include "memory_utils.h"

#include <cstdlib>
#include <cstring>

void *LtAllocateMemory(uint64_t size) {
    return std::malloc(size);
}

void *LtAllocateZeroMemory(uint64_t count) {
    return std::calloc(count, 1);
}

void LtFreeMemory(void *memory) {
    std::free(memory);
}

// A count of 0 must not reach memset and memcmp, whose pointers may not be null even then.

void *LtSetMemory(void *memory, uint8_t value, uint64_t count) {
    return count == 0 ? memory : std::memset(memory, value, count);
}

int64_t LtCompareMemory(const void *first, const void *second, uint64_t count) {
    return count == 0 ? 0 : std::memcmp(first, second, count);
}

uint32_t ByteCopy(void *destination, uint64_t destinationSize, const void *source, uint64_t count) {
    if (destination == nullptr || source == nullptr) {
        return BYTE_COPY_NULL_POINTER;
    }
    if (count > destinationSize) {
        return BYTE_COPY_TOO_LONG;
    }
    std::memmove(destination, source, count);
    return BYTE_COPY_OK;
}
