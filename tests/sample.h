// How much of a long run is made: less under the sanitizers and under emulation, where it takes
// many times as long.
#pragma once

namespace dolm_test {

#ifdef DOLM_SMALL_SAMPLE
constexpr bool is_small_sample = true;
#else
constexpr bool is_small_sample = false;
#endif

constexpr int sampled(int count) {
    return is_small_sample ? count / 4 : count;
}

} // namespace dolm_test
