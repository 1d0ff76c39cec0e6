// Writing a file. New contents go into new chunks, which are chained in the FAT from the end
// towards the start. The last entry changed is the one that points at the first replaced position:
// the slot of the file, or the entry of the chunk before. The cache writes the line touched longest
// ago first, so that chunks reach the flash before the FAT does and the page with that entry comes
// last; until then the file is as it was.
#include <algorithm>
#include <cstring>
#include <memory>
#include <new>

#include "Afs.h"
#include "afs/fat_access.h"

using namespace dolm;

namespace {

constexpr uint16_t no_chunk = 0; // a position behind the end of the old file

struct write_job {
    afs_context *context;
    uint32_t offset;
    uint32_t end; // offset + length
    bool truncate;

    const uint8_t *data; // next byte of the caller's data
    uint32_t left;       // bytes of it still to take

    // The place in the old file.
    uint32_t position; // a multiple of the chunk size
    uint16_t previous; // cid whose FAT entry points at the position
    uint16_t current;  // old chunk at the position, or no_chunk
    uint16_t next;     // its FAT entry, or 0

    uint16_t release_head; // first old chunk to free

    // `previous` at the first replaced position, the new chunks behind it, then the value that ends
    // the chain.
    std::unique_ptr<uint16_t[]> chain;
    uint32_t chain_length; // cids in it; 0 as long as nothing is replaced

    uint32_t new_chunks() const { return chain_length > 1 ? chain_length - 1 : 0; }
};

bool has_gone_far_enough(const write_job &job) {
    return job.left == 0 && (!job.truncate || job.offset < job.position);
}

// A last chunk before the range stays, unless it ends before it: then it is to be padded.
bool stays(const write_job &job) {
    return job.current != no_chunk && job.offset >= job.position + AFS_PAGE_SIZE &&
           job.offset <= job.position + job.next;
}

void begin_replacing(write_job &job) {
    if (job.chain_length == 0) {
        job.release_head = job.current;
        job.chain[job.chain_length++] = job.previous;
    }
}

void step_forward(write_job &job) {
    job.previous = job.current;
    job.current = job.next;
    job.position += AFS_PAGE_SIZE;
}

// Looks up the old chunk at the position, and goes on to the next as long as those that stay come
// before the range.
uint32_t walk_old_chunks(write_job &job) {
    const uint32_t most = (job.offset - job.position) / AFS_PAGE_SIZE;
    chain_place place = {.previous = job.previous, .chunk = job.current, .entry = 0};
    uint32_t taken = 0;
    const uint32_t status = fat_reader(job.context).follow(most, place, taken);
    job.previous = place.previous;
    job.current = place.chunk;
    job.next = place.entry;
    job.position += taken * AFS_PAGE_SIZE;
    return status;
}

uint32_t look_up_old_chunk(write_job &job) {
    if (!is_chunk(job.current)) {
        job.current = no_chunk;
        job.next = 0;
        return AFS_RC_OK;
    }
    return job.offset > job.position ? walk_old_chunks(job)
                                     : next_cid(job.context, job.current, job.next);
}

// A reclaim takes chunks that are still in the cache for free ones, so the allocator asks for a
// flush before it does one: at most once for each data EU.
uint32_t allocate(afs_context *context, uint16_t &cid) {
    for (;;) {
        if (const uint32_t status = afs_allocate_chunk(context, &cid);
            status != AFS_RC_FLUSH_FIRST) {
            return status;
        }
        if (const uint32_t status = cache_flush(context); status != AFS_RC_OK) {
            return status;
        }
    }
}

// Makes the contents of the chunk at the position: old bytes, zeros where there are none, and the
// caller's data over them.
uint32_t fill_chunk(write_job &job, uint8_t *chunk) {
    // Taken for rare, this copy would be made in the shortest way, not in the fastest.
    if (job.offset <= job.position && job.left >= AFS_PAGE_SIZE) [[likely]] {
        std::memcpy(chunk, job.data, AFS_PAGE_SIZE);
        job.data += AFS_PAGE_SIZE;
        job.left -= AFS_PAGE_SIZE;
        return AFS_RC_OK;
    }
    const uint32_t lead =
        std::min(std::max(job.offset, job.position) - job.position, AFS_PAGE_SIZE);
    const uint32_t taken = std::min(job.left, AFS_PAGE_SIZE - lead);
    uint32_t kept = bytes_in_chunk(job.next);
    if (kept > 0 && (lead > 0 || kept > taken)) {
        uint8_t *old = nullptr;
        if (const uint32_t status =
                cached_bytes(job.context, chunk_va(job.context, job.current), old);
            status != AFS_RC_OK) {
            return status;
        }
        std::copy_n(old, kept, chunk);
    } else {
        kept = 0;
    }
    std::fill(chunk + kept, chunk + AFS_PAGE_SIZE, uint8_t{0});
    std::copy_n(job.data, taken, chunk + lead);
    job.data += taken;
    job.left -= taken;
    return AFS_RC_OK;
}

uint32_t replace_chunk(write_job &job) {
    begin_replacing(job);
    uint16_t cid = 0;
    uint32_t status = allocate(job.context, cid);
    if (status != AFS_RC_OK) {
        return status;
    }
    job.chain[job.chain_length++] = cid;
    uint8_t *chunk = nullptr;
    status = cached_bytes(job.context, chunk_va(job.context, cid), chunk);
    if (status == AFS_RC_OK) {
        status = fill_chunk(job, chunk);
    }
    if (status == AFS_RC_OK) {
        mark_written(job.context, chunk);
    }
    return status;
}

// Walks the old file and puts new chunks where the write changes it.
uint32_t write_chunks(write_job &job) {
    while (!has_gone_far_enough(job)) {
        uint32_t status = look_up_old_chunk(job);
        if (status != AFS_RC_OK) {
            return status;
        }
        if (!stays(job)) {
            if (job.left == 0 && job.offset == job.position) {
                begin_replacing(job); // the file is cut exactly here
                return AFS_RC_OK;
            }
            status = replace_chunk(job);
            if (status != AFS_RC_OK) {
                return status;
            }
        }
        step_forward(job);
    }
    return AFS_RC_OK;
}

// The entry of the last new chunk: where the old file goes on behind it, or how many bytes it
// holds, some of which can be old ones behind the new.
uint16_t final_value(const write_job &job) {
    const auto written = static_cast<uint16_t>((job.end - 1) % AFS_PAGE_SIZE + 1);
    if (job.truncate) {
        return written;
    }
    return is_chunk(job.next) ? job.next : std::max(written, job.next);
}

// Puts the new chain into the FAT and everything on the flash.
uint32_t link_chain(write_job &job) {
    job.chain[job.chain_length] = final_value(job);
    uint32_t status = AFS_RC_OK;
    for (uint32_t i = job.chain_length; i-- > 0 && status == AFS_RC_OK;) {
        status = set_fat_entry(job.context, job.chain[i], job.chain[i + 1]);
    }
    if (status == AFS_RC_OK) {
        status = cache_flush(job.context);
    }
    if (status != AFS_RC_OK) {
        cache_invalidate(job.context);
    }
    return status;
}

void undo(const write_job &job) {
    if (job.new_chunks() > 0) {
        cache_invalidate(job.context);
        release_chunks(job.context, job.chain[1], job.new_chunks(), &job.chain[2]);
    }
}

void update_file_size(const write_job &job, uint16_t file) {
    if (job.context->file_sizes == nullptr) {
        return;
    }
    uint32_t &size = job.context->file_sizes[file];
    size = job.truncate || size == AFS_NO_FILE_SIZE ? job.end : std::max(size, job.end);
}

// A write of no bytes that does not truncate.
uint32_t create_file(afs_context *context, uint16_t file) {
    uint16_t slot = 0;
    uint32_t status = next_cid(context, file, slot);
    if (status != AFS_RC_OK) {
        return status;
    }
    if (is_chunk(slot)) {
        return cache_flush(context);
    }
    status = commit_slot(context, file, fat_empty_file);
    if (status == AFS_RC_OK && context->file_sizes != nullptr) {
        context->file_sizes[file] = 0;
    }
    return status;
}

uint32_t write_file(write_job &job, uint16_t file) {
    uint32_t status = next_cid(job.context, file, job.current);
    if (status != AFS_RC_OK) {
        return status;
    }
    status = write_chunks(job);
    if (status == AFS_RC_OK) {
        const bool emptied = job.end == 0;
        status = emptied ? commit_slot(job.context, file, fat_empty_file) : link_chain(job);
    }
    if (status != AFS_RC_OK) {
        undo(job);
        return status;
    }
    update_file_size(job, file);
    const uint32_t to_free = job.truncate ? job.context->chunk_count : job.new_chunks();
    return release_chunks(job.context, job.release_head, to_free);
}

} // namespace

uint32_t afs_writefile(afs_context *context, int32_t file, uint32_t offset, uint32_t length,
                       const void *data, uint32_t flags) {
    if (!is_mounted(context) || file < 0 || file >= context->file_count ||
        (data == nullptr && length > 0)) {
        return AFS_RC_INVALID;
    }
    if (context->chunk_map == nullptr) {
        return AFS_RC_BAD_STATE;
    }
    const auto slot_cid = static_cast<uint16_t>(file);
    const bool truncate = (flags & AFS_WRITE_TRUNCATE) != 0;
    if (length == 0 && !truncate) {
        return create_file(context, slot_cid);
    }
    if (offset > AFS_MAX_FILE_SIZE || length > AFS_MAX_FILE_SIZE - offset) {
        return AFS_RC_TOO_LARGE;
    }
    const uint32_t end = offset + length;
    const uint32_t capacity = (end + AFS_PAGE_SIZE - 1) / AFS_PAGE_SIZE + 2;
    write_job job = {.context = context,
                     .offset = offset,
                     .end = end,
                     .truncate = truncate,
                     .data = static_cast<const uint8_t *>(data),
                     .left = length,
                     .position = 0,
                     .previous = slot_cid,
                     .current = no_chunk,
                     .next = 0,
                     .release_head = no_chunk,
                     .chain = nullptr,
                     .chain_length = 0};
    job.chain.reset(new (std::nothrow) uint16_t[capacity]);
    if (job.chain == nullptr) {
        return AFS_RC_NO_MEMORY;
    }
    return write_file(job, slot_cid);
}
