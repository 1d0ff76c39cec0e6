#include "afs/ftl_access.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace dolm {

namespace {

// Chunks that the store can have. Before the file layer has set a count, only the EUs bound them.
uint32_t chunk_limit(const afs_context *context) {
    return context->chunk_map == nullptr && context->chunk_count == 0 ? UINT32_MAX
                                                                      : context->chunk_count;
}

uint32_t first_data_page(const afs_context *context) {
    return context->data_va_start / AFS_PAGE_SIZE;
}

// The EU whose data pages start at va_base. Consecutive calls mostly mean the same EU.
uint32_t find_data_eu(afs_ftl_state *ftl, uint32_t va_base) {
    if (va_base == 0) {
        return AFS_FTL_NONE;
    }
    if (ftl->last_data_eu < ftl->eu_count && ftl->eu_table[ftl->last_data_eu].va_base == va_base) {
        return ftl->last_data_eu;
    }
    for (uint8_t eu = 0; eu < ftl->eu_count; ++eu) {
        if (ftl->eu_table[eu].va_base == va_base) {
            ftl->last_data_eu = eu;
            return eu;
        }
    }
    return AFS_FTL_NONE;
}

} // namespace

bool ftl_has_tables(const afs_context *context) {
    return context != nullptr && context->ftl != nullptr && context->ftl->eu_table != nullptr &&
           context->ftl->page_map != nullptr;
}

bool ftl_is_mounted(const afs_context *context) {
    return context != nullptr && context->ftl != nullptr && context->ftl->eu_table != nullptr &&
           context->ftl->write_eu != AFS_FTL_NONE;
}

void release_ftl_state(afs_context *context) {
    if (context->ftl != nullptr) {
        std::free(context->ftl->eu_table);
        std::free(context->ftl->page_map);
        std::free(context->ftl);
        context->ftl = nullptr;
    }
}

bool find_data_place(const afs_context *context, uint32_t va, data_place &place) {
    if (va < context->data_va_start) {
        return false;
    }
    const uint32_t chunk = (va - context->data_va_start) / AFS_PAGE_SIZE;
    if (chunk >= chunk_limit(context)) {
        return false;
    }
    const uint32_t slot = chunk % AFS_DATA_EU_PAGES;
    const uint32_t eu = find_data_eu(context->ftl, first_data_page(context) + chunk - slot);
    place = {.eu = eu, .slot = slot, .chunk = chunk};
    return eu != AFS_FTL_NONE;
}

bool find_first_chunk(const afs_context *context, uint32_t eu, uint32_t &chunk) {
    const uint32_t va_base = context->ftl->eu_table[eu].va_base;
    if (va_base < first_data_page(context)) {
        return false;
    }
    chunk = va_base - first_data_page(context);
    return chunk % AFS_DATA_EU_PAGES == 0 && chunk < chunk_limit(context);
}

uint32_t usable_slots(const afs_context *context, uint32_t eu) {
    uint32_t first_chunk;
    return find_first_chunk(context, eu, first_chunk)
               ? std::min(AFS_DATA_EU_PAGES, chunk_limit(context) - first_chunk)
               : AFS_DATA_EU_PAGES;
}

bool erase_eu(uint32_t address) {
    return SpiDrvEraseBlock(address) == AFS_RC_OK &&
           SpiDrvEraseBlock(address + SPI_ERASE_BLOCK_SIZE) == AFS_RC_OK;
}

namespace {

// A page slot is compared by words: bytes that were just copied are only at hand for loads no wider
// than the stores.
bool same_slot(const uint8_t *a, const uint8_t *b) {
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

bool same_bytes(const uint8_t *a, const uint8_t *b, uint32_t length) {
    return length == page_slot_size ? same_slot(a, b) : std::memcmp(a, b, length) == 0;
}

} // namespace

uint32_t verified_write(uint32_t address, const void *data, uint32_t length, uint8_t *readback) {
    const auto *written = static_cast<const uint8_t *>(data);
    if (length != 0) {
        readback[0] =
            static_cast<uint8_t>(~written[0]); // what no read brings does not compare equal
    }
    if (SpiDrvWrite(address, length, data) != AFS_RC_OK) {
        return AFS_RC_IO;
    }
    for (int reads = 0; reads < max_reads; ++reads) {
        if (SpiDrvRead(address, length, readback) != AFS_RC_OK) {
            return AFS_RC_IO;
        }
        if (same_bytes(readback, written, length)) {
            return AFS_RC_OK;
        }
    }
    return AFS_RC_IO;
}

uint32_t verified_write(uint32_t address, const void *data, uint32_t length) {
    uint8_t readback[AFS_DATA_EU_PAGES];
    return verified_write(address, data, length, readback);
}

uint32_t verified_write_byte(uint32_t address, uint8_t value) {
    return verified_write(address, &value, 1);
}

} // namespace dolm
