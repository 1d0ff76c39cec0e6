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

inline uint16_t link_of(const afs_context *context, uint16_t line) {
    return static_cast<uint16_t>(context->cache_lines[line].flags_and_link >> link_shift);
}

inline uint8_t *line_bytes(const afs_context *context, uint16_t line) {
    return context->cache_data + static_cast<size_t>(line) * context->page_size;
}

// Pages in so many bytes. page_size is a power of two in every store that works; with another one
// the result is a page all the same, if not the right one.
inline uintptr_t pages_in(const afs_context *context, uintptr_t bytes) {
    return bytes >> std::countr_zero(context->page_size);
}

inline bool holds_page(const afs_context *context, uint16_t line, uint16_t page) {
    const afs_cache_line control = context->cache_lines[line];
    return control.page == page && (control.flags_and_link & line_valid) != 0;
}

} // namespace dolm
