#include "host/device_count.h"

#include "proof/device.h"

namespace dolm {

using proof::DeviceDouble;
using proof::DeviceEvent;

DeviceCount::DeviceCount(const SetFiles &set)
    : efs_at_(set.qfs_image.size()), room_(efs_at_ + set.efs_image.size()) {
    DeviceDouble &device = DeviceDouble::instance();
    device.attach_both(room_, efs_at_);
    device.allow_rewrites(true); // the room does not hold what was written
}

DeviceCount::~DeviceCount() {
    DeviceDouble::instance().detach();
}

DeviceCost DeviceCount::cost(bool of_efs) const {
    DeviceCost cost;
    for (const DeviceEvent &event : DeviceDouble::instance().log()) {
        if ((event.address >= efs_at_) != of_efs) {
            continue;
        }
        if (event.kind == DeviceEvent::Kind::erase) {
            ++cost.erases;
        } else {
            ++cost.writes;
            cost.bytes += event.length;
        }
    }
    return cost;
}

} // namespace dolm
