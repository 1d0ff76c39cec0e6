// A run of a store on the double: what it wrote, and which files it owed at each point of it.
#pragma once

#include <functional>
#include <initializer_list>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "proof/flash_store.h"

namespace dolm::proof {

// A state that does not hold what was promised.
class Broken : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// Worse: the store went outside its image, or wrote what no flash can take.
class Undisciplined : public Broken {
  public:
    using Broken::Broken;
};

// The writes that lead from some files to others.
struct Segment {
    size_t end = 0; // index behind its last event
    Files before;
    Files after;
    bool is_mount = false; // acknowledges nothing
};

struct Recording {
    Files files_at_mount;
    std::vector<DeviceEvent> events;
    std::vector<Segment> segments;
};

// What is known of a state before it is mounted.
struct State {
    std::string id;
    const Files *before = nullptr;
    const Files *after = nullptr;
    const Limit *limit = nullptr; // of the format, if it is at one
    bool unclaimed_bytes = false;
};

bool same(const Files &a, const Files &b, uint32_t number);
std::set<uint32_t> numbers_in(std::initializer_list<const Files *> all);

// What a cut may throw the store back to. Once the last write of a change has landed, the change is
// acknowledged before anything else is written: then only the new files will do.
const Files &oldest_allowed(const Segment &segment, size_t k, const Tear &tear);

// Leaves the store and the device free, however a run ends.
class Session {
  public:
    Session(FlashStore &store, Image &image) : store_(store) {
        DeviceDouble::instance().attach_both(image, store.efs_at());
    }
    ~Session() {
        store_.unmount();
        DeviceDouble::instance().detach();
    }
    Session(const Session &) = delete;
    Session &operator=(const Session &) = delete;

  private:
    FlashStore &store_;
};

using Changes = std::function<std::vector<Change>(const Files &)>;

// Mounts an image, holds it against what may be there, and goes on with some changes. All of these
// throw Broken if the store does not hold what was promised. They run inside a Session.
Recording run(FlashStore &store, Image &image, const State &state, const Changes &changes);

// Holds the store and a fresh mount of it against the files that the run has left. Returns whether
// unclaimed bytes were written over.
bool look_again(FlashStore &store, Image &image, const Recording &recording, const State &state);

// Moves the double's log into the recording.
void take_log(Recording &recording);

} // namespace dolm::proof
