// What a run of the library costs the flash.
#pragma once

#include <cstdint>

#include "host/set_files.h"

namespace dolm {

struct DeviceCost {
    uint64_t writes = 0;
    uint64_t erases = 0;
    uint64_t bytes = 0; // written
};

// While it lives, the writes and erases of the library are counted. One at a time.
class DeviceCount {
  public:
    // The images are only asked for their sizes.
    explicit DeviceCount(const SetFiles &set);
    ~DeviceCount();
    DeviceCount(const DeviceCount &) = delete;
    DeviceCount &operator=(const DeviceCount &) = delete;

    DeviceCost afs() const { return cost(false); }
    DeviceCost efs() const { return cost(true); }

  private:
    DeviceCost cost(bool of_efs) const;

    size_t efs_at_;
    Bytes room_; // as large as both images, which is all that the counting needs of them
};

} // namespace dolm
