// The start of the VA space of a store, and the ways to it through the page cache.
//
//   VA                   size             content
//   0                    14               file-system header
//   14                   2 * file_count   FAT entries of the file slots, cid 0 to file_count - 1
//   14 + 2 * file_count  2 * chunk_count  FAT entries of the chunks, cid file_count onwards
//   data_va_start        64 * chunk_count the chunks: the end of the FAT, rounded up to a page
//
// FAT entries, 16 bits:
//
//   value                     in a file slot             in the entry of a chunk
//   0                         no such file               free, or the last one, without bytes
//   1 to 64                   -                          the last one; that many bytes in it
//   file_count onwards        first chunk of the file    next chunk of the file
//   0xFFFE                    zombie                     -
//   0xFFFF                    empty file                 -
//
// Everything else is damage.
#pragma once

#include <algorithm>
#include <cstdint>

#include "Afs.h"
#include "afs/cache_lines.h"
#include "afs/ftl_access.h"
#include "common/little_endian.h"

namespace dolm {

inline constexpr uint32_t fs_header_magic = 0x724F6201;
inline constexpr uint32_t fs_header_size = 14;

// Bytes 0 to 13 of page 0, behind the magic at offset 0.
struct afs_fs_header {
    uint32_t fs_version;    // offset 4: bits 0 to 7 and 8 to 19, given when the store was created
    uint32_t total_va_size; // offset 8: end of the VA space in bytes
    uint16_t file_count;    // offset 12: number of file slots
};

inline constexpr uint16_t fat_free = 0;
inline constexpr uint16_t fat_last_chunk = 64; // up to here a value is a byte count
inline constexpr uint16_t fat_zombie = 0xFFFE;
inline constexpr uint16_t fat_empty_file = 0xFFFF;

// True for what is a chunk's cid wherever the FAT holds a valid value.
constexpr bool is_chunk(uint16_t value) {
    return value > fat_last_chunk && value < fat_zombie;
}

// Bytes that the chunk with this entry holds.
constexpr uint32_t bytes_in_chunk(uint16_t value) {
    return value < fat_last_chunk ? value : fat_last_chunk;
}

constexpr uint32_t fat_va(uint32_t cid) {
    return fs_header_size + 2 * cid;
}

inline uint32_t chunk_va(const afs_context *context, uint16_t cid) {
    return context->data_va_start + AFS_PAGE_SIZE * (uint32_t{cid} - context->file_count);
}

// file_count is 0 after a mount that failed. The translation layer can be lost later, by a mount of
// it alone.
inline bool is_mounted(const afs_context *context) {
    return ftl_is_mounted(context) && context->file_count != 0 && context->cache_lines != nullptr &&
           context->cache_data != nullptr;
}

// afs_release_resources for a mounted store with a chunk map, without a look at the cache.
uint32_t release_chunks(afs_context *context, uint16_t first, uint32_t count,
                        const uint16_t *cids = nullptr);

// afs_trim_fat_page_if_needed for a store with a chunk map.
void note_free_chunk(afs_context *context, uint32_t chunk);

// Where the bytes of a VA lie in the cache, whose head then holds them; good until the call after
// the next one.
inline uint32_t cached_bytes(afs_context *context, uint32_t va, uint8_t *&bytes) {
    const auto page = static_cast<uint16_t>(pages_in(context, va));
    if (!holds(context->cache_lines[context->cache_head], page)) {
        if (const uint32_t status = fetch_page(context, page); status != AFS_RC_OK) {
            return status;
        }
    }
    bytes = line_bytes(context, context->cache_head) + (va & (context->page_size - 1u));
    return AFS_RC_OK;
}

// cache_line_written for such bytes.
inline void mark_written(afs_context *context, const uint8_t *bytes) {
    const uint8_t *const head = line_bytes(context, context->cache_head);
    if (static_cast<size_t>(bytes - head) < context->page_size) {
        context->cache_lines[context->cache_head].flags_and_link |= line_dirty;
    } else {
        cache_line_written(context, bytes);
    }
}

// Chunks looked up since the last file slot. More of them than the store has make a loop.
inline uint32_t chunk_cntr;

// Where a walk along a chain stands.
struct chain_place {
    uint16_t previous; // cid whose FAT entry leads to the chunk
    uint16_t chunk;
    uint16_t entry; // FAT entry of the chunk
};

// Looks up FAT entries. The line with the entry looked up last is at the head of the cache, and the
// entries in it are read without a call: a reader is only good until the next other call into the
// cache.
class fat_reader {
  public:
    explicit fat_reader(afs_context *context)
        : context_(context), offset_mask_(context->page_size - 1u),
          page_shift_(page_shift(context)), file_count_(context->file_count),
          chunk_count_(context->chunk_count) {}

    bool names_chunk(uint16_t value) const {
        return value - file_count_ < chunk_count_; // unsigned: not below file_count_ either
    }

    // afs_get_next_cid for a mounted store and a cid that is a file or a chunk.
    uint32_t next(uint16_t cid, uint16_t &value) {
        const bool is_slot = cid < file_count_;
        chunk_cntr = is_slot ? 0 : chunk_cntr + 1;
        const uint32_t va = fat_va(cid);
        if (va >> page_shift_ != page_) {
            uint8_t *entry = nullptr;
            if (const uint32_t status = cached_bytes(context_, va, entry); status != AFS_RC_OK) {
                return status;
            }
            line_ = entry - (va & offset_mask_);
            page_ = va >> page_shift_;
        }
        value = load_le16(line_ + (va & offset_mask_));
        const bool valid = is_slot ? valid_in_slot(value) : valid_in_chain(value);
        return valid && chunk_cntr <= chunk_count_ ? AFS_RC_OK : AFS_RC_IO;
    }

    // Looks up the entry of place.chunk and goes on, one chunk for each entry that names one, by at
    // most `steps`. `taken` is how many it were, also after a failure. visit(cid) is told each
    // chunk before its entry is looked at.
    template <typename Visit>
    uint32_t follow(uint32_t steps, chain_place &place, uint32_t &taken, Visit visit) {
        taken = 0;
        visit(place.chunk);
        uint32_t status = next(place.chunk, place.entry);
        while (status == AFS_RC_OK && taken < steps && is_chunk(place.entry)) {
            const uint32_t in_line = follow_in_line(place, steps - taken, visit);
            chunk_cntr += in_line;
            taken += in_line;
            if (taken < steps && is_chunk(place.entry)) {
                place = {place.chunk, place.entry, 0};
                ++taken;
                visit(place.chunk);
                status = next(place.chunk, place.entry);
            }
        }
        return status;
    }
    uint32_t follow(uint32_t steps, chain_place &place, uint32_t &taken) {
        return follow(steps, place, taken, [](uint16_t) {});
    }

  private:
    bool valid_in_slot(uint16_t value) const {
        return value == fat_free || value >= fat_zombie || names_chunk(value);
    }
    bool valid_in_chain(uint16_t value) const {
        return value <= fat_last_chunk || names_chunk(value);
    }

    // The steps that need no look at the cache. Stops in front of what next() refuses.
    template <typename Visit>
    uint32_t follow_in_line(chain_place &place, uint32_t steps, Visit visit) const {
        const fat_reader fat = *this; // both lie in registers
        chain_place at = place;
        const uint32_t limit = std::min(steps, chunk_count_ - chunk_cntr);
        uint32_t step = 0;
        while (step < limit && at.entry > fat_last_chunk) {
            const uint32_t run = fat.follow_run(at, limit - step, visit);
            step += run;
            if (run == 0) {
                break;
            }
        }
        place = at;
        return step;
    }

    // The steps as long as each entry names the chunk with the next number, as most do, and one
    // more. Where the entries lie is known before they are read, so that their loads overlap.
    template <typename Visit>
    uint32_t follow_run(chain_place &at, uint32_t steps, Visit visit) const {
        const uint32_t first = at.entry;
        const uint32_t va = fat_va(first);
        if (va >> page_shift_ != page_) {
            return 0;
        }
        const uint8_t *const entries = line_ + (va & offset_mask_);
        const uint32_t page_end = (page_ + 1) << page_shift_;
        const uint32_t limit = std::min(steps, (page_end - va) / 2);
        for (uint32_t step = 0; step < limit; ++step) {
            const uint16_t entry = load_le16(entries + 2 * step);
            if (!valid_in_chain(entry)) {
                return step;
            }
            at = {at.chunk, static_cast<uint16_t>(first + step), entry};
            visit(at.chunk);
            if (entry != first + step + 1) {
                return step + 1;
            }
        }
        return limit;
    }

    afs_context *context_;
    uint32_t offset_mask_;
    unsigned page_shift_;
    uint32_t file_count_;
    uint32_t chunk_count_;
    const uint8_t *line_ = nullptr;
    uint32_t page_ = UINT32_MAX; // in the line; as yet there is none
};

// A look-up that stands alone.
inline uint32_t next_cid(afs_context *context, uint16_t cid, uint16_t &value) {
    return fat_reader(context).next(cid, value);
}

// Changes a FAT entry in the cache.
inline uint32_t set_fat_entry(afs_context *context, uint16_t cid, uint16_t value) {
    uint8_t *entry = nullptr;
    const uint32_t status = cached_bytes(context, fat_va(cid), entry);
    if (status == AFS_RC_OK) {
        store_le16(entry, value);
        mark_written(context, entry);
    }
    return status;
}

// Changes the slot of a file and flushes. After a failure the change is dropped from the cache.
uint32_t commit_slot(afs_context *context, uint16_t file, uint16_t value);

} // namespace dolm
