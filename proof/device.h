// One double for the devices of both stores. It stands between a store and its device functions: it
// logs what is written and erased, checks that the store treats its memory as flash, and can make
// any access go wrong. A program that links dolm_wrapped_device has it in place of the static
// library's device functions, one that links dolm_interposed_device in place of the shared one's.
#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <vector>

namespace dolm::proof {

struct DeviceEvent {
    enum class Kind : uint8_t { write, erase };

    Kind kind = Kind::write;
    uint32_t address = 0;       // byte offset from the start of what is attached
    uint32_t length = 0;        // bytes
    std::vector<uint8_t> bytes; // what a write puts there
};

// A write that a flash device could not do: it sets bits that only an erase can set.
struct DisciplineBreach {
    DeviceEvent event;
    uint32_t address = 0; // first byte with such a bit
};

// The status of an access that fails.
inline constexpr uint32_t device_failure = 5;

enum class DeviceAccess : uint8_t { read, write, erase };

enum class Device : uint8_t { afs, efs };

// One call of a device function.
struct DeviceCall {
    Device device = Device::afs;
    DeviceAccess access = DeviceAccess::read;
    uint32_t address = 0;
    uint32_t length = 0;
    const uint8_t *written = nullptr; // what a write puts down
    uint8_t *seen = nullptr;          // where a read puts its bytes
};

// What goes wrong with the accesses number first to first + count - 1 of a kind, counted from the
// attach on.
struct DeviceFault {
    enum class Effect : uint8_t {
        fail,      // nothing happens and the result is not 0
        flip_bit,  // one bit in the middle of what is read, written or erased comes out wrong; the
                   // result is 0
        flip_last, // the same in the last byte
        lose       // nothing happens and the result is 0
    };

    DeviceAccess access = DeviceAccess::read;
    uint32_t first = 0;
    uint32_t count = 1;
    Effect effect = Effect::fail;
};

class DeviceDouble {
  public:
    // The one that the functions in place of the device's ask.
    static DeviceDouble &instance();

    // From now on accesses belong to this image, of either device. Clears the log, the counts and
    // the faults. Without an image attached everything passes through unseen.
    void attach(std::span<uint8_t> image);
    void detach() { attach({}); }

    // Attaches the images of both devices, which lie behind each other in memory.
    void attach_both(std::span<uint8_t> images, size_t efs_at);

    void keep_log(bool keep) { keep_log_ = keep; }
    std::vector<DeviceEvent> &log() { return log_; }

    void add_fault(DeviceFault fault) { faults_.push_back(fault); }

    // Behind so many accesses all fail, so that a call that waits for the device comes to an end.
    void allow(uint64_t accesses) { accesses_left_ = accesses; }
    bool is_exhausted() const { return accesses_left_ == 0; }

    // The power goes: from now on this many writes and erases land, of both devices and whatever is
    // attached, and all behind them are lost.
    void cut_after(uint64_t events) { events_left_ = events; }
    void restore_power() { events_left_ = UINT64_MAX; }

    // A write clears bits and never sets one, as on the real part. The library's own device copies.
    void clear_bits_only(bool clear_only) { clear_only_ = clear_only; }

    // For a format over an image that is not erased.
    void allow_rewrites(bool allow) { allow_rewrites_ = allow; }

    uint32_t count(DeviceAccess access) const { return counts_[static_cast<size_t>(access)]; }
    const std::vector<DisciplineBreach> &breaches() const { return breaches_; }
    const std::vector<std::string> &out_of_range() const { return out_of_range_; }

    // For the functions that stand in for the device's; real carries the access out.
    uint32_t access(const DeviceCall &call, const std::function<uint32_t()> &real);

  private:
    bool is_in_range(const DeviceCall &call, uint32_t address);
    const DeviceFault *fault_for(DeviceAccess kind, uint32_t number) const;
    void check_discipline(uint32_t address, uint32_t length, const uint8_t *written);
    void note(uint32_t address, uint32_t length, const uint8_t *written);

    std::span<uint8_t> image_;
    size_t efs_at_ = 0; // where the image of EFS begins, if it is not alone
    uint64_t events_left_ = UINT64_MAX;
    uint64_t accesses_left_ = UINT64_MAX;
    bool keep_log_ = true;
    bool allow_rewrites_ = false;
    bool clear_only_ = false;
    std::vector<DeviceEvent> log_;
    std::vector<DeviceFault> faults_;
    std::vector<DisciplineBreach> breaches_;
    std::vector<std::string> out_of_range_;
    uint32_t counts_[3] = {};
};

} // namespace dolm::proof
