// The double in place of the static library's device functions, by the linker's --wrap: it sends
// every call of a device function here, and __real_ names to the library's own.
#include "proof/device.h"

using dolm::proof::DeviceAccess;

static dolm::proof::DeviceDouble &device() {
    return dolm::proof::DeviceDouble::instance();
}

extern "C" {

uint32_t __real_SpiDrvRead(uint32_t address, uint32_t length, void *buffer);
uint32_t __real_SpiDrvWrite(uint32_t address, uint32_t length, const void *buffer);
uint32_t __real_SpiDrvEraseBlock(uint32_t address);
uint32_t __real_EFS_physical_read(uint32_t address, uint32_t length, void *destination);
uint32_t __real_EFS_physical_write(uint32_t address, uint32_t length, const void *source);
uint32_t __real_EFS_physical_erase(uint32_t address, uint32_t length);

uint32_t __wrap_SpiDrvRead(uint32_t address, uint32_t length, void *buffer) {
    return device().access(DeviceAccess::read, address, length, nullptr,
                           static_cast<uint8_t *>(buffer),
                           [=] { return __real_SpiDrvRead(address, length, buffer); });
}

uint32_t __wrap_SpiDrvWrite(uint32_t address, uint32_t length, const void *buffer) {
    return device().access(DeviceAccess::write, address, length,
                           static_cast<const uint8_t *>(buffer), nullptr,
                           [=] { return __real_SpiDrvWrite(address, length, buffer); });
}

uint32_t __wrap_SpiDrvEraseBlock(uint32_t address) {
    constexpr uint32_t block_size = 4096;
    return device().access(DeviceAccess::erase, address, block_size, nullptr, nullptr,
                           [=] { return __real_SpiDrvEraseBlock(address); });
}

uint32_t __wrap_EFS_physical_read(uint32_t address, uint32_t length, void *destination) {
    return device().access(DeviceAccess::read, address, length, nullptr,
                           static_cast<uint8_t *>(destination),
                           [=] { return __real_EFS_physical_read(address, length, destination); });
}

uint32_t __wrap_EFS_physical_write(uint32_t address, uint32_t length, const void *source) {
    return device().access(DeviceAccess::write, address, length,
                           static_cast<const uint8_t *>(source), nullptr,
                           [=] { return __real_EFS_physical_write(address, length, source); });
}

uint32_t __wrap_EFS_physical_erase(uint32_t address, uint32_t length) {
    return device().access(DeviceAccess::erase, address, length, nullptr, nullptr,
                           [=] { return __real_EFS_physical_erase(address, length); });
}

} // extern "C"
