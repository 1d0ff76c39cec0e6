// A DLL calls its own devices, where nobody can count.
#include "host/device_count.h"
#include "host/errors.h"

namespace dolm {

DeviceCount::DeviceCount(const SetFiles &) : efs_at_(0) {
    throw UsageError("--dry-run does not work on Windows");
}

DeviceCount::~DeviceCount() = default;

DeviceCost DeviceCount::cost(bool) const {
    return {};
}

} // namespace dolm
