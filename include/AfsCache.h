// Page cache of an AFS store: a few pages of its VA space, between the file layer and the flash
// translation layer. The file layer changes bytes in place through a pointer into a line and then
// reports the line as written. What is dirty reaches the flash when its line is replaced or when
// the cache is flushed, both times the line touched longest ago first. The order of the last
// touches is therefore the order of the writes, and file operations rely on it: the line that
// they touch last is written last.
#ifndef DOLM_AFS_CACHE_H
#define DOLM_AFS_CACHE_H

#include <cstdint>

#include "AfsFtl.h"
#include "dolm_api.h"

DOLM_EXTERN_C_BEGIN

// Sets up an empty cache of `lines` lines (1 to 4095) of `page_size` bytes (64 to 65535), or
// replaces the cache that the context has, after writing its dirty lines. Leaves the context's
// page_size alone, which is the size that the lines are used with.
//   AFS_RC_OK        done; every line is invalid, line 0 is the head
//   AFS_RC_NO_MEMORY no memory; what was allocated stays with the context until afs_free_context
//   AFS_RC_INVALID   null context or a count or size out of range; nothing changed
//   AFS_RC_BAD_STATE only one of the two arrays of a cache is there; nothing changed
// Any other result is that of cache_flush, with the old cache in place.
DOLM_API uint32_t cache_init(afs_context *context, uint32_t page_size, uint16_t lines);

// Finds or loads a page (VA / page_size) and makes its line the most recently used one. `*line`
// points to page_size bytes that stay in place until the next call; with two lines or more the
// line of the call before stays in place as well.
//   AFS_RC_OK        done
//   AFS_RC_INVALID   null context or pointer, or no cache
// Any other result is a failure to write back the replaced line, which then keeps its page and
// stays dirty, or to read the page, with the line's old page still in place.
DOLM_API uint32_t cache_ptr(afs_context *context, uint16_t page, void **line);

// Marks the line that `pointer` points into as dirty and makes it the most recently used one. A
// pointer to anything else is ignored.
DOLM_API void cache_line_written(afs_context *context, const void *pointer);

// Writes all dirty lines, the one used longest ago first. They stay valid and in their places.
//   AFS_RC_OK        done, nothing is dirty
//   AFS_RC_INVALID   null context, or no cache
// Any other result is a failed write; that line and the ones not yet written stay dirty.
DOLM_API uint32_t cache_flush(afs_context *context);

// Forgets all lines, dirty ones included.
DOLM_API void cache_invalidate(afs_context *context);

DOLM_EXTERN_C_END

#endif
