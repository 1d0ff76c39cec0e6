#include "AfsCache.h"

#include <algorithm>
#include <bit>
#include <cstdlib>

#include "AfsPhysical.h"
#include "afs/cache_lines.h"

using namespace dolm;

namespace {

bool has_cache(const afs_context *context) {
    return context != nullptr && context->cache_lines != nullptr &&
           context->cache_data != nullptr && context->ops != nullptr;
}

void set_link(afs_cache_line &line, uint16_t next) {
    line.flags_and_link =
        static_cast<uint16_t>(next << link_shift | (line.flags_and_link & line_flags));
}

void set_flags(afs_cache_line &line, uint16_t value) {
    line.flags_and_link = static_cast<uint16_t>((line.flags_and_link & ~line_flags) | value);
}

bool is_dirty(const afs_cache_line &line) {
    return (line.flags_and_link & line_flags) == line_flags;
}

// Behind the control records the array has one more number for each line: the line before it in the
// list, and for the head the last line, so that these links form a ring.
uint16_t *back_links(const afs_context *context) {
    return reinterpret_cast<uint16_t *>(context->cache_lines + context->cache_line_count);
}

uint16_t last_line(const afs_context *context) {
    return back_links(context)[context->cache_head];
}

void move_to_head(afs_context *context, uint16_t line) {
    const uint16_t head = context->cache_head;
    if (line == head) {
        return;
    }
    afs_cache_line *const lines = context->cache_lines;
    uint16_t *const back = back_links(context);
    const uint16_t before = back[line];
    const uint16_t next = link_of(lines[line]);
    set_link(lines[before], next);
    set_link(lines[line], head);
    context->cache_head = line;
    if (next != end_of_list) { // else the ring stays as it is, and only begins at another line
        back[next] = before;
        back[line] = back[head];
        back[head] = line;
    }
}

// The line that holds a page, or cache_line_count. A record is compared as one number.
uint16_t find_line(const afs_context *context, uint16_t page) {
    const auto wanted = std::bit_cast<uint32_t>(afs_cache_line{line_valid, page});
    const auto mask = std::bit_cast<uint32_t>(afs_cache_line{line_valid, UINT16_MAX});
    const afs_cache_line *const lines = context->cache_lines;
    const uint16_t count = context->cache_line_count;
    uint16_t line = 0;
    while (line < count && (std::bit_cast<uint32_t>(lines[line]) & mask) != wanted) {
        ++line;
    }
    return line;
}

uint32_t write_back(afs_context *context, uint16_t line) {
    const uint32_t va = uint32_t{context->cache_lines[line].page} * context->page_size;
    return context->ops->write_page(context, va, context->page_size, line_bytes(context, line),
                                    context->device_offset);
}

// The translation layer moves AFS_PAGE_SIZE bytes whatever is asked of it: in a longer line the
// bytes of other pages would be left behind them.
void clear_unfilled_part(const afs_context *context, uint16_t line) {
    if (context->page_size > AFS_PAGE_SIZE &&
        context->ops->read_page == afs_physical_ftl_read_page) {
        std::fill_n(line_bytes(context, line) + AFS_PAGE_SIZE, context->page_size - AFS_PAGE_SIZE,
                    uint8_t{0});
    }
}

uint32_t load(afs_context *context, uint16_t line, uint16_t page) {
    afs_cache_line &control = context->cache_lines[line];
    if (is_dirty(control)) {
        if (const uint32_t status = write_back(context, line); status != AFS_RC_OK) {
            return status;
        }
    }
    const uint32_t va = uint32_t{page} * context->page_size;
    if (const uint32_t status = context->ops->read_page(
            context, va, context->page_size, line_bytes(context, line), context->device_offset);
        status != AFS_RC_OK) {
        return status;
    }
    clear_unfilled_part(context, line);
    control.page = page;
    set_flags(control, line_valid);
    return AFS_RC_OK;
}

} // namespace

uint32_t dolm::fetch_page(afs_context *context, uint16_t page) {
    const uint16_t found = find_line(context, page);
    if (found < context->cache_line_count) {
        move_to_head(context, found);
        return AFS_RC_OK;
    }
    const uint16_t last = last_line(context);
    move_to_head(context, last);
    return load(context, last, page);
}

uint32_t cache_init(afs_context *context, uint32_t page_size, uint16_t lines) {
    if (context == nullptr || lines == 0 || lines > end_of_list || page_size < AFS_PAGE_SIZE ||
        page_size > UINT16_MAX) {
        return AFS_RC_INVALID;
    }
    const bool has_lines = context->cache_lines != nullptr;
    if (has_lines != (context->cache_data != nullptr)) {
        return AFS_RC_BAD_STATE;
    }
    if (has_lines) {
        if (const uint32_t status = cache_flush(context); status != AFS_RC_OK) {
            return status;
        }
        std::free(context->cache_lines);
        std::free(context->cache_data);
        context->cache_lines = nullptr;
        context->cache_data = nullptr;
    }

    context->cache_line_count = lines;
    // The lines have room for the context's present page size too: it holds until the caller sets
    // the new one.
    const size_t line_size = std::max<size_t>(page_size, context->page_size);
    context->cache_lines = static_cast<afs_cache_line *>(
        std::calloc(lines, sizeof(afs_cache_line) + sizeof(uint16_t)));
    context->cache_data = static_cast<uint8_t *>(std::calloc(lines, line_size));
    if (context->cache_lines == nullptr || context->cache_data == nullptr) {
        return AFS_RC_NO_MEMORY;
    }
    context->cache_head = 0;
    for (uint16_t line = 0; line < lines; ++line) {
        set_link(context->cache_lines[line],
                 line + 1 < lines ? static_cast<uint16_t>(line + 1) : end_of_list);
        back_links(context)[line] = static_cast<uint16_t>(line == 0 ? lines - 1 : line - 1);
    }
    return AFS_RC_OK;
}

uint32_t cache_ptr(afs_context *context, uint16_t page, void **line) {
    if (!has_cache(context) || line == nullptr) {
        return AFS_RC_INVALID;
    }
    const uint32_t status = fetch_page(context, page);
    if (status == AFS_RC_OK) {
        *line = line_bytes(context, context->cache_head);
    }
    return status;
}

void cache_line_written(afs_context *context, const void *pointer) {
    if (!has_cache(context)) {
        return;
    }
    const uintptr_t distance =
        reinterpret_cast<uintptr_t>(pointer) - reinterpret_cast<uintptr_t>(context->cache_data);
    const uintptr_t index = pages_in(context, distance);
    if (index >= context->cache_line_count) {
        return;
    }
    move_to_head(context, static_cast<uint16_t>(index));
    context->cache_lines[index].flags_and_link |= line_dirty;
}

uint32_t cache_flush(afs_context *context) {
    if (!has_cache(context)) {
        return AFS_RC_INVALID;
    }
    const uint16_t head = context->cache_head;
    uint16_t line = last_line(context);
    for (;;) {
        if (is_dirty(context->cache_lines[line])) {
            if (const uint32_t status = write_back(context, line); status != AFS_RC_OK) {
                return status;
            }
            set_flags(context->cache_lines[line], line_valid);
        }
        if (line == head) {
            return AFS_RC_OK;
        }
        line = back_links(context)[line];
    }
}

void cache_invalidate(afs_context *context) {
    if (!has_cache(context)) {
        return;
    }
    for (uint16_t line = 0; line < context->cache_line_count; ++line) {
        context->cache_lines[line].flags_and_link &= static_cast<uint16_t>(~line_valid);
    }
}
