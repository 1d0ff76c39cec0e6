// Power cuts in a store, every one of them. A workload runs once on a double of the device that
// logs it. For each write and erase in the log and each way of tearing it, the image that the cut
// would have left is put together from the log; it is mounted as a fresh process would, and what
// the store shows is held against a record of what it had acknowledged. Whatever the store then
// writes, in its recovery and in the changes that follow, is logged and cut in the same way, so
// that every state is two cuts deep.
//
// The environment variable DOLM_POWER_CUT chooses what a run visits: nothing set, a fixed sample;
// "full", every first cut and a hundred second ones for each; or the identifier of a state as a
// failure prints it, that state alone.
#pragma once

#include <cstdint>
#include <functional>
#include <iosfwd>
#include <map>
#include <span>
#include <string>
#include <unordered_set>
#include <vector>

#include "proof/device.h"

namespace dolm_test {

using namespace dolm::proof;

using Image = std::vector<uint8_t>;
using Files = std::map<uint32_t, std::vector<uint8_t>>;

// One step on a mounted store, which either lands as a whole or not at all.
struct Change {
    std::string name;
    std::function<uint32_t()> run;       // 0 is the acknowledgement
    std::function<void(Files &)> effect; // what it makes of the files; empty: nothing
};

// How a write or an erase was cut.
struct Tear {
    enum class Kind : char {
        prefix = 'p', // the first bytes landed
        suffix = 's', // all but the first bytes landed
        bits = 'b',   // some of the changed bits landed
        value = 'v',  // what the store names as a special state on the way
        whole = 'w'   // it landed, and nothing after it
    };

    Kind kind = Kind::whole;
    uint32_t at = 0; // bytes, or number of the variant

    std::string name() const;
};

// What the harness needs to know of a store.
class PowerCutStore {
  public:
    virtual ~PowerCutStore() = default;

    // Brings the store up on an image in place, as a fresh process would. 0 if it did.
    virtual uint32_t mount(std::span<uint8_t> image) = 0;
    virtual void unmount() = 0;

    // All files of the mounted store. Throws std::runtime_error if one cannot be read.
    virtual Files read_files() = 0;

    // The rules of the format that the image of the mounted store breaks, and where an independent
    // reader of it disagrees with the store, its tables in memory included.
    virtual std::vector<std::string> check(std::span<const uint8_t> image, const Files &files) = 0;

    // Changes to go on with after a cut. Among them is a write. choice picks a variant.
    virtual std::vector<Change> further_changes(uint32_t choice, const Files &files) = 0;

    // Ends of fields and records inside a write or erase, as offsets from its start.
    virtual std::vector<uint32_t> boundaries(const DeviceEvent &event) const = 0;

    // Special bytes that a torn write can leave; Tear::Kind::value numbers them.
    virtual std::vector<std::vector<uint8_t>> torn_values(const DeviceEvent &) const { return {}; }

    // The limits of a format that has no checksum over everything. Why such a tear of event
    // number k can leave a state that nobody could tell from a good one; empty if it cannot.
    virtual std::string limit(std::span<const DeviceEvent> /*events*/, size_t /*k*/, const Tear &,
                              std::span<const uint8_t> /*torn_image*/) const {
        return "";
    }

    // Whether a cut of event k leaves bytes that are programmed although no record claims them, so
    // that a later write to them breaks the discipline of a flash device.
    virtual bool leaves_unclaimed_bytes(std::span<const DeviceEvent> /*events*/,
                                        size_t /*k*/) const {
        return false;
    }
};

struct PowerCutCounts {
    uint64_t first_level = 0;  // distinct states after one cut
    uint64_t second_level = 0; // distinct states after two
    uint64_t chained = 0;      // steps from cut to cut
    uint64_t rewrites = 0;     // states in which unclaimed bytes were written over

    // States behind a limit of the format, by its name.
    struct AtLimit {
        uint64_t states = 0;
        uint64_t lost = 0; // failed a check
    };
    std::map<std::string, AtLimit> at_limit;

    uint64_t states() const { return first_level + second_level; }
};

std::ostream &operator<<(std::ostream &out, const PowerCutCounts &counts);

struct Workload {
    std::string name;
    Image start;
    Files files; // in start
    std::vector<Change> changes;
};

class PowerCut {
  public:
    explicit PowerCut(PowerCutStore &store);

    // Visits the states of a workload. Every state that fails is a failure of the running test.
    void explore(const Workload &workload);

    // Goes on from cut to cut: the changes after each cut are cut at a random place in turn.
    void chain(const Workload &workload, uint64_t seed, unsigned cuts);

    const PowerCutCounts &counts() const { return counts_; }

  private:
    // The writes of one change, with the files before and after it.
    struct Segment {
        size_t end = 0; // index behind its last event
        Files before;
        Files after;
        bool is_mount = false; // acknowledges nothing
    };
    struct Recording {
        std::vector<DeviceEvent> events;
        std::vector<Segment> segments;
    };
    // What is known of a state before it is mounted.
    struct State {
        std::string id;
        const Files *before = nullptr;
        const Files *after = nullptr;
        std::string limit; // of the format, empty for none
        bool unclaimed_bytes = false;
    };
    using Changes = std::function<std::vector<Change>(const Files &)>;

    Recording run_and_check(Image &image, const State &state, const Changes &changes);
    void cut_everywhere(const Image &start, const Recording &recording, const State &parent,
                        unsigned level);
    bool cut_somewhere(Image &image, const Recording &recording, State &state, Files &before,
                       Files &after, uint64_t random) const;
    void visit(const Image &image, const State &state, unsigned level);
    std::vector<Tear> tears(const DeviceEvent &event) const;
    Image torn(const Image &before, const DeviceEvent &event, const Tear &tear) const;
    uint64_t stride_for(const Recording &recording, unsigned level) const;
    static const Files &oldest_allowed(const Segment &segment, size_t k, const Tear &tear);
    bool is_chosen(const std::string &id, uint64_t stride) const;
    bool is_new(uint64_t hash, unsigned level);
    void fail(const State &state, const std::string &what);

    static constexpr unsigned max_level = 2;

    PowerCutStore &store_;
    PowerCutCounts counts_;
    bool full_ = false;
    std::string replay_; // the only state to visit
    bool replayed_ = false;
    std::unordered_set<uint64_t> visited_[max_level + 1]; // states of each level
    unsigned failures_ = 0;
};

} // namespace dolm_test
