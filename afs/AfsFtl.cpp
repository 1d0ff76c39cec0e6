// Mount and format of the flash translation layer.
#include "AfsFtl.h"

#include <algorithm>
#include <bitset>
#include <cstdlib>
#include <cstring>

#include "afs/ftl_access.h"
#include "afs/ftl_format.h"
#include "afs/log_map.h"

using namespace dolm;

namespace {

// Results of the scan of the EU headers that have no place in the tables.
struct header_scan {
    uint32_t spare = AFS_FTL_NONE;   // the EU without a valid header
    uint32_t pending = AFS_FTL_NONE; // the EU whose header is not committed
    uint16_t pending_next_spare = 0;
    uint16_t newest_next_spare = 0;       // of the committed header with the highest sequence
    uint16_t log_head_page = 0;           // last page of the log that goes on
    uint32_t unusable_log = AFS_FTL_NONE; // the newest EU whose log holds nothing and is closed
    bool repair_erase_count = false;
};

// No EU has this number, since a store has at most AFS_MAX_EU_COUNT.
constexpr uint16_t no_eu_found = AFS_MAX_EU_COUNT;

// EUs that the data area fills.
uint32_t data_eu_count(const afs_context *context) {
    return context->total_va_size > context->data_va_start
               ? (context->total_va_size - context->data_va_start) / AFS_DATA_EU_BYTES
               : 0;
}

uint32_t log_page_count(const afs_context *context) {
    return context->data_va_start / AFS_PAGE_SIZE;
}

// calloc that gives a pointer for no elements as well.
template <typename T>
T *allocate_cleared(size_t count) {
    return static_cast<T *>(std::calloc(std::max<size_t>(count, 1), sizeof(T)));
}

uint32_t allocate_state(afs_context *context) {
    release_ftl_state(context);
    auto *ftl = allocate_cleared<afs_ftl_state>(1);
    context->ftl = ftl;
    if (ftl == nullptr) {
        return AFS_RC_NO_MEMORY;
    }
    ftl->write_eu = AFS_FTL_NONE;
    ftl->page_count = log_page_count(context);
    ftl->eu_table = allocate_cleared<afs_eu_info>(AFS_MAX_EU_COUNT);
    ftl->page_map = allocate_cleared<afs_page_loc>(ftl->page_count);
    return ftl_has_tables(context) ? AFS_RC_OK : AFS_RC_NO_MEMORY;
}

void reset_state(afs_context *context, uint32_t device_size) {
    afs_ftl_state &ftl = *context->ftl;
    std::memset(ftl.page_map, 0xFF, ftl.page_count * sizeof(afs_page_loc));
    std::fill_n(ftl.eu_table, AFS_MAX_EU_COUNT, afs_eu_info{});
    ftl.eu_count = static_cast<uint8_t>(device_size / AFS_EU_SIZE);
    ftl.ftl_eu_count = static_cast<uint8_t>(ftl.eu_count - 1 - data_eu_count(context));
    ftl.sequence = ftl.eu_count - 1u; // of the newest header that a format leaves
    ftl.write_eu = AFS_FTL_NONE;
    ftl.write_slot = 0;
    ftl.alloc_cursor = 0;
    ftl.alloc_end = 0;
    ftl.uncommitted_eu = AFS_FTL_NONE;
    ftl.spare_eu = no_eu_found;
    ftl.last_page = 0;
    ftl.alloc_checks_flash = 0;
    ftl.reclaim_armed = 0;
    ftl.reclaim_cursor = 0;
    ftl.needs_mount = 0;
    std::fill(std::begin(ftl.data_eus), std::end(ftl.data_eus), uint8_t{0});
    ftl.head_closed = 0;
    ftl.chain_starts = 0;
    ftl.barren_ranges = 0;
}

void mark_blank_log(afs_eu_info &row) {
    row.dirty_pages = AFS_FTL_EU_PAGES;
    row.free_pages = 1;
}

// The file layer mounts once without a data area, to read the header that tells the real geometry.
bool has_data_area(const afs_context *context) {
    return context->total_va_size != context->data_va_start;
}

// Without the geometry nothing but page 0 is asked for.
bool is_in_doubt(const log_contents &log, log_pages pages) {
    return log.doubtful_slot != AFS_FTL_NONE &&
           (!pages.provisional || std::find(log.pages + log.doubtful_slot, std::end(log.pages),
                                            0) != std::end(log.pages));
}

// Whether an entry in doubt is chained to one that is missing: the slot then holds another page
// than it decodes to, one that some link leads to. The flash is only read if there is such a link.
uint32_t find_out_if_astray(uint32_t address, uint16_t entry, uint32_t page, uint32_t page_count,
                            bool &astray) {
    astray = false;
    uint8_t slot[page_slot_size] = {};
    bool is_read = false;
    for (uint32_t link = 0; link < page_count && !astray; ++link) {
        const uint32_t other = log_chain(static_cast<uint16_t>(link), entry);
        if (other == page || other >= page_count) {
            continue;
        }
        if (!is_read && SpiDrvRead(address, sizeof slot, slot) != AFS_RC_OK) {
            return AFS_RC_IO;
        }
        is_read = true;
        if (page_slot_is_good(slot, page)) {
            return AFS_RC_OK;
        }
        astray = page_slot_is_good(slot, other);
    }
    return AFS_RC_OK;
}

uint32_t read_log(const afs_context *context, uint32_t eu, log_contents &log) {
    uint8_t map[log_map_size] = {};
    if (SpiDrvRead(eu_address(context, eu) + log_map_offset, sizeof map, map) != AFS_RC_OK) {
        return AFS_RC_IO;
    }
    const log_pages pages = {.count = std::min(log_page_count(context), context->ftl->page_count),
                             .provisional = !has_data_area(context)};
    log = read_log_map(map, pages);
    if (!is_in_doubt(log, pages)) {
        return AFS_RC_OK;
    }
    const uint32_t doubtful = log.doubtful_slot;
    uint8_t *entry = map + doubtful * log_entry_size;
    bool astray;
    const uint32_t status =
        find_out_if_astray(eu_address(context, eu) + log_slot_offset(doubtful), load_le16(entry),
                           log.pages[doubtful], pages.count, astray);
    if (status == AFS_RC_OK && astray) {
        store_le16(entry, log_entry_erased); // like the entries before it that did not land
        log = read_log_map(map, pages);
    }
    return status;
}

// A committed log entry: page has a copy in a slot of eu. The copy in the EU of the higher sequence
// counts, within one sequence the later one; the other is dirty. Each slot is counted at most once,
// so that no count passes the slots of an EU, whatever the log says.
void claim_page(afs_ftl_state &ftl, uint32_t page, uint32_t eu, uint32_t slot) {
    afs_page_loc &copy = ftl.page_map[page];
    if (copy.slot != slot_none) {
        afs_eu_info &other = ftl.eu_table[copy.eu];
        if (other.sequence > ftl.eu_table[eu].sequence) {
            ++ftl.eu_table[eu].dirty_pages;
            return;
        }
        ++other.dirty_pages;
    }
    copy = {static_cast<uint8_t>(eu), static_cast<uint8_t>(slot)};
}

// Takes the pages of a log into the map; the other slots of the EU are dirty.
void take_pages(afs_ftl_state &ftl, uint32_t eu, const log_contents &log) {
    afs_eu_info &row = ftl.eu_table[eu];
    for (uint32_t slot = 0; slot < AFS_FTL_EU_PAGES; ++slot) {
        if (log.pages[slot] != no_page) {
            claim_page(ftl, log.pages[slot], eu, slot);
        }
    }
    row.dirty_pages = static_cast<uint8_t>(row.dirty_pages + log.slots - log.committed);
    ftl.last_page = log.last_page;
}

// The next page goes behind what this log holds.
void go_on_behind(afs_ftl_state &ftl, const log_contents &log) {
    if (log.next_slot != AFS_FTL_NONE) {
        ftl.write_slot = log.next_slot;
    }
    if (log.closed || log.next_slot != AFS_FTL_NONE) {
        ftl.head_closed = log.closed ? 1 : 0;
    }
}

// Whether an EU's header is at least as new as that of another one, which may be none.
bool is_as_new_as(const afs_ftl_state &ftl, uint32_t eu, uint32_t other) {
    return other == AFS_FTL_NONE || ftl.eu_table[other].sequence <= ftl.eu_table[eu].sequence;
}

// Takes in the log of an EU. The head of the log is the newest EU that it can go on in, or a
// pending one.
uint32_t take_log(afs_context *context, uint32_t eu, header_scan &scan) {
    afs_ftl_state &ftl = *context->ftl;
    log_contents log;
    if (const uint32_t status = read_log(context, eu, log); status != AFS_RC_OK) {
        return status;
    }
    if (log.blank) {
        mark_blank_log(ftl.eu_table[eu]);
        return AFS_RC_OK;
    }
    take_pages(ftl, eu, log);
    if (log.is_unusable()) {
        if (is_as_new_as(ftl, eu, scan.unusable_log)) {
            scan.unusable_log = eu;
        }
    } else if (eu == scan.pending || is_as_new_as(ftl, eu, ftl.write_eu)) {
        ftl.write_eu = eu;
        go_on_behind(ftl, log);
        scan.log_head_page = log.last_page;
    }
    return log.damaged ? AFS_RC_IO : AFS_RC_OK;
}

uint32_t take_committed_header(afs_context *context, uint32_t eu, const afs_eu_header &header,
                               header_scan &scan) {
    afs_ftl_state &ftl = *context->ftl;
    ftl.eu_table[eu].va_base = header.va_base;
    if (header.sequence >= ftl.sequence) {
        ftl.sequence = header.sequence;
        scan.newest_next_spare = header.next_spare;
    }
    return header.va_base != 0 ? AFS_RC_OK : take_log(context, eu, scan);
}

// Reads the header of an EU, sorts the EU by it, and takes in its log if it has one.
uint32_t scan_eu(afs_context *context, uint32_t eu, header_scan &scan) {
    uint8_t bytes[eu_header_size + log_entry_size] = {}; // the entry is looked at in the log map
    if (SpiDrvRead(eu_address(context, eu), sizeof bytes, bytes) != AFS_RC_OK) {
        return AFS_RC_IO;
    }
    const afs_eu_header header = load_eu_header(bytes);
    afs_eu_info &row = context->ftl->eu_table[eu];
    row.sequence = header.sequence;
    row.erase_count = header.erase_count;

    if (!eu_header_is_valid(bytes)) {
        if (scan.spare != AFS_FTL_NONE) {
            return AFS_RC_IO;
        }
        scan.spare = eu;
        scan.repair_erase_count = !spare_erase_count_is_good(bytes);
        context->ftl->spare_eu = static_cast<uint16_t>(eu);
        return AFS_RC_OK;
    }
    if (bytes[eu_state_offset] == eu_state_pending) {
        if (scan.pending != AFS_FTL_NONE) {
            return AFS_RC_IO;
        }
        scan.pending = eu;
        scan.pending_next_spare = header.next_spare;
        row.va_base = header.va_base;
        return AFS_RC_OK;
    }
    return take_committed_header(context, eu, header, scan);
}

// Of all headers but that of the spare. A pending header is the newest one, unless it is an old one
// whose state byte was damaged.
uint32_t highest_sequence(const afs_ftl_state &ftl) {
    uint32_t highest = 0;
    for (uint32_t eu = 0; eu < ftl.eu_count; ++eu) {
        highest = std::max(highest, eu == ftl.spare_eu ? 0 : ftl.eu_table[eu].sequence);
    }
    return highest;
}

// The reclaim was cut after its source had been given up: the pending EU stands in for it. Its
// header stays uncommitted on the flash for now, since a mount writes nothing.
uint32_t roll_forward(afs_context *context, header_scan &scan) {
    afs_ftl_state &ftl = *context->ftl;
    afs_eu_info &row = ftl.eu_table[scan.pending];
    ftl.uncommitted_eu = scan.pending;
    ftl.sequence = highest_sequence(ftl);
    if (row.va_base != 0) {
        return AFS_RC_OK;
    }
    const uint16_t newest_page = scan.log_head_page;
    if (const uint32_t status = take_log(context, scan.pending, scan); status != AFS_RC_OK) {
        return status;
    }
    if (ftl.write_eu != scan.pending) {
        ftl.last_page = newest_page;
    } else if (row.dirty_pages == AFS_FTL_EU_PAGES && ftl.last_page == 0) {
        // Its first write was cut, in a later session. The newest entry is still that of the log
        // before, but a page chained to it would be lost: each EU is read with a chain of its own.
        ftl.last_page = newest_page;
        ftl.chain_starts = 1;
    }
    return AFS_RC_OK;
}

uint32_t settle_interrupted_reclaim(afs_context *context, header_scan &scan) {
    if (scan.pending == AFS_FTL_NONE) {
        return scan.spare == scan.newest_next_spare ? AFS_RC_OK : AFS_RC_IO;
    }
    if (scan.spare == AFS_FTL_NONE) {
        // Cut before the source was given up: roll back, the pending EU is the spare again.
        context->ftl->eu_table[scan.pending].va_base = 0;
        context->ftl->spare_eu = static_cast<uint16_t>(scan.pending);
        return AFS_RC_OK;
    }
    if (scan.spare != scan.pending_next_spare) {
        return AFS_RC_IO;
    }
    return roll_forward(context, scan);
}

// With no log written yet the head is a blank EU. An unusable one is passed over as long as there
// is a blank one to go on in; then the next write has it reclaimed.
void settle_log_head(afs_ftl_state &ftl, const header_scan &scan) {
    const uint32_t blank = find_oldest_eu(ftl, [](uint32_t, const afs_eu_info &row) {
        return row.va_base == 0 && row.free_pages != 0;
    });
    if (scan.unusable_log != AFS_FTL_NONE && blank == AFS_FTL_NONE &&
        is_as_new_as(ftl, scan.unusable_log, ftl.write_eu)) {
        ftl.write_eu = scan.unusable_log;
        ftl.write_slot = 0;
        ftl.head_closed = 1;
        ftl.last_page = 0;
    } else if (ftl.write_eu == AFS_FTL_NONE) {
        ftl.write_eu = blank;
    }
}

// A lost erase count becomes the average of the others.
void repair_erase_count(afs_ftl_state &ftl, uint32_t spare) {
    uint64_t sum = 0;
    for (uint32_t eu = 0; eu < ftl.eu_count; ++eu) {
        sum += eu == spare ? 0 : ftl.eu_table[eu].erase_count;
    }
    ftl.eu_table[spare].erase_count = static_cast<uint32_t>(sum / (ftl.eu_count - 1u));
}

// Every data EU starts where a data EU can, and no two at the same place. Only asked where the
// geometry has a data area.
bool data_eus_fit(const afs_context *context) {
    std::bitset<UINT16_MAX / AFS_DATA_EU_PAGES + 1> taken;
    for (uint32_t eu = 0; eu < context->ftl->eu_count; ++eu) {
        if (context->ftl->eu_table[eu].va_base == 0) {
            continue;
        }
        uint32_t first_chunk;
        if (!find_first_chunk(context, eu, first_chunk) || taken[first_chunk / AFS_DATA_EU_PAGES]) {
            return false;
        }
        taken.set(first_chunk / AFS_DATA_EU_PAGES);
    }
    return true;
}

uint32_t scan_flash(afs_context *context) {
    afs_ftl_state &ftl = *context->ftl;
    header_scan scan;
    for (uint32_t eu = 0; eu < ftl.eu_count; ++eu) {
        if (const uint32_t status = scan_eu(context, eu, scan); status != AFS_RC_OK) {
            return status;
        }
    }
    ftl.last_page = scan.log_head_page;
    if (const uint32_t status = settle_interrupted_reclaim(context, scan); status != AFS_RC_OK) {
        return status;
    }
    settle_log_head(ftl, scan);
    if (ftl.write_eu == AFS_FTL_NONE) {
        return AFS_RC_IO;
    }
    if (scan.repair_erase_count) {
        repair_erase_count(ftl, scan.spare);
    }
    return has_data_area(context) && !data_eus_fit(context) ? AFS_RC_IO : AFS_RC_OK;
}

// A fresh store has its log EUs first, then the data EUs in VA order, then the spare. The counts of
// the last mount place the data EUs, even if the caller has changed the geometry since.
uint16_t va_base_in_fresh_store(const afs_context *context, uint32_t eu) {
    const afs_ftl_state &ftl = *context->ftl;
    const uint32_t first_data_eu = context->device_size / AFS_EU_SIZE - 1 - data_eu_count(context);
    if (eu < first_data_eu || eu + 1 >= ftl.eu_count) {
        return 0;
    }
    const uint32_t va = (eu - ftl.ftl_eu_count) * AFS_DATA_EU_BYTES + context->data_va_start;
    return static_cast<uint16_t>(va / AFS_PAGE_SIZE);
}

} // namespace

uint32_t ftl_process_pages(afs_context *context, uint32_t eu, uint8_t current) {
    if (!ftl_has_tables(context) || eu >= context->ftl->eu_count) {
        return AFS_RC_INVALID;
    }
    afs_ftl_state &ftl = *context->ftl;
    log_contents log;
    if (const uint32_t status = read_log(context, eu, log); status != AFS_RC_OK) {
        return status;
    }
    take_pages(ftl, eu, log);
    if (current != 0) {
        go_on_behind(ftl, log);
    }
    return log.damaged ? AFS_RC_IO : AFS_RC_OK;
}

uint32_t afs_physical_ftl_init(afs_context *context, uint32_t device_size, uint32_t flags) {
    if (context == nullptr) {
        return AFS_RC_INVALID;
    }
    if ((flags & AFS_FTL_ALLOCATE_TABLES) != 0) {
        if (const uint32_t status = allocate_state(context); status != AFS_RC_OK) {
            return status;
        }
    }
    if (!ftl_has_tables(context) || log_page_count(context) > context->ftl->page_count) {
        return AFS_RC_INVALID;
    }
    reset_state(context, device_size);
    if ((flags & AFS_FLAG_ATTACH_DEVICE) != 0) {
        SpiFlashDrvInitialize(context->image);
    }
    const uint32_t status = context->ftl->eu_count == 0 ? AFS_RC_IO : scan_flash(context);
    if (status != AFS_RC_OK) {
        context->ftl->write_eu = AFS_FTL_NONE;
    }
    return status;
}

uint32_t afs_physical_ftl_format(afs_context *context, uint8_t erase_first) {
    if (context == nullptr) {
        return AFS_RC_INVALID;
    }
    const uint32_t eu_count = context->device_size / AFS_EU_SIZE;
    if (eu_count == 0) {
        return AFS_RC_OK;
    }
    if (!ftl_has_tables(context)) {
        return AFS_RC_INVALID;
    }
    if (data_eu_count(context) >= eu_count) {
        return AFS_RC_IO;
    }
    for (uint32_t eu = 0; eu < eu_count; ++eu) {
        const uint32_t address = eu_address(context, eu);
        if (erase_first != 0 && !erase_eu(address)) {
            return AFS_RC_IO;
        }
        uint8_t bytes[eu_header_written_size];
        store_eu_header(bytes, {.magic = eu_magic,
                                .sequence = eu + 1,
                                .erase_count = 1,
                                .next_spare = static_cast<uint16_t>(eu + 1),
                                .va_base = va_base_in_fresh_store(context, eu)});
        if (eu + 1 == eu_count) {
            // The spare: no valid header, but an erase count that can be believed.
            store_le32(bytes + eu_magic_offset, 0);
        }
        if (verified_write(address, bytes) != AFS_RC_OK ||
            verified_write_byte(address + eu_state_offset, eu_state_committed) != AFS_RC_OK) {
            return AFS_RC_IO;
        }
    }
    return AFS_RC_OK;
}
