// The one way of writing to flash. Data areas, footers and whole block contents go through it too,
// with their own lengths; what is read back goes to verify_buffer, so the data may lie in
// page_buffer.
#include "efs/efs_internal.h"

namespace dolm::efs {

uint32_t write_verified(uint32_t address, uint32_t length, const void *data) {
    if (const uint32_t status = EFS_physical_write(address, length, data); status != EFS_OK) {
        return status;
    }
    uint8_t *const target = efs_ctx.verify_buffer;
    return read_until(address, length, target,
                      [=] { return std::memcmp(target, data, length) == 0; });
}

uint32_t write_to_erased(uint32_t address, uint32_t length, const void *data) {
    uint8_t *const target = efs_ctx.verify_buffer;
    const uint32_t status =
        read_until(address, length, target, [=] { return is_erased(target, length); });
    return status == EFS_OK ? write_verified(address, length, data) : status;
}

} // namespace dolm::efs

using namespace dolm::efs;

uint32_t EFS_write_with_read_check(uint32_t address, uint32_t length, const void *data,
                                   uint8_t check_erased) {
    if (geometry_changed()) {
        return EFS_NOT_MOUNTED;
    }
    if (length > sizeof efs_ctx.verify_buffer) {
        return EFS_BAD_DATA;
    }
    if (data == nullptr || length == 0) {
        return EFS_INVALID;
    }
    return check_erased != 0 ? write_to_erased(address, length, data)
                             : write_verified(address, length, data);
}
