// Reads the log map of a log EU: which pages stand in its slots, and where the log goes on.
#pragma once

#include <cstdint>

#include "afs/ftl_format.h"

namespace dolm {

// Stands for "no copy of a page" in a list by slots.
inline constexpr uint16_t no_page = 0xFFFF;

struct log_contents {
    uint16_t pages[AFS_FTL_EU_PAGES]; // page whose copy is committed in each slot, or no_page
    uint32_t committed;               // slots that have one
    uint32_t slots;                   // read: all, or those before a damaged entry
    uint16_t last_page;               // of the last entry read; 0 if there is none
    uint32_t next_slot;               // where the log goes on, or AFS_FTL_NONE if no end shows
    uint32_t doubtful_slot;           // the first one behind a gap that no commit mark follows: its
                                      // run may have landed without its first entry, so that it
                                      // decodes to a wrong page. AFS_FTL_NONE if there is none
    bool closed;                      // the EU takes no more pages, whatever next_slot says
    bool blank;                       // nothing was ever written
    bool damaged;                     // an entry leads to a page that the store does not have

    // A run of entries that landed without its first ones: it commits nothing and is in the way.
    bool is_unusable() const { return closed && committed == 0; }
};

// Up to where page numbers are good, and what one past it means.
struct log_pages {
    uint32_t count;
    // The count is only an upper bound. An entry that leads astray then need not decode past it at
    // once, but the entries chained to it do soon.
    bool provisional;
};

// Reads the log_map_size bytes of a log map.
log_contents read_log_map(const uint8_t *map, log_pages pages);

} // namespace dolm
