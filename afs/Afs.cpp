// FAT entries and chains of chunks.
#include "Afs.h"

#include <algorithm>

#include "AfsPhysical.h"
#include "afs/fat_access.h"
#include "afs/ftl_access.h"

namespace dolm {

namespace {

// Gives up a page of the FAT if it holds nothing but entries of free chunks: a page without a copy
// reads as zeros, which is what they are to hold. The pages at both ends of the chunks' entries,
// shared with the slots or with what lies behind, always stay.
void trim_fat_page(afs_context *context, uint32_t page_va) {
    const uint32_t chunk_entries = fat_va(context->file_count);
    if (page_va < chunk_entries || page_va + context->page_size >= context->data_va_start) {
        return;
    }
    const uint32_t first = (page_va - chunk_entries) / 2;
    const uint32_t end = std::min<uint32_t>(first + context->page_size / 2, context->chunk_count);
    if (find_chunk(context, first, end, true) == end) {
        context->ops->trim_page(context, page_va, context->page_size, context->device_offset);
    }
}

} // namespace

void note_free_chunk(afs_context *context, uint32_t chunk) {
    const uint32_t entry_va = fat_va(context->file_count + chunk);
    const uint32_t page_va = entry_va & ~(context->page_size - 1u);
    if (page_va != context->last_fat_page) {
        trim_fat_page(context, context->last_fat_page);
        context->last_fat_page = page_va;
    }
}

uint32_t release_chunks(afs_context *context, uint16_t first, uint32_t count,
                        const uint16_t *cids) {
    chunk_cntr = 0;          // the caller may have walked the same chain before
    fat_reader fat(context); // a trim leaves the cache alone
    uint16_t cid = first;
    for (uint32_t freed = 1; freed <= count && cid > fat_last_chunk; ++freed) {
        if (!fat.names_chunk(cid)) {
            return AFS_RC_IO;
        }
        const auto chunk = static_cast<uint16_t>(cid - context->file_count);
        uint32_t status = context->ops->trim_page(context, chunk_va(context, cid), AFS_PAGE_SIZE,
                                                  context->device_offset);
        if (status != AFS_RC_OK) {
            return status;
        }
        if (cids == nullptr) {
            status = fat.next(cid, cid);
        } else if (freed < count) {
            cid = cids[freed - 1];
        }
        if (status != AFS_RC_OK) {
            return status;
        }
        note_free_chunk(context, chunk);
    }
    note_free_chunk(context, context->chunk_count);
    return AFS_RC_OK;
}

uint32_t commit_slot(afs_context *context, uint16_t file, uint16_t value) {
    uint32_t status = set_fat_entry(context, file, value);
    if (status == AFS_RC_OK) {
        status = cache_flush(context);
    }
    if (status != AFS_RC_OK) {
        cache_invalidate(context);
    }
    return status;
}

} // namespace dolm

using namespace dolm;

uint32_t afs_get_next_cid(afs_context *context, uint16_t cid, uint16_t *value) {
    if (!is_mounted(context) || value == nullptr) {
        return AFS_RC_INVALID;
    }
    fat_reader fat(context);
    if (cid >= context->file_count && !fat.names_chunk(cid)) {
        return AFS_RC_IO;
    }
    return fat.next(cid, *value);
}

uint32_t afs_allocate_chunk(afs_context *context, uint16_t *cid) {
    if (!is_mounted(context) || cid == nullptr) {
        return AFS_RC_INVALID;
    }
    return context->ftl_allocator != 0 ? afs_physical_ftl_allocate_page(context, cid)
                                       : AFS_RC_BAD_STATE;
}

void afs_trim_fat_page_if_needed(afs_context *context, uint16_t chunk) {
    if (is_mounted(context) && context->chunk_map != nullptr && chunk <= context->chunk_count) {
        note_free_chunk(context, chunk);
    }
}

uint32_t afs_release_resources(afs_context *context, uint16_t first, uint32_t count,
                               const uint16_t *cids, bool invalidate) {
    if (!is_mounted(context)) {
        return AFS_RC_INVALID;
    }
    if (context->chunk_map == nullptr) {
        return AFS_RC_BAD_STATE;
    }
    if (invalidate) {
        cache_invalidate(context);
    }
    return release_chunks(context, first, count, cids);
}
