// Runs workloads under power cuts as tests.
//
// The environment variable DOLM_POWER_CUT chooses what a run visits: nothing set, a fixed sample;
// "full", every first cut and some 40,000 second ones for each workload; or the identifier of a
// state as a failure prints it, that state alone. A run that visits no state at all fails.
#pragma once

#include "proof/power_cut.h"

namespace dolm_test {

// Each state that fails is a failure of the running test. If the chosen state is of another
// workload, the test is skipped.
void expect_every_cut_holds(const char *store_name, dolm::proof::FlashStore &store,
                            const dolm::proof::Workload &workload);

// The same from cut to cut, with the seeds 1 to `seeds`; a chain of each starts at what `start`
// gives.
void expect_chains_hold(const char *store_name, dolm::proof::FlashStore &store, uint64_t seeds,
                        const std::function<dolm::proof::Workload(uint64_t seed)> &start);

// Whether DOLM_POWER_CUT asks for one state and nothing else.
bool replays_one_state();

// States that a test visited by itself.
void count_states(uint64_t count);

} // namespace dolm_test
