// Size, read, delete and marking of files, and the maintenance operations.
#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "Afs.h"
#include "AfsPhysical.h"
#include "afs/fat_access.h"
#include "afs/ftl_access.h"

using namespace dolm;

namespace {

// A run is read as whole page slots into file_buffer, behind what is buffered there. It grows by
// one page as long as the slots so far leave room for one more, and none is begun in a buffer that
// has no room for five.
constexpr uint32_t run_limit = AFS_FILE_BUFFER_SIZE - page_slot_size;
constexpr uint32_t drain_limit = AFS_FILE_BUFFER_SIZE - 5 * page_slot_size;

bool has_file(const afs_context *context, int32_t file) {
    return is_mounted(context) && file >= 0 && file < context->file_count;
}

bool no_such_file(uint16_t slot) {
    return slot == fat_free || slot == fat_zombie;
}

// A read in progress. What a run delivers lies in file_buffer behind what earlier runs delivered,
// side by side, since only the first run has bytes before the offset.
struct read_job {
    afs_context *context;
    fat_reader fat; // only the chain is read through the cache
    uint8_t *out;
    uint32_t wanted;    // bytes still to deliver
    uint32_t skip;      // bytes of the first run that lie before the offset, then 0
    uint32_t gap;       // bytes at the start of file_buffer that are not to be copied
    uint32_t buffered;  // bytes of file_buffer in use
    uint32_t pending;   // of these, the ones to copy
    uint32_t delivered; // bytes read for the caller so far, the pending ones included
};

// Chunks with consecutive cids: one read on the flash.
struct chunk_run {
    uint16_t first;
    uint16_t last;
    uint16_t entry; // FAT entry of the last one

    uint32_t count() const { return last - first + 1u; }
    uint32_t bytes() const { return (count() - 1) * AFS_PAGE_SIZE + bytes_in_chunk(entry); }
};

bool can_extend(const read_job &job, const chunk_run &run) {
    const afs_context *context = job.context;
    return run.entry == run.last + 1 &&
           chunk_is_live(context, run.entry - uint32_t{context->file_count}) &&
           run.count() * page_slot_size + job.buffered <= run_limit &&
           run.bytes() - job.skip <= job.wanted;
}

// Takes the run that begins at a chunk as far as it goes.
uint32_t gather_run(read_job &job, chunk_run &run) {
    while (can_extend(job, run)) {
        ++run.last;
        if (const uint32_t status = job.fat.next(run.last, run.entry); status != AFS_RC_OK) {
            return status;
        }
    }
    return AFS_RC_OK;
}

uint32_t read_run(read_job &job, const chunk_run &run) {
    if (const uint32_t status =
            afs_physical_ftl_read_data_pages(job.context, job.context->file_buffer + job.buffered,
                                             chunk_va(job.context, run.first), run.count());
        status != AFS_RC_OK) {
        return status;
    }
    const uint32_t taken = std::min(run.bytes() - job.skip, job.wanted);
    job.wanted -= taken;
    job.pending += taken;
    job.delivered += taken;
    job.buffered += run.count() * AFS_PAGE_SIZE;
    job.skip = 0;
    return AFS_RC_OK;
}

void hand_over_pending(read_job &job) {
    std::copy_n(job.context->file_buffer + job.gap, job.pending, job.out);
    job.out += job.pending;
    job.gap = 0;
    job.pending = 0;
    job.buffered = 0;
}

// Delivers the bytes from the chunk `run` begins with to the end of the request or of the file.
uint32_t read_runs(read_job &job, chunk_run run) {
    for (;;) {
        uint32_t status = gather_run(job, run);
        if (status != AFS_RC_OK) {
            return status;
        }
        if (run.bytes() <= job.skip && job.pending == 0) {
            return AFS_RC_OK; // the offset lies behind the end, or the last chunk is empty
        }
        status = read_run(job, run);
        if (status != AFS_RC_OK) {
            return status;
        }
        const bool complete = job.wanted == 0 || !is_chunk(run.entry);
        if (complete || job.buffered > drain_limit) {
            hand_over_pending(job);
        }
        if (complete) {
            return AFS_RC_OK;
        }
        run.first = run.last = run.entry;
        status = job.fat.next(run.first, run.entry);
        if (status != AFS_RC_OK) {
            return status;
        }
    }
}

// Goes to the chunk of a chain that holds `offset`. The run is left with `first` 0 if the file ends
// before it.
uint32_t seek_chunk(afs_context *context, uint16_t slot, uint32_t offset, chunk_run &run) {
    if (!is_chunk(slot)) {
        return AFS_RC_OK;
    }
    const uint32_t steps = offset / AFS_PAGE_SIZE;
    chain_place place = {.previous = 0, .chunk = slot, .entry = 0};
    uint32_t taken = 0;
    const uint32_t status = fat_reader(context).follow(steps, place, taken);
    if (status == AFS_RC_OK && taken == steps) {
        run = {.first = place.chunk, .last = place.chunk, .entry = place.entry};
    }
    return status;
}

} // namespace

uint32_t afs_getfilesize(afs_context *context, int32_t file, uint32_t *size) {
    if (!has_file(context, file) || size == nullptr) {
        return AFS_RC_INVALID;
    }
    if (context->file_sizes != nullptr) {
        const uint32_t known = context->file_sizes[file];
        if (known == AFS_NO_FILE_SIZE) {
            return AFS_RC_NO_FILE;
        }
        *size = known;
        return AFS_RC_OK;
    }
    uint16_t slot = 0;
    uint32_t status = next_cid(context, static_cast<uint16_t>(file), slot);
    if (status != AFS_RC_OK) {
        return status;
    }
    if (no_such_file(slot)) {
        return AFS_RC_NO_FILE;
    }
    if (slot == fat_empty_file) {
        *size = 0;
        return AFS_RC_OK;
    }
    chain_place place = {.previous = 0, .chunk = slot, .entry = 0};
    uint32_t steps = 0;
    status = fat_reader(context).follow(UINT32_MAX, place, steps);
    if (status == AFS_RC_OK) {
        *size = steps * AFS_PAGE_SIZE + bytes_in_chunk(place.entry);
    }
    return status;
}

uint32_t afs_readfile(afs_context *context, int32_t file, uint32_t offset, uint32_t *length,
                      void *buffer) {
    if (!has_file(context, file) || length == nullptr || *length > INT32_MAX ||
        (*length > 0 && (buffer == nullptr || context->file_buffer == nullptr))) {
        return AFS_RC_INVALID;
    }
    uint16_t slot = 0;
    uint32_t status = next_cid(context, static_cast<uint16_t>(file), slot);
    if (status != AFS_RC_OK) {
        return status;
    }
    if (no_such_file(slot)) {
        return AFS_RC_NO_FILE;
    }
    if (*length == 0) {
        return AFS_RC_OK;
    }
    chunk_run run{};
    status = seek_chunk(context, slot, offset, run);
    if (status != AFS_RC_OK) {
        return status;
    }
    const uint32_t skip = offset % AFS_PAGE_SIZE;
    read_job job = {.context = context,
                    .fat = fat_reader(context),
                    .out = static_cast<uint8_t *>(buffer),
                    .wanted = *length,
                    .skip = skip,
                    .gap = skip,
                    .buffered = 0,
                    .pending = 0,
                    .delivered = 0};
    if (run.first != 0) {
        status = read_runs(job, run);
    }
    if (status == AFS_RC_OK) {
        *length = job.delivered;
    }
    return status;
}

uint32_t afs_deletefile(afs_context *context, int32_t file) {
    if (!has_file(context, file)) {
        return AFS_RC_INVALID;
    }
    if (context->chunk_map == nullptr) {
        return AFS_RC_BAD_STATE;
    }
    const auto slot_cid = static_cast<uint16_t>(file);
    uint16_t slot = 0;
    uint32_t status = next_cid(context, slot_cid, slot);
    if (status != AFS_RC_OK) {
        return status;
    }
    if (slot == fat_free) {
        return AFS_RC_NO_FILE;
    }
    status = commit_slot(context, slot_cid, fat_free);
    if (status != AFS_RC_OK) {
        return status;
    }
    if (context->file_sizes != nullptr) {
        context->file_sizes[file] = AFS_NO_FILE_SIZE;
    }
    return is_chunk(slot) ? release_chunks(context, slot, context->chunk_count) : AFS_RC_OK;
}

uint32_t afs_mark_zombie_file(afs_context *context, uint32_t file) {
    if (file > INT32_MAX || !has_file(context, static_cast<int32_t>(file))) {
        return AFS_RC_INVALID;
    }
    if (context->chunk_map == nullptr) {
        return AFS_RC_BAD_STATE;
    }
    const auto slot_cid = static_cast<uint16_t>(file);
    uint16_t slot = 0;
    if (const uint32_t status = next_cid(context, slot_cid, slot); status != AFS_RC_OK) {
        return status;
    }
    return slot == fat_free ? commit_slot(context, slot_cid, fat_zombie) : AFS_RC_BAD_STATE;
}

void afs_free_file_size_table(afs_context *context) {
    if (context != nullptr) {
        std::free(context->file_sizes);
        context->file_sizes = nullptr;
    }
}

uint32_t afs_idle_reclaim(afs_context *context) {
    return is_mounted(context) ? afs_physical_ftl_idle_reclaim(context) : AFS_RC_INVALID;
}

uint32_t afs_idle_reclaim_needed(afs_context *context) {
    uint32_t eu = 0;
    uint32_t kind = 0;
    return is_mounted(context) ? afs_physical_ftl_idle_reclaim_needed(context, &eu, &kind) : 0;
}

uint32_t afs_get_idle_reclaim_enabled(afs_context *context) {
    return is_mounted(context) && context->idle_reclaim_enabled != 0 ? 1 : 0;
}

void afs_set_idle_reclaim_enabled(afs_context *context) {
    if (is_mounted(context)) {
        context->idle_reclaim_enabled = 1;
    }
}

uint32_t afs_force_full_reclaim(afs_context *context) {
    return is_mounted(context) ? context->ops->force_full_reclaim(context) : AFS_RC_INVALID;
}

uint32_t afs_force_dirty_erase(afs_context *context) {
    return is_mounted(context) ? context->ops->force_dirty_erase(context) : AFS_RC_INVALID;
}
