#include "proof/device.h"

#include <array>
#include <cstring>

namespace dolm::proof {
namespace {

constexpr uint32_t device_failure = 5;

constexpr std::array access_names{"read", "write", "erase"};

} // namespace

DeviceDouble &DeviceDouble::instance() {
    static DeviceDouble device;
    return device;
}

void DeviceDouble::attach(std::span<uint8_t> image) {
    *this = DeviceDouble{};
    image_ = image;
}

bool DeviceDouble::is_in_range(DeviceAccess kind, uint32_t address, uint32_t length) {
    if (address <= image_.size() && length <= image_.size() - address) {
        return true;
    }
    out_of_range_.push_back(std::string(access_names[static_cast<size_t>(kind)]) + " of " +
                            std::to_string(length) + " bytes at " + std::to_string(address));
    return false;
}

const DeviceFault *DeviceDouble::fault_for(DeviceAccess kind, uint32_t number) const {
    for (const DeviceFault &fault : faults_) {
        if (fault.access == kind && number >= fault.first && number - fault.first < fault.count) {
            return &fault;
        }
    }
    return nullptr;
}

void DeviceDouble::check_discipline(uint32_t address, uint32_t length, const uint8_t *written) {
    for (uint32_t i = 0; !allow_rewrites_ && i < length; ++i) {
        if ((written[i] & ~image_[address + i]) != 0) {
            breaches_.push_back({{DeviceEvent::Kind::write, address, length, {}}, address + i});
            return;
        }
    }
}

void DeviceDouble::note(uint32_t address, uint32_t length, const uint8_t *written) {
    if (!keep_log_) {
        return;
    }
    DeviceEvent event{DeviceEvent::Kind::erase, address, length, {}};
    if (written != nullptr) {
        event.kind = DeviceEvent::Kind::write;
        event.bytes.assign(written, written + length);
    }
    log_.push_back(std::move(event));
}

uint32_t DeviceDouble::access(DeviceAccess kind, uint32_t address, uint32_t length,
                              const uint8_t *written, uint8_t *seen,
                              const std::function<uint32_t()> &real) {
    if (kind != DeviceAccess::read && events_left_ != UINT64_MAX) {
        if (events_left_ == 0) {
            return 0;
        }
        --events_left_;
    }
    if (image_.empty()) {
        return real();
    }
    const DeviceFault *fault = fault_for(kind, counts_[static_cast<size_t>(kind)]++);
    if (!is_in_range(kind, address, length) ||
        (fault != nullptr && fault->effect == DeviceFault::Effect::fail)) {
        return device_failure;
    }
    if (fault != nullptr && fault->effect == DeviceFault::Effect::lose) {
        return 0;
    }
    if (kind == DeviceAccess::write) {
        check_discipline(address, length, written);
    }
    if (kind != DeviceAccess::read) {
        note(address, length, written);
    }
    const uint32_t result = real();
    if (fault != nullptr && length != 0) {
        (seen != nullptr ? seen : &image_[address])[length / 2] ^= 0x10;
    }
    return result;
}

} // namespace dolm::proof
