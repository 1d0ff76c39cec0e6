// Runs workloads on a device of which one access goes wrong, or every one from some access on: each
// access of each change in turn, in each way.
#pragma once

#include <set>

#include "proof/power_cut.h"

namespace dolm_test {

// What a store may do when its device does not.
struct FaultRules {
    std::set<uint32_t> statuses; // of a change that did not succeed
    uint64_t most_accesses;      // of one call
    bool checks_all_reads;       // so that wrong bits matter only if seven reads in a row have them
};

// After each fault: the change gives a status of the rules in a bounded number of accesses; the
// store mounts afresh, sound in the eyes of the independent reader; its files are the new ones if
// the change was acknowledged, and otherwise the old or the new ones; and further changes succeed.
void expect_every_fault_is_survived(dolm::proof::FlashStore &store,
                                    const dolm::proof::Workload &workload, const FaultRules &rules);

// After each fault in what leaves no store behind: the status is one of the rules, and the same
// once more leaves a sound store without files.
void expect_every_fault_can_be_wiped(dolm::proof::FlashStore &store,
                                     const dolm::proof::Workload &wipe, const FaultRules &rules);

} // namespace dolm_test
