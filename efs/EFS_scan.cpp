// The scan of the data blocks, which runs before the first change after a mount: erase counts, the
// state of every spare, and the repair of the one spare that power loss may have caught in an
// erase.
#include "efs/efs_internal.h"

namespace {

using namespace dolm::efs;
using dolm::load_le32;

// The spares without a good header, and one of them.
struct bad_spares {
    uint32_t count = 0;
    uint32_t block = 0;
    uint32_t slot = 0;
};

uint32_t erase_count_in_page_buffer() {
    return load_le32(efs_ctx.page_buffer + block_header::erase_count);
}

uint32_t scan_valid_blocks() {
    for (uint32_t i = 0; i < g_efs_valid_block_num; ++i) {
        const uint32_t block = efs_ctx.current_bme.valid_map[i];
        const uint32_t status = read_block_header(block);
        // No interruption leaves a valid block without a header, so this one is damaged.
        if (status != EFS_OK) {
            return status;
        }
        efs_ctx.erase_counts[block] = erase_count_in_page_buffer();
    }
    return EFS_OK;
}

uint32_t scan_non_valid_blocks(bad_spares &bad) {
    for (uint32_t slot = 0; slot < g_efs_non_valid_block_num; ++slot) {
        const uint32_t block = efs_ctx.current_bme.non_valid_map[slot];
        const uint32_t status = read_spare(block);
        if (status == EFS_BAD_DATA) {
            efs_ctx.block_status[slot] = EFS_BLOCK_DIRTY;
            efs_ctx.erase_counts[block] = 0;
            bad = {.count = bad.count + 1, .block = block, .slot = slot};
            continue;
        }
        if (status != EFS_OK) {
            return status;
        }
        const bool free = is_erased(efs_ctx.page_buffer + data_area, data_area_size + footer_size);
        efs_ctx.block_status[slot] = free ? EFS_BLOCK_FREE : EFS_BLOCK_DIRTY;
        efs_ctx.free_block_count += free ? 1 : 0;
        efs_ctx.erase_counts[block] = erase_count_in_page_buffer();
    }
    return EFS_OK;
}

// The block's own count is lost: it gets the mean of the others.
uint32_t repair(const bad_spares &bad) {
    uint32_t sum = 0;
    for (uint32_t block = 0; block < data_block_num(); ++block) {
        sum += block == bad.block ? 0 : efs_ctx.erase_counts[block];
    }
    // NOLINTNEXTLINE(clang-analyzer-core.DivideZero): no geometry has less than two blocks
    const uint32_t mean = sum / (data_block_num() - 1);
    efs_ctx.erase_counts[bad.block] = mean;
    if (const uint32_t status = erase_data_block(bad.block, mean - 1); status != EFS_OK) {
        return status;
    }
    efs_ctx.block_status[bad.slot] = EFS_BLOCK_FREE;
    ++efs_ctx.free_block_count;
    return EFS_OK;
}

} // namespace

uint32_t dolm::efs::scan_data_blocks() {
    efs_ctx.free_block_count = 0;
    if (const uint32_t status = scan_valid_blocks(); status != EFS_OK) {
        return status;
    }
    bad_spares bad;
    if (const uint32_t status = scan_non_valid_blocks(bad); status != EFS_OK) {
        return status;
    }
    if (bad.count > 1) {
        return EFS_BAD_DATA; // only one erase runs at a time
    }
    if (bad.count == 1) {
        if (const uint32_t status = repair(bad); status != EFS_OK) {
            return status;
        }
    }
    efs_ctx.scan_done = 1;
    return EFS_OK;
}

uint32_t EFS_scan_for_Data_Blocks_status_and_EC() {
    return is_mounted() ? scan_data_blocks() : EFS_NOT_MOUNTED;
}
