#include "heap_double.h"

#include <malloc.h>

#include <cstdlib>
#include <new>

namespace {

bool active = false; // counting, and failing when it is time
bool lasting = false;
bool has_failed = false;
long allocations_left = 0;
size_t in_use = 0;

void fail(long number, bool is_lasting) {
    active = true;
    lasting = is_lasting;
    has_failed = false;
    allocations_left = number;
}

// The first exception for which there is no memory makes MinGW's run time allocate a lock, without
// which it goes astray. Here it has that memory.
bool settle_run_time() {
    fail(0, false);
    try {
        throw 0;
    } catch (int) {
    }
    active = false;
    return true;
}

void start(long number, bool is_lasting) {
    [[maybe_unused]] static const bool settled = settle_run_time();
    fail(number, is_lasting);
}

bool fails_now() {
    if (!active || (has_failed && !lasting)) {
        return false;
    }
    has_failed = has_failed || allocations_left-- == 0;
    return has_failed;
}

size_t size_of(void *memory) {
#ifdef _WIN32
    return memory != nullptr ? _msize(memory) : 0;
#else
    return malloc_usable_size(memory);
#endif
}

void *counted(void *memory) {
    in_use += size_of(memory);
    return memory;
}

} // namespace

void heap_double::fail_from(long first) {
    start(first, true);
}

void heap_double::fail_once(long number) {
    start(number, false);
}

bool heap_double::stop() {
    const bool failed = active && has_failed;
    active = false;
    return failed;
}

size_t heap_double::bytes_in_use() {
    return in_use;
}

heap_double::Pause::Pause() : active_(active) {
    active = false;
}

heap_double::Pause::~Pause() {
    active = active_;
}

extern "C" {

void *__real_malloc(size_t size);
void *__real_calloc(size_t count, size_t size);
void *__real_realloc(void *memory, size_t size);
void __real_free(void *memory);

void *__wrap_malloc(size_t size) {
    return fails_now() ? nullptr : counted(__real_malloc(size));
}

void *__wrap_calloc(size_t count, size_t size) {
    return fails_now() ? nullptr : counted(__real_calloc(count, size));
}

void *__wrap_realloc(void *memory, size_t size) {
    if (fails_now()) {
        return nullptr;
    }
    const size_t before = size_of(memory);
    void *moved = __real_realloc(memory, size);
    in_use -= moved != nullptr ? before : 0;
    return counted(moved);
}

void __wrap_free(void *memory) {
    in_use -= size_of(memory);
    __real_free(memory);
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
