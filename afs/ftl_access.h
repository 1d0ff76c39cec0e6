// Shared by mount, page operations and reclaim of the FTL: checked access to the device, and the
// way from a VA to its place.
#pragma once

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstring>
#include <iterator>

#include "AfsFtl.h"
#include "AfsPhysicalWin32Spi.h"
#include "afs/ftl_format.h"

namespace dolm {

// Read-backs of a write, and reads of a record whose checksum fails, before the device is given up.
inline constexpr int max_reads = 7;

// Records of one transfer: what a buffer of 4096 bytes holds.
inline constexpr uint32_t run_buffer_size = 4096;
inline constexpr uint32_t max_run = run_buffer_size / page_slot_size;
static_assert(max_run == 62);

// Tables to mount with.
bool ftl_has_tables(const afs_context *context);

// Tables that the last mount has filled without a failure.
inline bool ftl_is_mounted(const afs_context *context) {
    return context != nullptr && context->ftl != nullptr && context->ftl->eu_table != nullptr &&
           context->ftl->write_eu != AFS_FTL_NONE;
}

// Releases the state with its tables.
void release_ftl_state(afs_context *context);

// Address of an EU on the device.
inline uint32_t eu_address(const afs_context *context, uint32_t eu) {
    return context->device_offset + eu * AFS_EU_SIZE;
}

inline bool is_eu_address(const afs_context *context, uint32_t address) {
    const uint32_t offset = address - context->device_offset;
    return offset % AFS_EU_SIZE == 0 && offset / AFS_EU_SIZE < context->ftl->eu_count;
}

// Entry of a log page in page_map, or null past the map.
inline afs_page_loc *find_log_page(const afs_context *context, uint32_t page) {
    return page < context->ftl->page_count ? &context->ftl->page_map[page] : nullptr;
}

// Whether the log has to go on in another EU.
inline bool log_head_is_full(const afs_ftl_state &ftl) {
    return ftl.write_slot == AFS_FTL_EU_PAGES || ftl.head_closed != 0;
}

// The page that the next entry of the log is chained to.
inline uint16_t log_link(const afs_ftl_state &ftl) {
    return ftl.chain_starts != 0 ? uint16_t{0} : ftl.last_page;
}

inline void set_log_link(afs_ftl_state &ftl, uint32_t page) {
    ftl.last_page = static_cast<uint16_t>(page);
    ftl.chain_starts = 0;
}

// A slot of slot number slot_none has no copy of a page.
inline constexpr uint8_t slot_none = 0xFF;

// Where a data page lies.
struct data_place {
    uint32_t eu;
    uint32_t slot;
    uint32_t chunk; // below the chunk count, so good as an index of the chunk map
};

// Chunks that the store can have. Before the file layer has set a count, only the EUs bound them.
inline uint32_t chunk_limit(const afs_context *context) {
    return context->chunk_map == nullptr && context->chunk_count == 0 ? UINT32_MAX
                                                                      : context->chunk_count;
}

inline uint32_t first_data_page(const afs_context *context) {
    return context->data_va_start / AFS_PAGE_SIZE;
}

// The first EU whose data pages start at va_base, or AFS_FTL_NONE.
uint32_t search_data_eu(afs_ftl_state *ftl, uint32_t va_base);

// The EU of a chunk, or AFS_FTL_NONE. The EU found last for the same row of chunks is only looked
// at again.
inline uint32_t find_data_eu(const afs_context *context, uint32_t chunk) {
    afs_ftl_state *const ftl = context->ftl;
    const uint32_t row = chunk / AFS_DATA_EU_PAGES;
    const uint32_t va_base = first_data_page(context) + row * AFS_DATA_EU_PAGES;
    if (va_base == 0) {
        return AFS_FTL_NONE;
    }
    uint8_t &found = ftl->data_eus[row % std::size(ftl->data_eus)];
    if (found >= ftl->eu_count || ftl->eu_table[found].va_base != va_base) {
        const uint32_t eu = search_data_eu(ftl, va_base);
        if (eu == AFS_FTL_NONE) {
            return AFS_FTL_NONE;
        }
        found = static_cast<uint8_t>(eu);
    }
    return found;
}

// Finds the slot of a data VA. False if it lies below the data area or past the chunks, or if no EU
// covers it.
inline bool find_data_place(const afs_context *context, uint32_t va, data_place &place) {
    const uint32_t chunk = (va - context->data_va_start) / AFS_PAGE_SIZE;
    if (va < context->data_va_start || chunk >= chunk_limit(context)) {
        return false;
    }
    place = {.eu = find_data_eu(context, chunk), .slot = chunk % AFS_DATA_EU_PAGES, .chunk = chunk};
    return place.eu != AFS_FTL_NONE;
}

// First chunk of a data EU. False if its va_base does not fit the data area.
bool find_first_chunk(const afs_context *context, uint32_t eu, uint32_t &chunk);

// Slots of a data EU that belong to a chunk: all, but for the last EU of some stores.
uint32_t usable_slots(const afs_context *context, uint32_t eu);

// Whether a chunk counts as allocated: all do in a store without a chunk map, and none past its
// end.
inline bool chunk_is_live(const afs_context *context, uint32_t chunk) {
    return context->chunk_map == nullptr ||
           (chunk < context->chunk_count &&
            (context->chunk_map[chunk / 32] >> (chunk % 32) & 1) != 0);
}

// The first chunk from `from` on that is live, or else free, as wanted; `end` if there is none
// below it, which is at most the chunk count plus 1. Only for a store with a chunk map.
inline uint32_t find_chunk(const afs_context *context, uint32_t from, uint32_t end, bool live) {
    while (from < end) {
        const uint32_t word = context->chunk_map[from / 32];
        const uint32_t wanted = (live ? word : ~word) >> from % 32;
        if (wanted != 0) {
            return std::min(from + static_cast<uint32_t>(std::countr_zero(wanted)), end);
        }
        from = (from / 32 + 1) * 32;
    }
    return end;
}

// Live chunks from `from` on, below `end`. Only for a store with a chunk map.
inline uint32_t count_live_chunks(const afs_context *context, uint32_t from, uint32_t end) {
    uint32_t live = 0;
    while (from < end) {
        const uint32_t next = std::min((from / 32 + 1) * 32, end);
        const uint32_t bits = context->chunk_map[from / 32] >> from % 32 << (32 - (next - from));
        live += static_cast<uint32_t>(std::popcount(bits));
        from = next;
    }
    return live;
}

// The EU with the lowest sequence, the first of equals, that is not the spare and that is wanted;
// AFS_FTL_NONE if there is none.
template <typename Wanted>
uint32_t find_oldest_eu(const afs_ftl_state &ftl, Wanted wanted) {
    uint32_t oldest = AFS_FTL_NONE;
    for (uint32_t eu = 0; eu < ftl.eu_count; ++eu) {
        const afs_eu_info &row = ftl.eu_table[eu];
        if (eu != ftl.spare_eu && wanted(eu, row) &&
            (oldest == AFS_FTL_NONE || row.sequence < ftl.eu_table[oldest].sequence)) {
            oldest = eu;
        }
    }
    return oldest;
}

// An EU to reclaim, and how: AFS_FTL_MODE_... . AFS_FTL_NONE if there is none.
struct reclaim_choice {
    uint32_t eu;
    uint32_t mode;
};

// Whether a large spread of wear decides before dirt does.
enum class wear_rule : uint8_t { off, on };

// Where room of a kind is to be had, and what idle time is best used for.
reclaim_choice choose_on_demand(const afs_context *context, uint32_t kind, wear_rule rule);
reclaim_choice choose_for_idle_time(const afs_context *context, wear_rule rule);

// reclaim_eu_wrapper for a mounted store.
uint32_t reclaim_on_demand(afs_context *context, uint32_t kind);

// Erases both blocks of an EU, the lower one first. False if the device fails.
bool erase_eu(uint32_t address);

// Writes once, then reads back until same(readback, data) holds, at most max_reads times. AFS_RC_OK
// or AFS_RC_IO.
template <typename Same>
uint32_t write_until(uint32_t address, const uint8_t *data, uint32_t length, uint8_t *readback,
                     Same same) {
    if (length != 0) { // what no read brings does not compare equal
        readback[0] = static_cast<uint8_t>(~data[0]);
    }
    if (SpiDrvWrite(address, length, data) != AFS_RC_OK) {
        return AFS_RC_IO;
    }
    for (int reads = 0; reads < max_reads; ++reads) {
        if (SpiDrvRead(address, length, readback) != AFS_RC_OK) {
            return AFS_RC_IO;
        }
        if (same(readback, data)) {
            return AFS_RC_OK;
        }
    }
    return AFS_RC_IO;
}

// The same for any bytes; readback has room for length bytes.
uint32_t verified_write(uint32_t address, const uint8_t *data, uint32_t length, uint8_t *readback);

// The same for a record.
template <size_t length>
uint32_t verified_write(uint32_t address, const uint8_t (&record)[length]) {
    uint8_t readback[length];
    return write_until(address, record, length, readback, [](const uint8_t *a, const uint8_t *b) {
        return std::memcmp(a, b, length) == 0;
    });
}

inline uint32_t verified_write_byte(uint32_t address, uint8_t value) {
    const uint8_t record[] = {value};
    return verified_write(address, record);
}

// A page slot is compared by words: bytes that were just copied are only at hand for loads no wider
// than the stores.
inline bool same_slot(const uint8_t *a, const uint8_t *b) {
    uint64_t difference = load_le16(a + page_crc_offset) ^ load_le16(b + page_crc_offset);
    for (uint32_t at = 0; at < AFS_PAGE_SIZE; at += sizeof(uint64_t)) {
        uint64_t word_a;
        uint64_t word_b;
        std::memcpy(&word_a, a + at, sizeof word_a);
        std::memcpy(&word_b, b + at, sizeof word_b);
        difference |= word_a ^ word_b;
    }
    return difference == 0;
}

inline uint32_t verified_write_slot(uint32_t address, const uint8_t *slot) {
    uint8_t readback[page_slot_size];
    return write_until(address, slot, page_slot_size, readback, same_slot);
}

// Reads count page slots in one device read and checks each against its page number, page_of(i);
// reads all again, at most max_reads times, if one does not match. AFS_RC_OK or AFS_RC_IO.
template <typename PageOf>
uint32_t read_page_slots(uint32_t address, uint32_t count, PageOf page_of, uint8_t *slots) {
    for (int reads = 0; reads < max_reads; ++reads) {
        if (SpiDrvRead(address, count * page_slot_size, slots) != AFS_RC_OK) {
            return AFS_RC_IO;
        }
        uint32_t good = 0;
        while (good < count && page_slot_is_good(slots + good * page_slot_size, page_of(good))) {
            ++good;
        }
        if (good == count) {
            return AFS_RC_OK;
        }
    }
    return AFS_RC_IO;
}

} // namespace dolm
