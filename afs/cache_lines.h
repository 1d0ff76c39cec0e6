// The control records of the page cache, and the look at the line used last, which is the one
// wanted most of the time.
#pragma once

#include <bit>
#include <cstdint>

#include "AfsCache.h"

namespace dolm {

// afs_cache_line::flags_and_link: bit 0 valid, bit 1 dirty, bits 2 to 15 the index of the next
// less recently used line. Every line is always in the list, valid or not.
inline constexpr uint16_t line_valid = 1;
inline constexpr uint16_t line_dirty = 2;
inline constexpr uint16_t line_flags = line_valid | line_dirty;
inline constexpr unsigned link_shift = 2;
inline constexpr uint16_t end_of_list = 0xFFF;

inline uint16_t link_of(afs_cache_line line) {
    return static_cast<uint16_t>(line.flags_and_link >> link_shift);
}

inline uint8_t *line_bytes(const afs_context *context, uint16_t line) {
    return context->cache_data + size_t{line} * context->page_size;
}

// page_size is a power of two in every store that works. With another one, which afs_init does not
// refuse, page numbers are wrong, but no access leaves the cache.
inline unsigned page_shift(const afs_context *context) {
    return static_cast<unsigned>(std::countr_zero(context->page_size));
}

inline uintptr_t pages_in(const afs_context *context, uintptr_t bytes) {
    return bytes >> page_shift(context);
}

inline bool holds(afs_cache_line line, uint16_t page) {
    return line.page == page && (line.flags_and_link & line_valid) != 0;
}

// cache_ptr for a context with a cache: the line of the page is then the head.
uint32_t fetch_page(afs_context *context, uint16_t page);

} // namespace dolm
