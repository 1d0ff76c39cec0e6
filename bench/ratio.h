// The yardsticks of the benchmarks: what the same work costs as a plain copy of the same bytes, or
// as a byte-wise checksum, measured in the same run, since machines differ.
#pragma once

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <vector>

#include "common/crc.h"

namespace bench {

// Processor time of this process: what else runs on the machine does not count.
inline double cpu_seconds() {
    timespec now{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

// Seconds that one call takes, over at least 10 ms of calls. The clock is read after calls_at_once
// of them, and then each time that there are twice as many, since to read it takes longer than some
// of the calls.
template <typename Operation>
double seconds_per_call(Operation &operation, int64_t calls_at_once) {
    const double start = cpu_seconds();
    double elapsed = 0;
    int64_t calls = 0;
    for (int64_t target = calls_at_once; elapsed < 0.01; target *= 2) {
        for (; calls < target; ++calls) {
            operation();
        }
        elapsed = cpu_seconds() - start;
    }
    return elapsed / static_cast<double>(calls);
}

// The same for the best of several rounds: the one that other processes disturbed least.
template <typename Operation>
double best_seconds_per_call(Operation &&operation, int calls_at_once = 16) {
    constexpr int rounds = 9;
    double best = seconds_per_call(operation, calls_at_once);
    for (int round = 1; round < rounds; ++round) {
        best = std::min(best, seconds_per_call(operation, calls_at_once));
    }
    return best;
}

// Seconds that a copy of size bytes takes.
inline double seconds_of_copy(size_t size) {
    const std::vector<uint8_t> from(size, 0x5A);
    std::vector<uint8_t> to(size);
    return best_seconds_per_call([&] {
        std::memcpy(to.data(), from.data(), size);
        benchmark::DoNotOptimize(to.data());
        benchmark::ClobberMemory();
    });
}

// CRC-16, a byte at a time through its table: the yardstick Y.
inline uint16_t bytewise_crc16(uint16_t crc, const uint8_t *data, size_t length) {
    static constexpr auto table = dolm::crc_table_msb_first<uint16_t>(dolm::crc16_ccitt_polynomial);
    for (size_t i = 0; i < length; ++i) {
        crc = static_cast<uint16_t>(crc << 8 ^ table[(crc >> 8 ^ data[i]) & 0xFF]);
    }
    return crc;
}

inline constexpr size_t yardstick_size = 65536;

// Seconds that Y takes for yardstick_size bytes.
inline double seconds_of_yardstick() {
    const std::vector<uint8_t> data(yardstick_size, 0x5A);
    uint16_t crc = 0xFFFF;
    return best_seconds_per_call([&] {
        crc = bytewise_crc16(crc, data.data(), data.size());
        benchmark::DoNotOptimize(crc);
    });
}

} // namespace bench
