#include "AfsPhysical.h"

#include "AfsPhysicalWin32Spi.h"

namespace {

bool lies_in_store(const afs_context *context, uint32_t offset, uint32_t length) {
    const uint32_t size = context->device_size;
    return size == 0 || (offset <= size && length <= size - offset);
}

} // namespace

const afs_physical_ops afs_physical_spi_handler = {
    afs_physical_ftl_read_page,         afs_physical_ftl_write_page,
    afs_physical_ftl_trim_page,         afs_physical_ftl_force_full_reclaim,
    afs_physical_ftl_force_dirty_erase,
};

afs_context *afs_physical_context = nullptr;

uint32_t afs_sub_pt_read(afs_context *context, uint32_t offset, uint32_t length, void *buffer) {
    if (context == nullptr || !lies_in_store(context, offset, length)) {
        return AFS_RC_INVALID;
    }
    return SpiDrvRead(context->device_offset + offset, length, buffer);
}

uint32_t afs_sub_pt_write(afs_context *context, uint32_t offset, uint32_t length,
                          const void *buffer) {
    if (context == nullptr || !lies_in_store(context, offset, length)) {
        return AFS_RC_INVALID;
    }
    return SpiDrvWrite(context->device_offset + offset, length, buffer);
}

uint32_t afs_sub_pt_trim(afs_context * /*context*/, uint32_t /*offset*/, uint32_t /*length*/) {
    return AFS_RC_OK;
}
