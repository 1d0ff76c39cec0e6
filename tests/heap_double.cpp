#include "failing_memory.h"

#include <cstdlib>
#include <new>

namespace {

bool active = false; // counting, and failing when it is time
bool lasting = false;
bool has_failed = false;
long allocations_left = 0;

void start(long number, bool is_lasting) {
    active = true;
    lasting = is_lasting;
    has_failed = false;
    allocations_left = number;
}

bool fails_now() {
    if (!active || (has_failed && !lasting)) {
        return false;
    }
    has_failed = has_failed || allocations_left-- == 0;
    return has_failed;
}

} // namespace

void failing_memory::fail_from(long first) {
    start(first, true);
}

void failing_memory::fail_once(long number) {
    start(number, false);
}

bool failing_memory::stop() {
    const bool failed = active && has_failed;
    active = false;
    return failed;
}

failing_memory::Pause::Pause() : active_(active) {
    active = false;
}

failing_memory::Pause::~Pause() {
    active = active_;
}

extern "C" {

void *__real_malloc(size_t size);
void *__real_calloc(size_t count, size_t size);
void *__real_realloc(void *memory, size_t size);

void *__wrap_malloc(size_t size) {
    return fails_now() ? nullptr : __real_malloc(size);
}

void *__wrap_calloc(size_t count, size_t size) {
    return fails_now() ? nullptr : __real_calloc(count, size);
}

void *__wrap_realloc(void *memory, size_t size) {
    return fails_now() ? nullptr : __real_realloc(memory, size);
}
}

void *operator new(size_t size, const std::nothrow_t &) noexcept {
    return std::malloc(size); // the wrapped one
}

void *operator new(size_t size) {
    if (void *memory = std::malloc(size)) {
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
