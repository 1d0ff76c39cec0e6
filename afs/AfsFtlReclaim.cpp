// Reclaim: getting the space of dead pages back. Which EU gives it is decided in AfsFtlWear.cpp.
#include <algorithm>
#include <memory>
#include <new>

#include "AfsFtl.h"
#include "afs/ftl_access.h"
#include "afs/ftl_format.h"
#include "afs/log_map.h"

using namespace dolm;

namespace {

struct work_area {
    uint8_t pages[run_buffer_size];
    uint8_t readback[run_buffer_size];
};

void move_log_head(afs_ftl_state &ftl, uint32_t eu) {
    ftl.write_eu = eu;
    ftl.write_slot = 0;
    ftl.head_closed = 0;
    set_log_link(ftl, 0);
}

// How many of the next slots are live, up to a limit.
template <typename IsLive>
uint32_t run_length(uint32_t limit, IsLive is_live) {
    uint32_t count = 0;
    while (count < limit && is_live(count)) {
        ++count;
    }
    return count;
}

// Copies pages between the same slots of two data EUs. Each is checked before.
uint32_t copy_data_pages(uint32_t source_address, uint32_t target_address, uint32_t first_slot,
                         uint32_t count, uint32_t first_page, uint8_t *pages, uint8_t *readback) {
    static constexpr uint8_t complete[max_run] = {};
    static_assert(slot_complete == 0);
    if (read_page_slots(
            source_address + data_slot_offset(first_slot), count,
            [first_page](uint32_t i) { return first_page + i; }, pages) != AFS_RC_OK ||
        verified_write(target_address + data_slot_offset(first_slot), pages, count * page_slot_size,
                       readback) != AFS_RC_OK) {
        return AFS_RC_IO;
    }
    return verified_write(target_address + data_status_offset + first_slot, complete, count,
                          readback);
}

// Writes the header of the target, gives up the source and commits the target: the order on which
// recovery rests.
uint32_t hand_over(const afs_context *context, uint32_t target_eu, uint32_t source_eu) {
    const uint32_t target_address = eu_address(context, target_eu);
    const uint32_t source_address = eu_address(context, source_eu);
    afs_ftl_state &ftl = *context->ftl;
    afs_eu_info &target = ftl.eu_table[target_eu];
    afs_eu_info &source = ftl.eu_table[source_eu];
    ++ftl.sequence;
    target.erase_count += target.erase_count != UINT32_MAX ? 1 : 0;
    uint8_t header[eu_header_written_size];
    store_eu_header(header, {.magic = eu_magic,
                             .sequence = ftl.sequence,
                             .erase_count = target.erase_count,
                             .next_spare = static_cast<uint16_t>(source_eu),
                             .va_base = source.va_base});
    if (verified_write(target_address, header) != AFS_RC_OK) {
        return AFS_RC_IO;
    }
    // From here on until both writes are known to have landed, only a mount can tell which of the
    // two EUs counts.
    static constexpr uint8_t no_magic[4] = {};
    ftl.needs_mount = 1;
    if (verified_write(source_address + eu_magic_offset, no_magic) != AFS_RC_OK) {
        return AFS_RC_IO;
    }
    source.sequence = 0;
    if (verified_write_byte(target_address + eu_state_offset, eu_state_committed) != AFS_RC_OK) {
        return AFS_RC_IO;
    }
    ftl.needs_mount = 0;

    ftl.spare_eu = static_cast<uint16_t>(source_eu);
    target.va_base = source.va_base;
    target.sequence = ftl.sequence;
    source.va_base = 0;
    source.dirty_pages = 0;
    source.free_pages = 0;
    return AFS_RC_OK;
}

// Copies the live pages of a data EU to the same slots of the erased target, from the last slot to
// the first. With rearm the allocator's cursor ends up on the lowest dead slot.
uint32_t copy_live_data_pages(afs_context *context, uint32_t source, uint32_t first_chunk,
                              bool rearm, work_area &work) {
    afs_ftl_state &ftl = *context->ftl;
    afs_eu_info &target = ftl.eu_table[ftl.spare_eu];
    const uint32_t first_page = ftl.eu_table[source].va_base;
    uint32_t slot = usable_slots(context, source); // from here on all is done
    while (slot > 0) {
        const uint32_t run = run_length(std::min(max_run, slot), [=](uint32_t i) {
            return chunk_is_live(context, first_chunk + slot - 1 - i);
        });
        slot -= run;
        target.dirty_pages = static_cast<uint8_t>(target.dirty_pages - run);
        const bool dead_below = run < max_run && slot > 0;
        if (dead_below && rearm) {
            ftl.alloc_cursor = first_chunk + slot - 1;
        }
        if (run != 0) {
            if (const uint32_t status =
                    copy_data_pages(eu_address(context, source), eu_address(context, ftl.spare_eu),
                                    slot, run, first_page + slot, work.pages, work.readback);
                status != AFS_RC_OK) {
                return status;
            }
        }
        target.free_pages = static_cast<uint8_t>(target.free_pages - run);
        slot -= dead_below ? 1 : 0;
    }
    return AFS_RC_OK;
}

uint32_t reclaim_data_eu(afs_context *context, uint32_t source, work_area &work) {
    afs_ftl_state &ftl = *context->ftl;
    const uint32_t target = ftl.spare_eu;
    uint32_t first_chunk;
    if (!find_first_chunk(context, source, first_chunk)) {
        return AFS_RC_IO;
    }
    ftl.reclaim_armed = 0;
    if (!erase_eu(eu_address(context, target))) {
        return AFS_RC_IO;
    }
    const uint32_t slots = usable_slots(context, source);
    ftl.eu_table[target].dirty_pages = static_cast<uint8_t>(slots);
    ftl.eu_table[target].free_pages = static_cast<uint8_t>(slots);
    const bool rearm = ftl.alloc_cursor == ftl.alloc_end || ftl.alloc_cursor == AFS_FTL_NONE;
    if (rearm) {
        ftl.alloc_cursor = AFS_FTL_NONE;
        ftl.alloc_end = first_chunk + slots;
    }
    uint32_t status = copy_live_data_pages(context, source, first_chunk, rearm, work);
    if (status == AFS_RC_OK) {
        status = hand_over(context, target, source);
    }
    if (status != AFS_RC_OK) {
        return status;
    }
    return ftl.alloc_cursor == AFS_FTL_NONE ? AFS_RC_NOT_RECLAIMED : AFS_RC_OK;
}

// The live pages of a log EU on their way to the head of the log.
struct log_move {
    uint32_t source;
    uint32_t overflow_eu; // follows a full head
    uint32_t live = 0;
    uint16_t pages[AFS_FTL_EU_PAGES]; // page number of each slot, or no_page
};

log_move list_live_log_pages(const afs_ftl_state &ftl, uint32_t source, uint32_t overflow_eu) {
    log_move move = {.source = source, .overflow_eu = overflow_eu, .live = 0, .pages = {}};
    std::fill(std::begin(move.pages), std::end(move.pages), no_page);
    for (uint32_t page = 0; page < ftl.page_count; ++page) {
        const afs_page_loc &copy = ftl.page_map[page];
        if (copy.eu == source && copy.slot != slot_none) {
            move.pages[copy.slot] = static_cast<uint16_t>(page);
            ++move.live;
        }
    }
    return move;
}

// Appends a run of pages to the head: the pages first, then their entries, so that no entry ever
// stands ahead of its page. The last page of the run is not committed yet.
uint32_t append_log_run(afs_context *context, const log_move &move, uint32_t first_slot,
                        uint32_t count, work_area &work) {
    afs_ftl_state &ftl = *context->ftl;
    afs_eu_info &head = ftl.eu_table[ftl.write_eu];
    const uint16_t *pages = move.pages + first_slot;
    const uint32_t head_address = eu_address(context, ftl.write_eu);
    for (uint32_t i = 0; i < count; ++i) {
        ftl.page_map[pages[i]] = {static_cast<uint8_t>(ftl.write_eu),
                                  static_cast<uint8_t>(ftl.write_slot + i)};
    }
    if (read_page_slots(
            eu_address(context, move.source) + log_slot_offset(first_slot), count,
            [pages](uint32_t i) { return pages[i]; }, work.pages) != AFS_RC_OK ||
        verified_write(head_address + log_slot_offset(ftl.write_slot), work.pages,
                       count * page_slot_size, work.readback) != AFS_RC_OK) {
        return AFS_RC_IO;
    }
    uint8_t entries[max_run * log_entry_size];
    for (uint32_t i = 0; i < count; ++i) {
        store_le16(entries + i * log_entry_size, log_chain(log_link(ftl), pages[i]));
        set_log_link(ftl, pages[i]);
    }
    if (verified_write(head_address + log_entry_offset(ftl.write_slot), entries,
                       count * log_entry_size, work.readback) != AFS_RC_OK) {
        return AFS_RC_IO;
    }
    head.free_pages = 0;
    head.dirty_pages = static_cast<uint8_t>(head.dirty_pages - count);
    ftl.write_slot += count;
    return AFS_RC_OK;
}

// Commits what the last entry before the head's next slot stands for.
uint32_t commit_log_head(const afs_context *context) {
    const afs_ftl_state &ftl = *context->ftl;
    return verified_write_byte(
        eu_address(context, ftl.write_eu) + log_commit_offset(ftl.write_slot), log_commit_byte);
}

uint32_t move_live_log_pages(afs_context *context, const log_move &move, work_area &work) {
    afs_ftl_state &ftl = *context->ftl;
    uint32_t moved = 0;
    for (uint32_t slot = 0; slot < AFS_FTL_EU_PAGES && moved < move.live;) {
        const uint32_t room = AFS_FTL_EU_PAGES - std::max(slot, ftl.write_slot);
        const uint32_t run = run_length(std::min(max_run, room), [&move, slot](uint32_t i) {
            return move.pages[slot + i] != no_page;
        });
        if (run == 0) {
            ++slot;
            continue;
        }
        if (append_log_run(context, move, slot, run, work) != AFS_RC_OK) {
            return AFS_RC_IO;
        }
        slot += run;
        moved += run;
        if (moved < move.live && ftl.write_slot == AFS_FTL_EU_PAGES) {
            if (commit_log_head(context) != AFS_RC_OK) {
                return AFS_RC_IO;
            }
            move_log_head(ftl, move.overflow_eu);
        }
    }
    return moved != 0 ? commit_log_head(context) : AFS_RC_OK;
}

uint32_t reclaim_log_eu(afs_context *context, uint32_t source, work_area &work) {
    afs_ftl_state &ftl = *context->ftl;
    const uint32_t target = ftl.spare_eu;
    const uint32_t next = find_oldest_eu(ftl, [&ftl, source](uint32_t eu, const afs_eu_info &row) {
        return row.va_base == 0 && row.free_pages != 0 && eu != ftl.write_eu && eu != source;
    });
    const uint32_t overflow_eu = next != AFS_FTL_NONE ? next : target;
    if (!erase_eu(eu_address(context, target))) {
        return AFS_RC_IO;
    }
    ftl.eu_table[target].dirty_pages = AFS_FTL_EU_PAGES;
    ftl.eu_table[target].free_pages = 1;
    if (log_head_is_full(ftl) || ftl.write_eu == source) {
        move_log_head(ftl, overflow_eu);
    }
    const log_move move = list_live_log_pages(ftl, source, overflow_eu);
    uint32_t status = move_live_log_pages(context, move, work);
    if (status == AFS_RC_OK) {
        status = hand_over(context, target, source);
    }
    if (status != AFS_RC_OK) {
        // The map may point to pages that were not written, and the head may be an EU that has no
        // header: what was written there would not outlast a mount.
        ftl.needs_mount = 1;
        return status;
    }
    return move.live == AFS_FTL_EU_PAGES ? AFS_RC_NOT_RECLAIMED : AFS_RC_OK;
}

// Makes good what a mount that rolled a reclaim forward left undone. Without it the next reclaim
// would leave a second uncommitted header behind, or one that names a spare of long ago.
uint32_t commit_rolled_forward_eu(afs_context *context) {
    afs_ftl_state &ftl = *context->ftl;
    if (ftl.uncommitted_eu == AFS_FTL_NONE) {
        return AFS_RC_OK;
    }
    const uint32_t status = verified_write_byte(
        eu_address(context, ftl.uncommitted_eu) + eu_state_offset, eu_state_committed);
    if (status == AFS_RC_OK) {
        ftl.uncommitted_eu = AFS_FTL_NONE;
    }
    return status;
}

// Lets the log or the allocator go on in an EU that has room.
uint32_t move_to_eu(afs_context *context, uint32_t eu) {
    afs_ftl_state &ftl = *context->ftl;
    if (ftl.eu_table[eu].va_base == 0) {
        move_log_head(ftl, eu);
        return AFS_RC_OK;
    }
    uint32_t first_chunk;
    if (!find_first_chunk(context, eu, first_chunk)) {
        return AFS_RC_IO;
    }
    ftl.reclaim_armed = 0;
    ftl.alloc_cursor = first_chunk;
    ftl.alloc_end = first_chunk + usable_slots(context, eu);
    return AFS_RC_OK;
}

// Zeros the slots of an EU that are neither live nor free; all of them if it is the spare.
uint32_t zero_dead_slots(const afs_context *context, uint32_t eu) {
    static constexpr uint8_t zeros[page_slot_size] = {};
    const uint32_t address = eu_address(context, eu);
    const bool is_spare = eu == context->ftl->spare_eu;
    uint32_t first_chunk = 0;
    uint8_t states[AFS_DATA_EU_PAGES] = {};
    if ((!is_spare && !find_first_chunk(context, eu, first_chunk)) ||
        SpiDrvRead(address + data_status_offset, sizeof states, states) != AFS_RC_OK) {
        return AFS_RC_IO;
    }
    for (uint32_t slot = 0; slot < AFS_DATA_EU_PAGES; ++slot) {
        const bool keep =
            !is_spare && (states[slot] == slot_free || chunk_is_live(context, first_chunk + slot));
        if (!keep &&
            SpiDrvWrite(address + data_slot_offset(slot), sizeof zeros, zeros) != AFS_RC_OK) {
            return AFS_RC_IO;
        }
    }
    return AFS_RC_OK;
}

bool reclaim_failed(uint32_t status) {
    return status != AFS_RC_OK && status != AFS_RC_NOT_RECLAIMED;
}

// reclaim_eu for a mounted store.
uint32_t reclaim(afs_context *context, const reclaim_choice &choice) {
    const afs_ftl_state &ftl = *context->ftl;
    const uint32_t eu = choice.eu;
    if (eu >= ftl.eu_count || eu == ftl.spare_eu) {
        return AFS_RC_NO_SPACE;
    }
    // A sequence that cannot grow comes only from a damaged header.
    if (ftl.needs_mount != 0 || ftl.sequence == UINT32_MAX) {
        return AFS_RC_IO;
    }
    if (choice.mode == AFS_FTL_MODE_MOVE) {
        return move_to_eu(context, eu);
    }
    const bool is_data = ftl.eu_table[eu].va_base != 0;
    if (is_data && context->chunk_map == nullptr) {
        return AFS_RC_BAD_STATE; // live and dead pages cannot be told apart
    }
    const std::unique_ptr<work_area> work(new (std::nothrow) work_area());
    if (work == nullptr) {
        return AFS_RC_NO_MEMORY;
    }
    if (const uint32_t status = commit_rolled_forward_eu(context); status != AFS_RC_OK) {
        return status;
    }
    return is_data ? reclaim_data_eu(context, eu, *work) : reclaim_log_eu(context, eu, *work);
}

} // namespace

uint32_t dolm::reclaim_on_demand(afs_context *context, uint32_t kind) {
    const reclaim_choice first = choose_on_demand(context, kind, wear_rule::on);
    if (const uint32_t status = reclaim(context, first); status != AFS_RC_NOT_RECLAIMED) {
        return status;
    }
    const reclaim_choice second = choose_on_demand(context, kind, wear_rule::off);
    if (second.mode == AFS_FTL_MODE_RECLAIM && context->ftl->eu_table[second.eu].dirty_pages == 0) {
        return AFS_RC_NO_SPACE;
    }
    return reclaim(context, second);
}

uint32_t reclaim_eu(afs_context *context, uint32_t eu, int32_t mode) {
    return ftl_is_mounted(context)
               ? reclaim(context, {.eu = eu, .mode = static_cast<uint32_t>(mode)})
               : AFS_RC_INVALID;
}

uint32_t reclaim_eu_wrapper(afs_context *context, uint32_t kind) {
    return ftl_is_mounted(context) ? reclaim_on_demand(context, kind) : AFS_RC_INVALID;
}

uint32_t reclaim_eu_write_eu_header(afs_context *context, uint32_t target_eu, uint32_t source_eu,
                                    uint32_t target_address, uint32_t source_address) {
    if (!ftl_is_mounted(context) || target_eu >= context->ftl->eu_count ||
        source_eu >= context->ftl->eu_count || target_address != eu_address(context, target_eu) ||
        source_address != eu_address(context, source_eu)) {
        return AFS_RC_INVALID;
    }
    return hand_over(context, target_eu, source_eu);
}

uint32_t ftl_copy_pages(afs_context *context, uint32_t source_address, uint32_t target_address,
                        uint32_t first_slot, uint32_t count, void *first_buffer,
                        void *second_buffer, uint32_t first_page) {
    if (!ftl_is_mounted(context) || first_buffer == nullptr || second_buffer == nullptr ||
        !is_eu_address(context, source_address) || !is_eu_address(context, target_address) ||
        count > max_run || first_slot > AFS_DATA_EU_PAGES - count) {
        return AFS_RC_INVALID;
    }
    return copy_data_pages(source_address, target_address, first_slot, count, first_page,
                           static_cast<uint8_t *>(first_buffer),
                           static_cast<uint8_t *>(second_buffer));
}

uint32_t afs_physical_ftl_idle_reclaim(afs_context *context) {
    if (!ftl_is_mounted(context)) {
        return AFS_RC_INVALID;
    }
    const reclaim_choice choice = choose_for_idle_time(context, wear_rule::on);
    return choice.eu != AFS_FTL_NONE ? reclaim(context, choice) : AFS_RC_OK;
}

uint32_t afs_physical_ftl_force_full_reclaim(afs_context *context) {
    if (!ftl_is_mounted(context)) {
        return AFS_RC_INVALID;
    }
    afs_ftl_state &ftl = *context->ftl;
    uint32_t eu = ftl.reclaim_cursor;
    while (eu < ftl.eu_count && (eu == ftl.spare_eu || ftl.eu_table[eu].va_base == 0)) {
        ++eu;
    }
    if (eu < ftl.eu_count) {
        const uint32_t status = reclaim(context, {.eu = eu, .mode = AFS_FTL_MODE_RECLAIM});
        if (reclaim_failed(status)) {
            return status;
        }
        ++eu;
    }
    ftl.reclaim_cursor = static_cast<uint8_t>(eu < ftl.eu_count ? eu : 0);
    return ftl.reclaim_cursor == 0 ? AFS_RC_OK : AFS_RC_AGAIN;
}

uint32_t afs_physical_ftl_force_dirty_erase(afs_context *context) {
    if (!ftl_is_mounted(context)) {
        return AFS_RC_INVALID;
    }
    const afs_ftl_state &ftl = *context->ftl;
    if (ftl.needs_mount != 0) {
        return AFS_RC_IO; // the spare may hold what counts after the next mount
    }
    for (uint32_t eu = 0; eu < ftl.eu_count; ++eu) {
        const bool is_log = ftl.eu_table[eu].va_base == 0 && eu != ftl.spare_eu;
        if (const uint32_t status = is_log ? AFS_RC_OK : zero_dead_slots(context, eu);
            status != AFS_RC_OK) {
            return status;
        }
    }
    return AFS_RC_OK;
}

uint32_t afs_physical_ftl_end_reserved_files_mode(afs_context *context) {
    if (!ftl_is_mounted(context)) {
        return AFS_RC_INVALID;
    }
    for (const uint32_t eu : {0u, 1u}) {
        if (context->ftl->spare_eu == eu) {
            continue;
        }
        const uint32_t status = reclaim(context, {.eu = eu, .mode = AFS_FTL_MODE_RECLAIM});
        if (reclaim_failed(status)) {
            return status;
        }
    }
    return AFS_RC_OK;
}
