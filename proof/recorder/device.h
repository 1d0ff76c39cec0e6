// What stands between the stores and their devices: records each access and lets some go wrong.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "record.h"

namespace recorder {

enum class Access : uint8_t { read, write, erase };

struct Fault {
    enum class Effect : uint8_t {
        fail, // nothing happens, the result is 5
        lose, // nothing happens, the result is 0
        flip  // one bit of what is read, written or erased comes out wrong, the result is 0
    };
    Access access;
    uint32_t skip; // accesses of this kind that go well before
    uint32_t count;
    Effect effect;
};

class Device {
  public:
    // The memory under AFS. An access outside it fails. EFS tests its own.
    void attach(std::span<uint8_t> afs_image) { afs_image_ = afs_image; }

    // Before each operation, which may take so many accesses; behind them all fail, so that a loop
    // that waits for the device comes to its end.
    void allow(uint32_t accesses) { accesses_left_ = accesses; }

    // From now on.
    void add_fault(Fault fault) { faults_.push_back(fault); }
    void clear_faults() { faults_.clear(); }
    // The power goes after so many writes and erases; of the one behind them `torn` bytes land.
    void cut_after(uint32_t events, uint32_t torn) { cut_ = {true, events, torn}; }
    bool restore_power() {
        const bool was_cut = cut_.armed && cut_.events == 0;
        cut_.armed = false;
        return was_cut;
    }

    // For the wrapped functions. `base` is the memory of the store's device, `bytes` what is
    // written or where a read goes; `real` carries the access out.
    template <typename Real>
    uint32_t access(const char *store, Access access, uint8_t *base, uint32_t address,
                    uint32_t length, uint8_t *bytes, Real real);
    bool is_in_afs_image(uint32_t address, uint32_t length) const {
        return afs_image_.empty() ||
               (address <= afs_image_.size() && length <= afs_image_.size() - address);
    }

  private:
    struct Cut {
        bool armed = false;
        uint32_t events = 0;
        uint32_t torn = 0;
    };

    const Fault *next_fault(Access access, Fault &copy);

    std::span<uint8_t> afs_image_;
    std::vector<Fault> faults_;
    Cut cut_;
    uint32_t accesses_left_ = UINT32_MAX;
};

extern Device device;

// Makes some accesses of the next operation go wrong.
void plan_faults(Random &random);

// Changes bytes of an image as rot, a stray write or a swapped block would.
void damage(Random &random, std::span<uint8_t> image);

} // namespace recorder
