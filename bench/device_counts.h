// What a benchmark makes the devices of both stores do. The counting functions stand in front of
// the real ones (see add_dolm_bench) and cost an addition and a test for each call: 3 to 8 % of
// what the operations of AFS take, which their figures include.
#pragma once

#include <cstdint>
#include <vector>

namespace bench {

struct DeviceCounts {
    uint64_t bytes_programmed = 0;
    uint64_t block_erases = 0; // of blocks of 4096 bytes
};

inline DeviceCounts device_counts;

// What the devices did while operation ran.
template <typename Operation>
DeviceCounts counts_of(Operation operation) {
    const DeviceCounts before = device_counts;
    operation();
    return {device_counts.bytes_programmed - before.bytes_programmed,
            device_counts.block_erases - before.block_erases};
}

// A call of a device function.
struct DeviceCall {
    enum class Kind : uint8_t { afs_read, afs_write, afs_erase, efs_read, efs_write, efs_erase };
    Kind kind;
    bool checked; // the bytes are ones that the store takes a checksum of
    uint32_t address;
    uint32_t length;
};

using DeviceCalls = std::vector<DeviceCall>;

// Where calls are put down, if anywhere.
inline DeviceCalls *recorded_calls = nullptr;

// The calls that operation makes.
template <typename Operation>
DeviceCalls calls_of(Operation operation) {
    DeviceCalls calls;
    recorded_calls = &calls;
    operation();
    recorded_calls = nullptr;
    return calls;
}

// Makes the same calls again, in a tight loop, with the checksums of pages and data areas. What a
// store does takes at least as long. It leaves no store on the device, since all writes are of the
// same bytes.
void replay(const DeviceCalls &calls);

} // namespace bench
