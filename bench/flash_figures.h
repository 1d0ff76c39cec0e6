// What the benchmarks of the flash stores show of an operation. Times are the best of several
// rounds.
//
//   copies               the time in plain copies of the same bytes
//   of_Y                 the speed in parts of that of Y, a byte-wise CRC-16
//   Y64_over_t           how often the time fits into that of Y for 64 KiB
//   times_floor          the time in floors: the same device calls and checksums of pages and data
//                        areas, in a tight loop and nothing else
//   Y64_over_floor       how often the floor fits into the time of Y for 64 KiB
//   programmed_per_byte  bytes written to the device for each byte of payload
//   erases_per_MiB       erases of 4096-byte blocks for each MiB of payload
//   erases_per_1000      the same for 1000 calls
#pragma once

#include "device_counts.h"
#include "ratio.h"

namespace bench {

// Shows what one call of operation takes, as the benchmark's time and in counters. The floor is
// that of so many calls on an average. No store is left on the device.
template <typename Operation>
void show_time(benchmark::State &state, uint32_t payload, Operation operation,
               uint32_t calls = 16) {
    for (auto _ : state) {
        const double yardstick = seconds_of_yardstick();
        const double seconds = best_seconds_per_call(operation);
        const double y = std::min(yardstick, seconds_of_yardstick());
        state.SetIterationTime(seconds);
        state.counters["copies"] = seconds / seconds_of_copy(payload);
        state.counters["of_Y"] = y * payload / yardstick_size / seconds;
        state.counters["Y64_over_t"] = y / seconds;
        const DeviceCalls device_calls = calls_of([&] {
            for (uint32_t i = 0; i < calls; ++i) {
                operation();
            }
        });
        const double floor = best_seconds_per_call([&] { replay(device_calls); }) / calls;
        state.counters["times_floor"] = seconds / floor;
        state.counters["Y64_over_floor"] = y / floor;
    }
}

// The same for a change of a store, with what the device does for it. Before that the operation
// runs until it has made so many erases, so that reclaims are part of what is seen.
template <typename Operation>
void show_change(benchmark::State &state, uint32_t payload, uint64_t steady_erases,
                 Operation operation) {
    const uint64_t start = device_counts.block_erases;
    uint32_t calls = 0;
    do {
        operation();
        ++calls;
    } while (device_counts.block_erases - start < steady_erases);
    const DeviceCounts counts = counts_of([&] {
        for (uint32_t i = 0; i < calls; ++i) {
            operation();
        }
    });
    show_time(state, payload, operation, calls);
    const auto erases = static_cast<double>(counts.block_erases);
    const double bytes = static_cast<double>(payload) * calls;
    state.counters["programmed_per_byte"] = static_cast<double>(counts.bytes_programmed) / bytes;
    state.counters["erases_per_MiB"] = erases * 1048576 / bytes;
    state.counters["erases_per_1000"] = erases * 1000 / calls;
}

} // namespace bench

// Registers a benchmark that measures by itself.
#define DOLM_FLASH_BENCHMARK(name)                                                                 \
    BENCHMARK(name)->Iterations(1)->UseManualTime()->Unit(benchmark::kMicrosecond)
