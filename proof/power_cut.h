// Power cuts in a store, every one of them. A workload runs once on a double of the device that
// logs it. For each write and erase in the log and each way of tearing it, the image that the cut
// would have left is put together from the log; it is mounted as a fresh process would, and what
// the store shows is held against a record of what it had acknowledged. Whatever the store then
// writes, in its recovery and in the changes that follow, is logged and cut in the same way, so
// that every state is two cuts deep.
//
// A state has an identifier that replays it alone: the name of the workload, and for each cut the
// number of the write or erase in the log with the tear behind it, as in "truncate/12p3/40w0".
#pragma once

#include <cstdint>
#include <functional>
#include <iosfwd>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "proof/flash_store.h"

namespace dolm::proof {

struct Workload {
    std::string name; // without a slash
    Image start;
    Files files; // in start
    std::vector<Change> changes;
};

// Which states to visit.
struct Choice {
    uint64_t first = UINT64_MAX;  // at most so many after one cut, chosen evenly
    uint64_t second = UINT64_MAX; // and after two, spread evenly behind those
    std::string replay;           // if not empty, this state alone
};

struct Failure {
    std::string id;
    std::string reason;
    Image image; // as the cut left it
};

// What an exploration found.
struct Findings {
    // Of the workload, run without a cut.
    uint64_t writes = 0;
    uint64_t erases = 0;
    uint64_t bytes = 0; // written

    uint64_t first_level = 0;  // distinct states after one cut
    uint64_t second_level = 0; // distinct states after two
    uint64_t chained = 0;      // steps from cut to cut
    uint64_t rewrites = 0;     // states in which unclaimed bytes were written over

    // States behind a limit of the format, by its name.
    struct AtLimit {
        std::string why;
        uint64_t states = 0;
        uint64_t lost = 0; // failed a check
    };
    std::map<std::string, AtLimit> at_limit;

    // What one cut leaves of the files that the workload changes, or of all files if it changes
    // none: how many sound states show so many of them as they were. Where nothing changes, all
    // count as new.
    bool has_changes = false;
    uint64_t files = 0;
    std::map<uint64_t, uint64_t> states_by_old_files;

    uint64_t failed = 0;               // states that do not hold what was promised
    std::vector<Failure> failures;     // the first of these
    std::vector<std::string> examples; // some states that hold

    std::optional<Image> replayed; // the state of Choice::replay, if there is one

    uint64_t states() const { return first_level + second_level; }
};

std::ostream &operator<<(std::ostream &out, const Findings &findings);

// Told now and then: how many of the first cuts have been dealt with.
using OnProgress = std::function<void(uint64_t done, uint64_t total)>;

// Visits the states of a workload. A workload that has no state to visit has failed, and so has one
// that fails without a cut; both stand under the workload's name.
Findings explore(FlashStore &store, const Workload &workload, const Choice &choice,
                 const OnProgress &on_progress = {});

// Goes on from cut to cut: the changes after each cut are cut at a random place in turn. The name
// of step 12 with seed 7 is "chain.7/12" for a workload named "chain"; its own changes are not run.
// Throws std::runtime_error if there are no steps to go.
Findings chain(FlashStore &store, const Workload &workload, uint64_t seed, unsigned cuts);

} // namespace dolm::proof
