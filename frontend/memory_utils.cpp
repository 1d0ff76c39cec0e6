#include "memory_utils.h"

#include <cstdlib>
#include <cstring>

namespace {

// Whether a range of that size can be: the sizes have 64 bits on hosts of 32 bits too.
bool can_be(uint64_t size) {
    return size <= SIZE_MAX;
}

} // namespace

void *LtAllocateMemory(uint64_t size) {
    return can_be(size) ? std::malloc(static_cast<size_t>(size)) : nullptr;
}

void *LtAllocateZeroMemory(uint64_t count) {
    return can_be(count) ? std::calloc(static_cast<size_t>(count), 1) : nullptr;
}

void LtFreeMemory(void *memory) {
    std::free(memory);
}

// A count of 0 must not reach memset and memcmp, whose pointers may not be null even then.

void *LtSetMemory(void *memory, uint8_t value, uint64_t count) {
    if (!can_be(count)) {
        return nullptr;
    }
    return count == 0 ? memory : std::memset(memory, value, static_cast<size_t>(count));
}

int64_t LtCompareMemory(const void *first, const void *second, uint64_t count) {
    if (!can_be(count)) {
        return -1;
    }
    return count == 0 ? 0 : std::memcmp(first, second, static_cast<size_t>(count));
}

uint32_t ByteCopy(void *destination, uint64_t destinationSize, const void *source, uint64_t count) {
    if (destination == nullptr || source == nullptr) {
        return BYTE_COPY_NULL_POINTER;
    }
    if (count > destinationSize || !can_be(count)) {
        return BYTE_COPY_TOO_LONG;
    }
    std::memmove(destination, source, static_cast<size_t>(count));
    return BYTE_COPY_OK;
}
