// What a benchmark makes the devices of both stores do. The counting functions stand in front of
// the real ones (see add_dolm_bench) and cost two additions for a write or an erase, under a
// hundredth of what a page write takes.
#pragma once

#include <cstdint>

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

} // namespace bench
