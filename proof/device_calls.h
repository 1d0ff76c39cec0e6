// The six device functions as calls on the double; real is the library's own.
#pragma once

#include "image/afs_records.h"
#include "proof/device.h"

namespace dolm::proof {

inline uint32_t on_call(const DeviceCall &call, const std::function<uint32_t()> &real) {
    return DeviceDouble::instance().access(call, real);
}

inline uint32_t on_read(Device device, uint32_t address, uint32_t length, void *buffer,
                        uint32_t (*real)(uint32_t, uint32_t, void *)) {
    return on_call(
        {device, DeviceAccess::read, address, length, nullptr, static_cast<uint8_t *>(buffer)},
        [=] { return real(address, length, buffer); });
}

inline uint32_t on_write(Device device, uint32_t address, uint32_t length, const void *bytes,
                         uint32_t (*real)(uint32_t, uint32_t, const void *)) {
    return on_call({device, DeviceAccess::write, address, length,
                    static_cast<const uint8_t *>(bytes), nullptr},
                   [=] { return real(address, length, bytes); });
}

inline uint32_t on_afs_erase(uint32_t address, uint32_t (*real)(uint32_t)) {
    return on_call(
        {Device::afs, DeviceAccess::erase, address, afs::erase_block_size, nullptr, nullptr},
        [=] { return real(address); });
}

inline uint32_t on_efs_erase(uint32_t address, uint32_t length,
                             uint32_t (*real)(uint32_t, uint32_t)) {
    return on_call({Device::efs, DeviceAccess::erase, address, length, nullptr, nullptr},
                   [=] { return real(address, length); });
}

} // namespace dolm::proof
