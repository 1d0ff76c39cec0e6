#include "frontend/deployed_vfs.h"

#include <cstdio>

#include "frontend/report.h"

bool s_qfsInitialized = false;

namespace {

constexpr int32_t not_mountable = 5;

} // namespace

// This build has no flash stores: an image that is given cannot be mounted.

bool bring_up_flash(const _commonDolmInputs &inputs) {
    if (inputs.qfsImage.size != 0) {
        std::fputs("dfs_init failed\n", stdout);
        setLibError(IMAGE_TOOLS_INITIALIZE_ERROR, not_mountable);
        report_error(IMAGE_TOOLS_QFS_INIT_FAILED);
        return false;
    }
    if (inputs.efsImage.size != 0) {
        report_error(IMAGE_TOOLS_EFS_INIT_FAILED);
        return false;
    }
    return true;
}

bool write_back_to_flash(const FcsTable &) {
    return true;
}

bool take_afs_down() {
    return true;
}

bool qoQfsIsVfsDeployed(void) {
    return false;
}

uint32_t qoQfsGetEfsSize(void) {
    return (g_efs_bm_num + g_efs_valid_block_num + g_efs_non_valid_block_num) * 4096;
}
