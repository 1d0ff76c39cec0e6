// The yardsticks of the benchmarks: what the same work costs as a plain copy of the same bytes,
// measured in the same run, since machines differ.
#pragma once

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdint>
#include <cstring>
#include <vector>

namespace bench {

// Seconds that one call takes, over at least 10 ms of calls.
template <typename Operation>
double seconds_per_call(Operation operation) {
    using clock = std::chrono::steady_clock;
    const auto start = clock::now();
    std::chrono::duration<double> elapsed{};
    int64_t calls = 0;
    do {
        for (int i = 0; i < 16; ++i) {
            operation();
        }
        calls += 16;
        elapsed = clock::now() - start;
    } while (elapsed.count() < 0.01);
    return elapsed.count() / static_cast<double>(calls);
}

// Seconds that a copy of size bytes takes.
inline double seconds_of_copy(size_t size) {
    const std::vector<uint8_t> from(size, 0x5A);
    std::vector<uint8_t> to(size);
    return seconds_per_call([&] {
        std::memcpy(to.data(), from.data(), size);
        benchmark::DoNotOptimize(to.data());
        benchmark::ClobberMemory();
    });
}

// Times the loop of a benchmark, for figures that compare it with something else.
class Stopwatch {
  public:
    explicit Stopwatch(const benchmark::State &state) : state_(state) {}
    double seconds_per_iteration() const {
        const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start_;
        return elapsed.count() / static_cast<double>(state_.iterations());
    }

  private:
    const benchmark::State &state_;
    std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

} // namespace bench
