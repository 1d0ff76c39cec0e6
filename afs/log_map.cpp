#include "afs/log_map.h"

#include <algorithm>
#include <iterator>

namespace dolm {

namespace {

uint16_t entry_at(const uint8_t *map, uint32_t slot) {
    return load_le16(map + slot * log_entry_size);
}

bool is_erased_from(const uint8_t *map, uint32_t entry) {
    return std::all_of(map + entry * log_entry_size, map + log_map_size,
                       [](uint8_t byte) { return byte == 0xFF; });
}

bool is_committed(const uint8_t *map, uint32_t slot) {
    return (entry_at(map, slot + 1) & log_entry_open_bit) == 0;
}

// The log ends before this slot, and what stands behind it would commit what is written there.
void close_log(log_contents &log, uint32_t slot) {
    log.next_slot = slot;
    log.closed = true;
}

log_contents log_without_pages(bool blank) {
    log_contents log = {.pages = {},
                        .committed = 0,
                        .slots = AFS_FTL_EU_PAGES,
                        .last_page = 0,
                        .next_slot = AFS_FTL_NONE,
                        .doubtful_slot = AFS_FTL_NONE,
                        .closed = false,
                        .blank = blank,
                        .damaged = false};
    std::fill(std::begin(log.pages), std::end(log.pages), no_page);
    return log;
}

} // namespace

log_contents read_log_map(const uint8_t *map, log_pages pages) {
    log_contents log = log_without_pages(is_erased_from(map, 0));
    if (entry_at(map, 0) == log_entry_erased) {
        if (!log.blank) {
            close_log(log, 0);
        }
        return log;
    }
    bool behind_cut = false; // directly behind two slots that were given up
    for (uint32_t slot = 0; slot < AFS_FTL_EU_PAGES; ++slot) {
        const uint16_t entry = entry_at(map, slot);
        if (!is_committed(map, slot)) {
            behind_cut = entry != log_entry_erased;
            if (behind_cut) {
                // The write of this slot was cut. The next slot is given up as well, since its
                // entry may hold a part of the commit byte.
                slot = std::min(slot + 1, AFS_FTL_EU_PAGES - 1);
                log.next_slot = slot + 1;
                log.closed = false;
            }
            continue;
        }
        const uint16_t page = log_chain(log.last_page, entry);
        const bool is_page_entry = (entry & ~log_page_entry_bits) == 0;
        if (!is_page_entry || (page >= pages.count && behind_cut)) {
            close_log(log, slot);
            return log;
        }
        if (slot == log.next_slot) {
            log.doubtful_slot = slot;
        }
        log.last_page = page;
        if (page >= pages.count) {
            log.slots = slot;
            log.damaged = true;
            return log;
        }
        log.pages[slot] = page;
        ++log.committed;
        behind_cut = behind_cut && pages.provisional;
        if (entry_at(map, slot + 1) == log_entry_commit_mark) {
            log.next_slot = slot + 1;
            log.doubtful_slot = AFS_FTL_NONE;
            log.closed = !is_erased_from(map, slot + 2);
            return log;
        }
        log.closed = true; // until the end of the log shows
    }
    return log;
}

} // namespace dolm
