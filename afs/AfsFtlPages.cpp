// Reading, writing and trimming pages of the VA space, and the allocator of data pages.
#include <algorithm>
#include <cstring>

#include "AfsFtl.h"
#include "afs/ftl_access.h"
#include "afs/ftl_format.h"

using namespace dolm;

namespace {

// A page without a copy.
uint32_t clear_page(void *buffer) {
    std::memset(buffer, 0, AFS_PAGE_SIZE);
    return AFS_RC_OK;
}

uint32_t read_page_at(uint32_t address, uint32_t page, void *buffer) {
    uint8_t slot[page_slot_size] = {};
    const uint32_t status = read_page_slots(
        address, 1, [page](uint32_t) { return page; }, slot);
    if (status == AFS_RC_OK) {
        std::memcpy(buffer, slot, AFS_PAGE_SIZE);
    }
    return status;
}

uint32_t read_log_page(const afs_context *context, uint32_t page, void *buffer) {
    const afs_page_loc *copy = find_log_page(context, page);
    if (copy == nullptr) {
        return AFS_RC_IO;
    }
    return copy->slot == slot_none
               ? clear_page(buffer)
               : read_page_at(eu_address(context, copy->eu) + log_slot_offset(copy->slot), page,
                              buffer);
}

uint32_t read_data_page(const afs_context *context, uint32_t va, void *buffer) {
    data_place place;
    if (!find_data_place(context, va, place)) {
        return AFS_RC_IO;
    }
    return !chunk_is_live(context, place.chunk)
               ? clear_page(buffer)
               : read_page_at(eu_address(context, place.eu) + data_slot_offset(place.slot),
                              va / AFS_PAGE_SIZE, buffer);
}

struct page_slot {
    uint8_t bytes[page_slot_size];
};

page_slot make_page_slot(const void *data, uint32_t page) {
    page_slot slot;
    std::memcpy(slot.bytes, data, AFS_PAGE_SIZE);
    store_le16(slot.bytes + page_crc_offset, page_crc(slot.bytes, page));
    return slot;
}

// Appends a page to the log. The entry comes first, then the page, and the byte that commits both
// last, so that a cut before it leaves the old copy standing.
uint32_t write_log_page(afs_context *context, uint32_t page, const void *data) {
    afs_ftl_state &ftl = *context->ftl;
    afs_page_loc *copy = find_log_page(context, page);
    if (copy == nullptr) {
        return AFS_RC_IO;
    }
    if (log_head_is_full(ftl)) {
        if (const uint32_t status = reclaim_on_demand(context, AFS_FTL_KIND_LOG);
            status != AFS_RC_OK) {
            return status;
        }
    }
    afs_eu_info &head = ftl.eu_table[ftl.write_eu];
    const uint32_t address = eu_address(context, ftl.write_eu);
    const uint32_t slot = ftl.write_slot;
    uint8_t entry[log_entry_size];
    store_le16(entry, log_chain(log_link(ftl), page));
    const page_slot record = make_page_slot(data, page);

    head.free_pages = 0;
    if (verified_write(address + log_entry_offset(slot), entry) != AFS_RC_OK ||
        verified_write_slot(address + log_slot_offset(slot), record.bytes) != AFS_RC_OK ||
        verified_write_byte(address + log_commit_offset(slot + 1), log_commit_byte) != AFS_RC_OK) {
        return AFS_RC_IO;
    }
    if (copy->slot != slot_none) {
        ++ftl.eu_table[copy->eu].dirty_pages;
    }
    *copy = {static_cast<uint8_t>(ftl.write_eu), static_cast<uint8_t>(slot)};
    ++ftl.write_slot;
    set_log_link(ftl, page);
    --head.dirty_pages;
    return AFS_RC_OK;
}

// Writes a data page into its slot, which must be erased: a status byte opens and closes it.
uint32_t write_data_page(afs_context *context, uint32_t va, const void *data) {
    data_place place;
    if (!find_data_place(context, va, place)) {
        return AFS_RC_IO;
    }
    const uint32_t address = eu_address(context, place.eu);
    const uint32_t status_address = address + data_status_offset + place.slot;
    uint8_t state = slot_complete;
    if (SpiDrvRead(status_address, 1, &state) != AFS_RC_OK || state != slot_free) {
        return AFS_RC_IO;
    }
    const page_slot record = make_page_slot(data, va / AFS_PAGE_SIZE);
    afs_eu_info &row = context->ftl->eu_table[place.eu];

    // The slot is used up even if opening it fails: a count too high would have the allocator look
    // for a free slot that is not there, again and again.
    row.free_pages = static_cast<uint8_t>(row.free_pages - (row.free_pages != 0 ? 1 : 0));
    if (verified_write_byte(status_address, slot_being_written) != AFS_RC_OK ||
        verified_write_slot(address + data_slot_offset(place.slot), record.bytes) != AFS_RC_OK ||
        verified_write_byte(status_address, slot_complete) != AFS_RC_OK) {
        return AFS_RC_IO;
    }
    if (context->chunk_map != nullptr) {
        context->chunk_map[place.chunk / 32] |= 1u << (place.chunk % 32);
    }
    row.dirty_pages = static_cast<uint8_t>(row.dirty_pages - (row.dirty_pages != 0 ? 1 : 0));
    return AFS_RC_OK;
}

void trim_log_page(afs_context *context, uint32_t page) {
    afs_page_loc *copy = find_log_page(context, page);
    if (copy != nullptr && copy->slot != slot_none) {
        ++context->ftl->eu_table[copy->eu].dirty_pages;
        *copy = {0xFF, slot_none};
    }
}

void trim_data_page(afs_context *context, uint32_t chunk) {
    afs_ftl_state &ftl = *context->ftl;
    if (chunk / AFS_DATA_EU_PAGES == ftl.alloc_cursor / AFS_DATA_EU_PAGES) {
        ftl.alloc_checks_flash = 1;
    }
    if (context->chunk_map != nullptr && chunk_is_live(context, chunk)) {
        context->chunk_map[chunk / 32] &= ~(1u << (chunk % 32));
        if (const uint32_t eu = find_data_eu(context, chunk); eu != AFS_FTL_NONE) {
            ++ftl.eu_table[eu].dirty_pages;
        }
    }
}

uint32_t count_data_eus(const afs_ftl_state &ftl) {
    return static_cast<uint32_t>(
        std::count_if(ftl.eu_table, ftl.eu_table + ftl.eu_count,
                      [](const afs_eu_info &row) { return row.va_base != 0; }));
}

// The allocator has walked through all of its range and handed out nothing, as happens where an
// erase was only reported: the EU has no free slots, whatever its row says.
uint32_t leave_barren_range(afs_context *context) {
    afs_ftl_state &ftl = *context->ftl;
    data_place place;
    if (find_data_place(context, context->data_va_start + (ftl.alloc_end - 1) * AFS_PAGE_SIZE,
                        place)) {
        ftl.eu_table[place.eu].free_pages = 0;
    }
    if (ftl.barren_ranges < count_data_eus(ftl)) {
        return AFS_RC_OK;
    }
    ftl.barren_ranges = 0;
    return AFS_RC_NO_SPACE;
}

// Asks the caller to flush the cache at first, and reclaims a data EU the second time: what is
// still in the cache has a clear chunk bit and would be taken for dead. Gives up after a range for
// each data EU without a chunk in any of them.
uint32_t renew_allocation_range(afs_context *context) {
    afs_ftl_state &ftl = *context->ftl;
    if (ftl.barren_ranges != 0 && leave_barren_range(context) != AFS_RC_OK) {
        return AFS_RC_NO_SPACE;
    }
    if (ftl.reclaim_armed == 0) {
        ftl.reclaim_armed = 1;
        return AFS_RC_FLUSH_FIRST;
    }
    const uint32_t status = reclaim_on_demand(context, AFS_FTL_KIND_DATA);
    ftl.barren_ranges = static_cast<uint8_t>(ftl.barren_ranges + (status == AFS_RC_OK ? 1 : 0));
    return status;
}

// Whether a chunk can be handed out. A clear bit alone may be a dead page that is still in its
// slot.
uint32_t check_chunk_is_free(afs_context *context, uint32_t chunk, bool &is_free) {
    is_free = !chunk_is_live(context, chunk);
    if (!is_free || context->ftl->alloc_checks_flash == 0) {
        return AFS_RC_OK;
    }
    data_place place;
    uint8_t state = slot_complete;
    if (!find_data_place(context, context->data_va_start + chunk * AFS_PAGE_SIZE, place) ||
        SpiDrvRead(eu_address(context, place.eu) + data_status_offset + place.slot, 1, &state) !=
            AFS_RC_OK) {
        return AFS_RC_IO;
    }
    is_free = state == slot_free;
    return AFS_RC_OK;
}

// Counts one data EU, and places the allocator on it if it has erased slots and is newer than any
// before.
uint32_t count_data_eu(afs_context *context, uint32_t eu, uint32_t &newest_with_room) {
    afs_ftl_state &ftl = *context->ftl;
    afs_eu_info &row = ftl.eu_table[eu];
    uint32_t first_chunk;
    uint8_t states[AFS_DATA_EU_PAGES] = {};
    if (!find_first_chunk(context, eu, first_chunk) ||
        SpiDrvRead(eu_address(context, eu) + data_status_offset, sizeof states, states) !=
            AFS_RC_OK) {
        return AFS_RC_IO;
    }
    const uint32_t slots = usable_slots(context, eu);
    if (std::all_of(states, states + slots, [](uint8_t s) { return s == slot_complete; })) {
        // As nearly all EUs are.
        row.dirty_pages = static_cast<uint8_t>(
            slots - count_live_chunks(context, first_chunk, first_chunk + slots));
        row.free_pages = 0;
        return AFS_RC_OK;
    }
    uint32_t first_free = AFS_FTL_NONE;
    row.dirty_pages = static_cast<uint8_t>(slots);
    row.free_pages = 0;
    for (uint32_t slot = 0; slot < slots; ++slot) {
        if (chunk_is_live(context, first_chunk + slot)) {
            if (states[slot] != slot_complete) {
                return AFS_RC_IO;
            }
            --row.dirty_pages;
        } else if (states[slot] == slot_free) {
            ++row.free_pages;
            first_free = first_free == AFS_FTL_NONE ? slot : first_free;
        }
    }
    if (row.free_pages != 0 && row.sequence > newest_with_room) {
        newest_with_room = row.sequence;
        ftl.alloc_cursor = first_chunk + first_free;
        ftl.alloc_end = first_chunk + slots;
    }
    return AFS_RC_OK;
}

// Reads consecutive slots of a data EU and leaves their pages side by side.
uint32_t read_data_slots(const afs_context *context, uint32_t eu, uint32_t first_slot,
                         uint32_t count, uint32_t first_page, uint8_t *bytes) {
    if (count > AFS_DATA_EU_PAGES - first_slot) {
        return AFS_RC_IO;
    }
    const uint32_t status = read_page_slots(
        eu_address(context, eu) + data_slot_offset(first_slot), count,
        [first_page](uint32_t i) { return first_page + i; }, bytes);
    for (uint32_t i = 1; status == AFS_RC_OK && i < count; ++i) {
        std::memmove(bytes + i * AFS_PAGE_SIZE, bytes + i * page_slot_size, AFS_PAGE_SIZE);
    }
    return status;
}

} // namespace

uint32_t afs_physical_ftl_read_page(afs_context *context, uint32_t va, uint32_t /*length*/,
                                    void *buffer, uint32_t /*device_offset*/) {
    if (!ftl_is_mounted(context) || buffer == nullptr) {
        return AFS_RC_INVALID;
    }
    return va < context->data_va_start ? read_log_page(context, va / AFS_PAGE_SIZE, buffer)
                                       : read_data_page(context, va, buffer);
}

uint32_t afs_physical_ftl_write_page(afs_context *context, uint32_t va, uint32_t /*length*/,
                                     const void *data, uint32_t /*device_offset*/) {
    if (!ftl_is_mounted(context) || data == nullptr) {
        return AFS_RC_INVALID;
    }
    if (context->ftl->needs_mount != 0) {
        return AFS_RC_IO;
    }
    return va < context->data_va_start ? write_log_page(context, va / AFS_PAGE_SIZE, data)
                                       : write_data_page(context, va, data);
}

uint32_t afs_physical_ftl_trim_page(afs_context *context, uint32_t va, uint32_t /*length*/,
                                    uint32_t /*device_offset*/) {
    if (!ftl_is_mounted(context)) {
        return AFS_RC_INVALID;
    }
    if (va < context->data_va_start) {
        trim_log_page(context, va / AFS_PAGE_SIZE);
    } else {
        trim_data_page(context, (va - context->data_va_start) / AFS_PAGE_SIZE);
    }
    return AFS_RC_OK;
}

uint32_t read_ftl_data_pages(afs_context *context, uint32_t eu, uint32_t first_slot, uint32_t count,
                             uint32_t first_page, void *buffer) {
    if (!ftl_is_mounted(context) || buffer == nullptr) {
        return AFS_RC_INVALID;
    }
    if (eu >= context->ftl->eu_count || first_slot > AFS_DATA_EU_PAGES) {
        return AFS_RC_IO;
    }
    return read_data_slots(context, eu, first_slot, count, first_page,
                           static_cast<uint8_t *>(buffer));
}

uint32_t afs_physical_ftl_read_data_pages(afs_context *context, void *buffer, uint32_t va,
                                          uint32_t count) {
    if (!ftl_is_mounted(context) || buffer == nullptr) {
        return AFS_RC_INVALID;
    }
    data_place place;
    if (!find_data_place(context, va, place)) {
        return AFS_RC_IO;
    }
    if (!chunk_is_live(context, place.chunk)) {
        std::memset(buffer, 0, size_t{count} * AFS_PAGE_SIZE);
        return AFS_RC_OK;
    }
    const uint32_t page = va / AFS_PAGE_SIZE;
    const uint32_t slots_left = AFS_DATA_EU_PAGES - place.slot;
    auto *const bytes = static_cast<uint8_t *>(buffer);
    if (count <= slots_left) {
        return read_data_slots(context, place.eu, place.slot, count, page, bytes);
    }
    if (const uint32_t status =
            read_data_slots(context, place.eu, place.slot, slots_left, page, bytes);
        status != AFS_RC_OK) {
        return status;
    }
    if (!find_data_place(context, va + slots_left * AFS_PAGE_SIZE, place)) {
        return AFS_RC_IO;
    }
    return read_data_slots(context, place.eu, 0, count - slots_left, page + slots_left,
                           bytes + slots_left * AFS_PAGE_SIZE);
}

uint32_t afs_physical_ftl_allocate_page(afs_context *context, uint16_t *cid) {
    if (!ftl_is_mounted(context) || cid == nullptr) {
        return AFS_RC_INVALID;
    }
    if (context->chunk_map == nullptr) {
        return context->chunk_count == 0 ? AFS_RC_NO_SPACE : AFS_RC_BAD_STATE;
    }
    afs_ftl_state &ftl = *context->ftl;
    if (ftl.alloc_cursor == AFS_FTL_NONE) {
        if (const uint32_t status = renew_allocation_range(context); status != AFS_RC_OK) {
            return status;
        }
    }
    for (uint32_t tries = 0; tries < context->chunk_count; ++tries) {
        if (ftl.alloc_cursor == ftl.alloc_end) {
            if (const uint32_t status = renew_allocation_range(context); status != AFS_RC_OK) {
                return status;
            }
        }
        bool is_free;
        if (const uint32_t status = check_chunk_is_free(context, ftl.alloc_cursor, is_free);
            status != AFS_RC_OK) {
            return status;
        }
        const uint32_t chunk = ftl.alloc_cursor++;
        if (is_free) {
            ftl.barren_ranges = 0;
            *cid = static_cast<uint16_t>(context->file_count + chunk);
            return AFS_RC_OK;
        }
    }
    return AFS_RC_NO_SPACE;
}

uint32_t afs_physical_ftl_set_allocation_map(afs_context *context) {
    if (!ftl_is_mounted(context)) {
        return AFS_RC_INVALID;
    }
    if (context->chunk_map == nullptr) {
        return AFS_RC_BAD_STATE;
    }
    afs_ftl_state &ftl = *context->ftl;
    ftl.reclaim_armed = 0;
    ftl.barren_ranges = 0;
    ftl.alloc_cursor = AFS_FTL_NONE;
    uint32_t newest_with_room = 0;
    for (uint32_t eu = 0; eu < ftl.eu_count; ++eu) {
        if (ftl.eu_table[eu].va_base == 0) {
            continue;
        }
        if (const uint32_t status = count_data_eu(context, eu, newest_with_room);
            status != AFS_RC_OK) {
            return status;
        }
    }
    ftl.alloc_checks_flash = 1;
    return AFS_RC_OK;
}

uint32_t afs_physical_ftl_get_data_vas(afs_context *context, uint32_t /*metadata_size*/) {
    if (context == nullptr) {
        return 0;
    }
    // One EU is the spare, and one in twelve, at least one, carries the log.
    const uint32_t eus = context->device_size / AFS_EU_SIZE;
    const uint32_t log_eus = eus < 12 ? 1 : eus / 12;
    return eus <= 1 + log_eus ? 0 : (eus - 1 - log_eus) * AFS_DATA_EU_BYTES;
}
