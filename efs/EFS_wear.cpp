// Wear levelling, the erase of dirty spares, and the idle step that does both ahead of time.
#include "efs/efs_internal.h"

namespace {

using namespace dolm::efs;

// Once the last entry of the BM in force ends beyond this offset, the next BM is made ready.
constexpr uint32_t fill_mark = 2856;

// A block of the mapping in force.
struct worn_block {
    uint32_t index; // its place in the valid or the non-valid map
    uint8_t block;
    uint32_t erase_count;
};

// The least worn valid block; the later one on equal counts.
worn_block coldest_valid_block() {
    worn_block coldest{.index = 0, .block = 0, .erase_count = UINT32_MAX};
    for (uint32_t i = 0; i < g_efs_valid_block_num; ++i) {
        const uint8_t block = efs_ctx.current_bme.valid_map[i];
        if (efs_ctx.erase_counts[block] <= coldest.erase_count) {
            coldest = {.index = i, .block = block, .erase_count = efs_ctx.erase_counts[block]};
        }
    }
    return coldest;
}

// A dirty block with the highest count there is cannot be erased any more: its count would wrap.
bool is_worn_out(uint32_t slot, uint32_t erase_count) {
    return erase_count == UINT32_MAX && efs_ctx.block_status[slot] == EFS_BLOCK_DIRTY;
}

// The most worn spare, free or dirty; the later one on equal counts. Its index is N if there is
// none that can take data.
worn_block hottest_non_valid_block() {
    worn_block hottest{.index = g_efs_non_valid_block_num, .block = 0, .erase_count = 0};
    for (uint32_t slot = 0; slot < g_efs_non_valid_block_num; ++slot) {
        const uint8_t block = efs_ctx.current_bme.non_valid_map[slot];
        const uint32_t count = efs_ctx.erase_counts[block];
        if (count >= hottest.erase_count && !is_worn_out(slot, count)) {
            hottest = {.index = slot, .block = block, .erase_count = count};
        }
    }
    return hottest;
}

uint32_t erase_spare(uint32_t slot) {
    const uint8_t block = efs_ctx.current_bme.non_valid_map[slot];
    const uint32_t status = erase_data_block(block, efs_ctx.erase_counts[block]);
    if (status != EFS_OK) {
        return status;
    }
    efs_ctx.block_status[slot] = EFS_BLOCK_FREE;
    ++efs_ctx.erase_counts[block];
    ++efs_ctx.free_block_count;
    return EFS_OK;
}

// Copies data area and footer in one piece; the target keeps its own header with its count.
uint32_t move_block(const worn_block &from, const worn_block &to) {
    if (const uint32_t status = read_block(from.block); status != EFS_OK) {
        return status;
    }
    if (efs_ctx.block_status[to.index] == EFS_BLOCK_DIRTY) {
        if (const uint32_t status = erase_spare(to.index); status != EFS_OK) {
            return status;
        }
    }
    efs_ctx.block_status[to.index] = EFS_BLOCK_DIRTY;
    --efs_ctx.free_block_count;
    return write_to_erased(data_block_address(to.block) + data_area, data_area_size + footer_size,
                           efs_ctx.page_buffer + data_area);
}

// Makes the next BM ready if the one in force is well filled. Sets `erased` if that took an erase.
uint32_t prepare_next_bm(bool &erased) {
    const uint32_t next = next_bm();
    if (efs_ctx.next_bm_state == EFS_NEXT_BM_UNKNOWN) {
        if (const uint32_t status = find_next_bm_state(next); status != EFS_OK) {
            return status;
        }
    }
    if (efs_ctx.next_bm_state != EFS_NEXT_BM_NEEDS_ERASE ||
        efs_ctx.bme_offset + bme_size() <= fill_mark) {
        return EFS_OK;
    }
    if (const uint32_t status = erase_bm(next); status != EFS_OK) {
        return status;
    }
    efs_ctx.next_bm_state = EFS_NEXT_BM_ERASED;
    erased = true;
    return EFS_OK;
}

} // namespace

namespace dolm::efs {

uint32_t level_wear(uint32_t aux0, uint32_t aux1) {
    if (g_efs_valid_block_num == 0 || g_efs_non_valid_block_num == 0) {
        return EFS_OK;
    }
    working_bme bme;
    if (!bme) {
        return EFS_NO_MEMORY;
    }
    const worn_block coldest = coldest_valid_block();
    const worn_block hottest = hottest_non_valid_block();
    if (hottest.index == g_efs_non_valid_block_num || hottest.erase_count < coldest.erase_count ||
        hottest.erase_count - coldest.erase_count < g_efs_wear_leveling_threshold) {
        return EFS_OK;
    }
    if (const uint32_t status = move_block(coldest, hottest); status != EFS_OK) {
        return status;
    }
    bme.copy_mapping_in_force();
    bme->valid_map[coldest.index] = hottest.block;
    bme->non_valid_map[hottest.index] = coldest.block;
    return commit_bme(*bme, aux0, aux1);
}

uint32_t erase_dirty_block() {
    const uint32_t slot = least_worn_slot(EFS_BLOCK_DIRTY);
    return slot < g_efs_non_valid_block_num ? erase_spare(slot) : EFS_BAD_DATA;
}

uint32_t prepare_for_change() {
    if (efs_ctx.scan_done == 0) {
        if (const uint32_t status = scan_data_blocks(); status != EFS_OK) {
            return status;
        }
    }
    return level_wear(0, 0);
}

} // namespace dolm::efs

uint32_t EFS_wear_leveling(uint32_t aux0, uint32_t aux1) {
    return is_mounted() ? level_wear(aux0, aux1) : EFS_NOT_MOUNTED;
}

uint32_t EFS_erase_dirty_block() {
    return is_mounted() ? erase_dirty_block() : EFS_NOT_MOUNTED;
}

uint32_t EFS_idle_reclaim() {
    if (!is_mounted()) {
        return EFS_NOT_MOUNTED;
    }
    if (g_efs_bm_num > 1) {
        bool erased = false;
        const uint32_t status = prepare_next_bm(erased);
        if (status != EFS_OK || erased) {
            return status;
        }
    }
    if (const uint32_t status = prepare_for_change(); status != EFS_OK) {
        return status;
    }
    return efs_ctx.free_block_count < g_efs_non_valid_block_num ? erase_dirty_block() : EFS_OK;
}
