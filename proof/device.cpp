#include "proof/device.h"

#include <array>
#include <cstring>

namespace dolm::proof {
namespace {

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

void DeviceDouble::attach_both(std::span<uint8_t> images, size_t efs_at) {
    attach(images);
    efs_at_ = efs_at;
}

bool DeviceDouble::is_in_range(const DeviceCall &call, uint32_t address) {
    const bool ends_before_efs = call.device == Device::afs && efs_at_ != 0;
    const size_t end = ends_before_efs ? efs_at_ : image_.size();
    if (call.address <= end && address <= end && call.length <= end - address) {
        return true;
    }
    out_of_range_.push_back(std::string(access_names[static_cast<size_t>(call.access)]) + " of " +
                            std::to_string(call.length) + " bytes at " +
                            std::to_string(call.address));
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

uint32_t DeviceDouble::access(const DeviceCall &call, const std::function<uint32_t()> &real) {
    if (call.access != DeviceAccess::read && events_left_ != UINT64_MAX) {
        if (events_left_ == 0) {
            return 0;
        }
        --events_left_;
    }
    if (image_.empty()) {
        return real();
    }
    if (accesses_left_ == 0) {
        return device_failure;
    }
    --accesses_left_;
    const size_t base = call.device == Device::efs ? efs_at_ : 0;
    const auto address = static_cast<uint32_t>(base + call.address);
    const DeviceFault *fault = fault_for(call.access, counts_[static_cast<size_t>(call.access)]++);
    if (!is_in_range(call, address) ||
        (fault != nullptr && fault->effect == DeviceFault::Effect::fail)) {
        return device_failure;
    }
    if (fault != nullptr && fault->effect == DeviceFault::Effect::lose) {
        return 0;
    }
    if (call.access == DeviceAccess::write) {
        check_discipline(address, call.length, call.written);
    }
    if (call.access != DeviceAccess::read) {
        note(address, call.length, call.written);
    }
    std::vector<uint8_t> before;
    if (clear_only_ && call.access == DeviceAccess::write) {
        before.assign(&image_[address], &image_[address] + call.length);
    }
    const uint32_t result = real();
    for (size_t i = 0; i < before.size(); ++i) {
        image_[address + i] &= before[i];
    }
    if (fault != nullptr && call.length != 0) {
        const bool last = fault->effect == DeviceFault::Effect::flip_last;
        uint8_t *const bytes = call.seen != nullptr ? call.seen : &image_[address];
        bytes[last ? call.length - 1 : call.length / 2] ^= 0x10;
    }
    return result;
}

} // namespace dolm::proof
