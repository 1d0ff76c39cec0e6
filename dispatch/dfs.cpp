#include "dfs.h"

#include <cstdlib>

#include "Afs.h"
#include "AfsPhysicalWin32Spi.h"
#include "EFS.h"
#include "common/at_unload.h"
#include "dispatch/dfs_use.h"

afs_context *dfs_context = nullptr;
uint8_t dfs_reset_needed = 0;

namespace {

constexpr uint32_t selector_shift = 11;
constexpr uint32_t selector_mask = 3;
constexpr uint32_t selector_afs = 0;
constexpr uint32_t selector_efs = 2;

// The part of a file number that a store receives: all but the selector and the class nibble.
constexpr uint32_t store_relative_mask = 0x0FFFE7FF;

constexpr uint32_t page_size = 64;
constexpr uint32_t cache_lines = 10;
constexpr uint32_t file_count = 1024;
constexpr uint32_t mount_flags =
    AFS_FLAG_FILE_SIZES | AFS_FLAG_FTL | AFS_FLAG_MOUNT_FTL | AFS_FLAG_ATTACH_DEVICE;
constexpr size_t file_buffer_size = 4096;
constexpr uint32_t cache_size = 8192;

constexpr uint32_t unknown_write_status = 562; // passed on, though no store gives it today

void release_context() {
    if (dfs_context != nullptr) {
        afs_free_context(dfs_context);
        std::free(dfs_context->file_buffer);
        std::free(dfs_context);
        dfs_context = nullptr;
    }
}

[[maybe_unused]] const dolm::at_unload<release_context> context_release;

// Releases all that the context holds but its file_buffer, which serves every store.
void empty_context() {
    afs_free_context(dfs_context);
    uint8_t *const file_buffer = dfs_context->file_buffer;
    *dfs_context = {};
    dfs_context->file_buffer = file_buffer;
}

uint32_t selector_of(uint32_t file) {
    return file >> selector_shift & selector_mask;
}

uint32_t fold_read_status(uint32_t status) {
    const bool known =
        status == DFS_OK || status == DFS_NO_SUCH_FILE || status == DFS_INVALID_ARGUMENT;
    return known ? status : DFS_IO_ERROR;
}

uint32_t fold_write_status(uint32_t status) {
    const bool known = status == DFS_OK || status == DFS_INVALID_ARGUMENT ||
                       status == DFS_FILE_TOO_LARGE || status == DFS_NO_SPACE ||
                       status == unknown_write_status;
    return known ? status : DFS_IO_ERROR;
}

} // namespace

void dolm::take_afs_out_of_use() {
    if (dfs_context == nullptr) {
        return;
    }
    if (dfs_context->image == gpBuffer) { // else the device serves a context of the host's own
        SpiFlashDrvInitialize(nullptr);
    }
    empty_context();
}

uint32_t dfs_init(void *image, uint32_t size) {
    if (dfs_context == nullptr) {
        dfs_context = static_cast<afs_context *>(std::calloc(1, sizeof(afs_context)));
        if (dfs_context == nullptr) {
            return DFS_NO_CONTEXT;
        }
    }
    empty_context();
    if (dfs_context->file_buffer == nullptr) {
        dfs_context->file_buffer = static_cast<uint8_t *>(std::malloc(file_buffer_size));
        if (dfs_context->file_buffer == nullptr) {
            return DFS_OUT_OF_MEMORY;
        }
    }
    return afs_init(dfs_context, image, page_size, cache_lines, file_count, 0, size, mount_flags, 0,
                    0);
}

uint32_t dfs_terminate(void) {
    return DFS_OK;
}

uint32_t dfs_is_fs_erased(void) {
    return 0;
}

uint32_t dfs_getsize(uint32_t file, uint32_t *size_out) {
    if (dfs_context == nullptr) {
        return DFS_NO_SUCH_FILE;
    }
    const uint32_t number = file & store_relative_mask;
    switch (selector_of(file)) {
    case selector_afs:
        return fold_read_status(
            afs_getfilesize(dfs_context, static_cast<int32_t>(number), size_out));
    case selector_efs:
        return fold_read_status(EFS_get_file_size(number, size_out));
    default:
        return DFS_INVALID_ARGUMENT;
    }
}

uint32_t dfs_read(uint32_t file, uint32_t offset, uint32_t *length, void *buffer) {
    const uint32_t number = file & store_relative_mask;
    switch (selector_of(file)) {
    case selector_afs:
        return fold_read_status(
            afs_readfile(dfs_context, static_cast<int32_t>(number), offset, length, buffer));
    case selector_efs:
        if (!EFS_is_initialized()) {
            return DFS_NO_SUCH_FILE;
        }
        return fold_read_status(EFS_read(number, offset, length, buffer));
    default:
        return DFS_INVALID_ARGUMENT;
    }
}

uint32_t dfs_write(uint32_t file, uint32_t offset, uint32_t length, const void *data,
                   uint32_t flags) {
    const uint32_t number = file & store_relative_mask;
    switch (selector_of(file)) {
    case selector_afs:
        return fold_write_status(
            afs_writefile(dfs_context, static_cast<int32_t>(number), offset, length, data, flags));
    case selector_efs:
        return fold_write_status(EFS_write(number, offset, length, data));
    default:
        return DFS_INVALID_ARGUMENT;
    }
}

uint32_t dfs_delete_file(uint32_t file) {
    if (selector_of(file) != selector_afs) {
        return DFS_INVALID_ARGUMENT;
    }
    if (dfs_context == nullptr) {
        return DFS_NO_SUCH_FILE;
    }
    return fold_read_status(afs_deletefile(dfs_context, static_cast<int32_t>(file)));
}

uint32_t dfs_mark_zombie_file(uint32_t file) {
    return afs_mark_zombie_file(dfs_context, file);
}

uint32_t dfs_force_full_reclaim(void) {
    return afs_force_full_reclaim(dfs_context);
}

uint32_t dfs_force_dirty_erase(void) {
    return afs_force_dirty_erase(dfs_context);
}

uint32_t dfs_get_idle_reclaim_enabled(void) {
    return afs_get_idle_reclaim_enabled(dfs_context);
}

void dfs_set_idle_reclaim_enabled(void) {
    afs_set_idle_reclaim_enabled(dfs_context);
}

uint32_t dfs_idle_reclaim(void) {
    return afs_idle_reclaim(dfs_context);
}

uint32_t dfs_idle_reclaim_needed(void) {
    return afs_idle_reclaim_needed(dfs_context);
}

uint32_t dfs_set_page_size(uint32_t new_page_size) {
    if (new_page_size == 0) {
        return DFS_INVALID_ARGUMENT;
    }
    return afs_setcache(dfs_context, static_cast<int32_t>(new_page_size),
                        static_cast<int32_t>(cache_size / new_page_size));
}
