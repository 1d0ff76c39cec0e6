// A flash store as the proofs see it: what can be done to it, what it shows, and what its format
// says about a write that was cut.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <span>
#include <string>
#include <vector>

#include "proof/device.h"

namespace dolm::proof {

using Image = std::vector<uint8_t>;
using Files = std::map<uint32_t, std::vector<uint8_t>>; // contents by number

// One step on a mounted store.
struct Change {
    std::string name;
    std::function<uint32_t()> run;       // 0 is the acknowledgement
    std::function<void(Files &)> effect; // what it makes of the files; empty: nothing
    bool file_by_file = false;           // each file lands as a whole; else all of the change does
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

// What a format without a checksum over everything cannot give.
struct Limit {
    const char *name;
    const char *why;
};

class FlashStore {
  public:
    virtual ~FlashStore() = default;

    // Brings the store up on an image in place, as a fresh process would. 0 if it did; it may also
    // throw std::runtime_error with more to say.
    virtual uint32_t mount(std::span<uint8_t> image) = 0;
    virtual void unmount() = 0;

    // Where in an image that of EFS begins, if both stores have theirs in it; else 0.
    virtual size_t efs_at() const { return 0; }

    // All files of the mounted store. Throws std::runtime_error if one cannot be read.
    virtual Files read_files() = 0;

    // The files that an independent reader finds on an image, as far as they can be read.
    virtual Files files_on(std::span<const uint8_t> image) const = 0;

    // The rules of the format that the image of the mounted store breaks, and where the independent
    // reader disagrees with the store: about its files, or about its tables in memory.
    virtual std::vector<std::string> check(std::span<const uint8_t> image, const Files &files) = 0;

    // Changes to go on with after a cut. Among them is a write. choice picks a variant.
    virtual std::vector<Change> further_changes(uint32_t choice, const Files &files) = 0;

    // Ends of fields and records inside a write or erase, as offsets from its start.
    virtual std::vector<uint32_t> boundaries(const DeviceEvent &event) const = 0;

    // Special bytes that a torn write can leave; Tear::Kind::value numbers them.
    virtual std::vector<std::vector<uint8_t>> torn_values(const DeviceEvent &) const { return {}; }

    // The limit of the format by which such a tear of event number k can leave a state that nobody
    // could tell from a good one; null if it cannot.
    virtual const Limit *limit(std::span<const DeviceEvent> /*events*/, size_t /*k*/, const Tear &,
                               std::span<const uint8_t> /*torn_image*/) const {
        return nullptr;
    }

    // Whether a cut of event k leaves bytes that are programmed although no record claims them, so
    // that a later write to them breaks the discipline of a flash device.
    virtual bool leaves_unclaimed_bytes(std::span<const DeviceEvent> /*events*/,
                                        size_t /*k*/) const {
        return false;
    }
};

// Throws std::runtime_error for any status but 0; what says what gave it.
void expect_done(uint32_t status, const std::string &what);

// Runs changes on an image without a look at what they leave. Throws std::runtime_error if one
// fails.
void run_changes(FlashStore &store, Image &image, Files &files, const std::vector<Change> &changes);

// Bytes that differ from seed to seed and from place to place.
std::vector<uint8_t> pattern(uint32_t seed, uint32_t length);

} // namespace dolm::proof
