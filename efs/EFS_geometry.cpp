// The geometry variables, which a host can change while a store is mounted.
#include "efs/efs_internal.h"

namespace {

// The variables on which an image's layout, the arrays of efs_ctx and every block number rest.
struct geometry {
    uint32_t bm_num = 0;
    uint32_t valid_block_num = 0;
    uint32_t non_valid_block_num = 0;
    uint8_t layout_id = 0;

    bool operator==(const geometry &) const = default;
};

geometry current_geometry() {
    return {.bm_num = g_efs_bm_num,
            .valid_block_num = g_efs_valid_block_num,
            .non_valid_block_num = g_efs_non_valid_block_num,
            .layout_id = g_efs_layout_id};
}

geometry mounted_geometry;

} // namespace

namespace dolm::efs {

void note_mounted_geometry() {
    mounted_geometry = current_geometry();
}

bool geometry_changed() {
    return efs_ctx.initialized != 0 && current_geometry() != mounted_geometry;
}

} // namespace dolm::efs

uint32_t EFS_get_efs_size() {
    return dolm::efs::image_size();
}
