// A file table may ask for gigabytes of EFS file slots. Refusing them here keeps the runs small
// and takes them through the library's answer to exhausted memory.
#include <cstddef>

extern "C" {

void *__real_calloc(size_t count, size_t size);

void *__wrap_calloc(size_t count, size_t size) {
    constexpr size_t limit = size_t{4} << 20;
    return size != 0 && count > limit / size ? nullptr : __real_calloc(count, size);
}
}
