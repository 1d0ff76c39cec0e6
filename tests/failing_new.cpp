#include "failing_new.h"

#include <cstdlib>
#include <new>

long allocations_left = -1;

void *operator new(size_t size, const std::nothrow_t &) noexcept {
    if (allocations_left == 0) {
        return nullptr;
    }
    allocations_left -= allocations_left > 0 ? 1 : 0;
    return std::malloc(size);
}

void *operator new(size_t size) {
    if (void *memory = operator new(size, std::nothrow)) {
        return memory;
    }
    throw std::bad_alloc();
}

void operator delete(void *memory) noexcept {
    std::free(memory);
}
void operator delete(void *memory, size_t) noexcept {
    std::free(memory);
}
