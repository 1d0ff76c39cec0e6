#include "afs/ftl_access.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace dolm {

uint32_t search_data_eu(afs_ftl_state *ftl, uint32_t va_base) {
    for (uint8_t eu = 0; eu < ftl->eu_count; ++eu) {
        if (ftl->eu_table[eu].va_base == va_base) {
            return eu;
        }
    }
    return AFS_FTL_NONE;
}

bool ftl_has_tables(const afs_context *context) {
    return context != nullptr && context->ftl != nullptr && context->ftl->eu_table != nullptr &&
           context->ftl->page_map != nullptr;
}

void release_ftl_state(afs_context *context) {
    if (context->ftl != nullptr) {
        std::free(context->ftl->eu_table);
        std::free(context->ftl->page_map);
        std::free(context->ftl);
        context->ftl = nullptr;
    }
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

uint32_t verified_write(uint32_t address, const uint8_t *data, uint32_t length, uint8_t *readback) {
    return write_until(
        address, data, length, readback,
        [length](const uint8_t *a, const uint8_t *b) { return std::memcmp(a, b, length) == 0; });
}

} // namespace dolm
