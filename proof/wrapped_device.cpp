// The double in place of the static library's device functions, by the linker's --wrap: it sends
// every call of a device function here, and __real_ names to the library's own.
#include "proof/device_calls.h"

using namespace dolm::proof;

extern "C" {

uint32_t __real_SpiDrvRead(uint32_t address, uint32_t length, void *buffer);
uint32_t __real_SpiDrvWrite(uint32_t address, uint32_t length, const void *buffer);
uint32_t __real_SpiDrvEraseBlock(uint32_t address);
uint32_t __real_EFS_physical_read(uint32_t address, uint32_t length, void *destination);
uint32_t __real_EFS_physical_write(uint32_t address, uint32_t length, const void *source);
uint32_t __real_EFS_physical_erase(uint32_t address, uint32_t length);

uint32_t __wrap_SpiDrvRead(uint32_t address, uint32_t length, void *buffer) {
    return on_read(Device::afs, address, length, buffer, __real_SpiDrvRead);
}

uint32_t __wrap_SpiDrvWrite(uint32_t address, uint32_t length, const void *buffer) {
    return on_write(Device::afs, address, length, buffer, __real_SpiDrvWrite);
}

uint32_t __wrap_SpiDrvEraseBlock(uint32_t address) {
    return on_afs_erase(address, __real_SpiDrvEraseBlock);
}

uint32_t __wrap_EFS_physical_read(uint32_t address, uint32_t length, void *destination) {
    return on_read(Device::efs, address, length, destination, __real_EFS_physical_read);
}

uint32_t __wrap_EFS_physical_write(uint32_t address, uint32_t length, const void *source) {
    return on_write(Device::efs, address, length, source, __real_EFS_physical_write);
}

uint32_t __wrap_EFS_physical_erase(uint32_t address, uint32_t length) {
    return on_efs_erase(address, length, __real_EFS_physical_erase);
}

} // extern "C"
