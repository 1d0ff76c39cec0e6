#include "power_cut.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <ostream>
#include <set>
#include <stdexcept>

#include <gtest/gtest.h>

namespace dolm_test {
namespace {

constexpr uint32_t bit_variants = 3;
constexpr unsigned max_reported_failures = 5;

// How many states a run visits. A workload with more first cuts than these is thinned out evenly,
// and so is what follows each of them: a full run takes all first cuts and some 100 second ones.
#if defined(__SANITIZE_ADDRESS__)
constexpr uint64_t sample_first_cuts = 60;
constexpr uint64_t sample_stride = 80;
#else
constexpr uint64_t sample_first_cuts = 400;
constexpr uint64_t sample_stride = 50;
#endif
constexpr uint64_t full_second_cuts = 100;

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

constexpr uint64_t hash_start = 0x9E3779B97F4A7C15;

uint64_t mix(uint64_t hash, uint64_t value) {
    hash = (hash ^ value) * 0xFF51AFD7ED558CCD;
    return hash ^ hash >> 32;
}

uint64_t hash_bytes(uint64_t hash, std::span<const uint8_t> bytes) {
    size_t i = 0;
    for (; i + 8 <= bytes.size(); i += 8) {
        uint64_t word = 0;
        std::memcpy(&word, &bytes[i], 8);
        hash = mix(hash, word);
    }
    for (; i < bytes.size(); ++i) {
        hash = mix(hash, bytes[i]);
    }
    return hash;
}

uint64_t hash_text(const std::string &text) {
    return hash_bytes(hash_start, {reinterpret_cast<const uint8_t *>(text.data()), text.size()});
}

uint64_t hash_files(uint64_t hash, const Files &files) {
    for (const auto &[number, contents] : files) {
        hash = hash_bytes(mix(mix(hash, number), contents.size()), contents);
    }
    return hash;
}

std::string describe(const Files &shown, const Files &before, const Files &after) {
    const auto get = [](const Files &files, uint32_t number) {
        const auto file = files.find(number);
        return file == files.end() ? std::nullopt : std::optional(file->second);
    };
    const auto text = [](const auto &file) {
        return file ? std::to_string(file->size()) + " bytes" : "none";
    };
    std::string result = "files that are neither the old nor the new ones:";
    for (uint32_t number = 0; number <= 0xFFFF; ++number) {
        const auto is = get(shown, number);
        const auto was = get(before, number);
        const auto becomes = get(after, number);
        if (is != was || is != becomes) {
            result += " file " + std::to_string(number) + " is " + text(is) + ", was " + text(was) +
                      ", becomes " + text(becomes) + ";";
        }
    }
    return result;
}

// Leaves the store and the device free, however a run ends.
class Session {
  public:
    Session(PowerCutStore &store, Image &image) : store_(store) {
        DeviceDouble::instance().attach(image);
    }
    ~Session() {
        store_.unmount();
        DeviceDouble::instance().detach();
    }
    Session(const Session &) = delete;
    Session &operator=(const Session &) = delete;

  private:
    PowerCutStore &store_;
};

void mount(PowerCutStore &store, Image &image, const char *which) {
    store.unmount();
    if (const uint32_t status = store.mount(image); status != 0) {
        throw Broken(std::string(which) + " fails with " + std::to_string(status));
    }
}

void expect_sound(PowerCutStore &store, const Image &image, const Files &files, const char *when) {
    if (const Files shown = store.read_files(); shown != files) {
        throw Broken(std::string(when) + " shows " + describe(shown, files, files));
    }
    if (const auto broken = store.check(image, files); !broken.empty()) {
        throw Broken(std::string(when) + " leaves " + broken.front());
    }
}

// Returns whether unclaimed bytes were written over.
bool expect_discipline(bool unclaimed_bytes) {
    const DeviceDouble &device = DeviceDouble::instance();
    if (!device.out_of_range().empty()) {
        throw Undisciplined("outside the image: " + device.out_of_range().front());
    }
    if (device.breaches().empty()) {
        return false;
    }
    if (!unclaimed_bytes) {
        const DisciplineBreach &breach = device.breaches().front();
        throw Undisciplined("a write of " + std::to_string(breach.event.length) + " bytes at " +
                            std::to_string(breach.event.address) + " sets bits at " +
                            std::to_string(breach.address) + " that only an erase can set");
    }
    return true;
}

void apply(Image &image, const DeviceEvent &event, uint32_t from, uint32_t to) {
    for (uint32_t i = from; i < to; ++i) {
        image[event.address + i] =
            event.kind == DeviceEvent::Kind::erase ? uint8_t{0xFF} : event.bytes[i];
    }
}

} // namespace

std::string Tear::name() const {
    return static_cast<char>(kind) + std::to_string(at);
}

PowerCut::PowerCut(PowerCutStore &store) : store_(store) {
    const char *choice = std::getenv("DOLM_POWER_CUT");
    const std::string text = choice != nullptr ? choice : "";
    full_ = text == "full";
    replay_ = full_ ? "" : text;
}

void PowerCut::explore(const Workload &workload) {
    if (!replay_.empty() && !replay_.starts_with(workload.name + "/")) {
        return;
    }
    failures_ = 0;
    for (auto &level : visited_) {
        level.clear();
    }
    const State start{workload.name, &workload.files, &workload.files, "", false};
    Image image = workload.start;
    try {
        const Recording recording =
            run_and_check(image, start, [&](const Files &) { return workload.changes; });
        replayed_ = false;
        cut_everywhere(workload.start, recording, start, 1);
        if (!replay_.empty() && !replayed_) {
            ADD_FAILURE() << "there is no state " << replay_;
        }
    } catch (const std::runtime_error &error) {
        fail(start, error.what());
    }
}

// Mounts an image, holds it against what may be there, goes on with some changes and looks again.
PowerCut::Recording PowerCut::run_and_check(Image &image, const State &state,
                                            const Changes &changes) {
    const Session session(store_, image);
    std::vector<DeviceEvent> &log = DeviceDouble::instance().log();
    Recording recording;

    mount(store_, image, "the mount");
    Files files = store_.read_files();
    if (files != *state.before && files != *state.after) {
        throw Broken("the mount shows " + describe(files, *state.before, *state.after));
    }
    expect_sound(store_, image, files, "the mount");
    mount(store_, image, "the second mount");
    expect_sound(store_, image, files, "the second mount");
    recording.segments.push_back({log.size(), *state.before, *state.after, true});

    for (const Change &change : changes(files)) {
        Files before = files;
        if (const uint32_t status = change.run(); status != 0) {
            throw Broken(change.name + " fails with " + std::to_string(status));
        }
        if (change.effect) {
            change.effect(files);
        }
        recording.segments.push_back({log.size(), std::move(before), files});
    }
    expect_sound(store_, image, files, "the store after its changes");
    mount(store_, image, "the mount after the changes");
    expect_sound(store_, image, files, "the mount after the changes");
    recording.segments.push_back({log.size(), files, files});

    counts_.rewrites += expect_discipline(state.unclaimed_bytes) ? 1 : 0;
    recording.events = std::move(log);
    return recording;
}

// What a cut may throw the store back to. Once the last write of a change has landed, the change is
// acknowledged before anything else is written: then only the new files will do.
const Files &PowerCut::oldest_allowed(const Segment &segment, size_t k, const Tear &tear) {
    const bool acknowledged =
        !segment.is_mount && tear.kind == Tear::Kind::whole && k + 1 == segment.end;
    return acknowledged ? segment.after : segment.before;
}

uint64_t PowerCut::stride_for(const Recording &recording, unsigned level) const {
    uint64_t cuts = 0;
    for (const DeviceEvent &event : recording.events) {
        cuts += tears(event).size();
    }
    if (full_) {
        return level == 1 ? 1 : 1 + cuts / full_second_cuts;
    }
    return level == 1 ? 1 + cuts / sample_first_cuts : sample_stride;
}

void PowerCut::cut_everywhere(const Image &start, const Recording &recording, const State &parent,
                              unsigned level) {
    const uint64_t stride = stride_for(recording, level);
    Image before = start;
    auto segment = recording.segments.begin();
    for (size_t k = 0; k < recording.events.size(); ++k) {
        while (k >= segment->end) {
            ++segment;
        }
        const DeviceEvent &event = recording.events[k];
        for (const Tear &tear : tears(event)) {
            State state{parent.id + "/" + std::to_string(k) + tear.name(),
                        &oldest_allowed(*segment, k, tear), &segment->after, "",
                        parent.unclaimed_bytes};
            if (failures_ >= max_reported_failures || !is_chosen(state.id, stride)) {
                continue;
            }
            const Image image = torn(before, event, tear);
            state.limit = store_.limit(recording.events, k, tear, image);
            state.unclaimed_bytes =
                state.unclaimed_bytes || store_.leaves_unclaimed_bytes(recording.events, k);
            const uint64_t oracle = hash_files(hash_files(hash_start, *state.before), *state.after);
            if (is_new(mix(hash_bytes(oracle, image), state.limit.size()), level)) {
                visit(image, state, level);
            }
        }
        apply(before, event, 0, event.length);
    }
}

void PowerCut::chain(const Workload &workload, uint64_t seed, unsigned cuts) {
    const std::string name = workload.name + "." + std::to_string(seed);
    if (!replay_.empty() && !replay_.starts_with(name + "/")) {
        return;
    }
    failures_ = 0;
    Image image = workload.start;
    Files before = workload.files;
    Files after = workload.files;
    State state{"", &before, &after, "", false};
    uint64_t random = mix(hash_start, seed);
    for (unsigned step = 0; step < cuts && failures_ == 0; ++step) {
        state.id = name + "/" + std::to_string(step);
        Image work = image;
        try {
            random = mix(random, step);
            const auto choice = static_cast<uint32_t>(random >> 16);
            const Recording recording = run_and_check(work, state, [&](const Files &files) {
                return store_.further_changes(choice, files);
            });
            random = mix(random, step);
            if (!cut_somewhere(image, recording, state, before, after, random >> 8)) {
                image = work;
                before = after = recording.segments.back().after;
            }
            ++counts_.chained;
        } catch (const std::runtime_error &error) {
            fail(state, error.what());
        }
    }
}

// False if the cut that was drawn is one that the format cannot stand, or there was nothing to cut.
bool PowerCut::cut_somewhere(Image &image, const Recording &recording, State &state, Files &before,
                             Files &after, uint64_t random) const {
    if (recording.events.empty()) {
        return false;
    }
    const size_t k = random % recording.events.size();
    const DeviceEvent &event = recording.events[k];
    const std::vector<Tear> all = tears(event);
    const Tear tear = all[(random >> 24) % all.size()];
    Image reached = image;
    for (size_t i = 0; i < k; ++i) {
        apply(reached, recording.events[i], 0, recording.events[i].length);
    }
    reached = torn(reached, event, tear);
    if (!store_.limit(recording.events, k, tear, reached).empty()) {
        return false;
    }
    const auto segment = std::find_if(recording.segments.begin(), recording.segments.end(),
                                      [k](const Segment &candidate) { return k < candidate.end; });
    image = std::move(reached);
    before = oldest_allowed(*segment, k, tear);
    after = segment->after;
    state.unclaimed_bytes =
        state.unclaimed_bytes || store_.leaves_unclaimed_bytes(recording.events, k);
    return true;
}

// A state counts once, but is visited again with fewer cuts behind it: from there it goes further.
bool PowerCut::is_new(uint64_t hash, unsigned level) {
    if (!visited_[level].insert(hash).second) {
        return false;
    }
    const auto others = level == 1 ? 2 : 1;
    if (!visited_[others].contains(hash)) {
        ++(level == 1 ? counts_.first_level : counts_.second_level);
        return true;
    }
    return level == 1;
}

void PowerCut::visit(const Image &image, const State &state, unsigned level) {
    counts_.at_limit[state.limit].states += 1;
    replayed_ = replayed_ || state.id == replay_;
    Image work = image;
    try {
        const auto choice = static_cast<uint32_t>(hash_text(state.id) >> 16);
        const Recording recording = run_and_check(
            work, state, [&](const Files &files) { return store_.further_changes(choice, files); });
        if (level < max_level && state.limit.empty()) {
            cut_everywhere(image, recording, state, level + 1);
        }
    } catch (const Undisciplined &error) {
        fail(state, error.what());
    } catch (const std::runtime_error &error) {
        if (state.limit.empty()) {
            fail(state, error.what());
        } else {
            ++counts_.at_limit[state.limit].lost;
        }
    }
}

std::vector<Tear> PowerCut::tears(const DeviceEvent &event) const {
    std::set<uint32_t> cuts;
    for (const uint32_t boundary : store_.boundaries(event)) {
        for (const uint32_t cut : {boundary - 1, boundary, boundary + 1}) {
            if (cut > 0 && cut < event.length) {
                cuts.insert(cut);
            }
        }
    }

    std::vector<Tear> result{{Tear::Kind::whole, 0}};
    for (const uint32_t cut : cuts) {
        result.push_back({Tear::Kind::prefix, cut});
    }
    if (event.kind == DeviceEvent::Kind::erase) {
        return result;
    }
    for (const uint32_t cut : cuts) {
        result.push_back({Tear::Kind::suffix, cut});
    }
    for (uint32_t i = 0; i < bit_variants; ++i) {
        result.push_back({Tear::Kind::bits, i});
    }
    for (uint32_t i = 0; i < store_.torn_values(event).size(); ++i) {
        result.push_back({Tear::Kind::value, i});
    }
    return result;
}

Image PowerCut::torn(const Image &before, const DeviceEvent &event, const Tear &tear) const {
    Image image = before;
    switch (tear.kind) {
    case Tear::Kind::whole:
        apply(image, event, 0, event.length);
        break;
    case Tear::Kind::prefix:
        apply(image, event, 0, tear.at);
        break;
    case Tear::Kind::suffix:
        apply(image, event, tear.at, event.length);
        break;
    case Tear::Kind::bits: {
        uint64_t random = mix(mix(hash_start, event.address), tear.at);
        for (uint32_t i = 0; i < event.length; ++i) {
            random = mix(random, i);
            uint8_t &byte = image[event.address + i];
            byte = static_cast<uint8_t>(byte ^ ((byte ^ event.bytes[i]) & random >> 24));
        }
        break;
    }
    case Tear::Kind::value: {
        const std::vector<uint8_t> value = store_.torn_values(event)[tear.at];
        std::copy(value.begin(), value.end(), image.begin() + event.address);
        break;
    }
    }
    return image;
}

bool PowerCut::is_chosen(const std::string &id, uint64_t stride) const {
    if (!replay_.empty()) {
        return replay_ == id || replay_.starts_with(id + "/");
    }
    return (hash_text(id) >> 20) % stride == 0;
}

void PowerCut::fail(const State &state, const std::string &what) {
    if (++failures_ <= max_reported_failures) {
        ADD_FAILURE() << what << "\nThis alone: DOLM_POWER_CUT=" << state.id;
    }
}

std::ostream &operator<<(std::ostream &out, const PowerCutCounts &counts) {
    out << counts.states() << " states, " << counts.first_level << " after one cut and "
        << counts.second_level << " after two";
    for (const auto &[limit, found] : counts.at_limit) {
        if (!limit.empty()) {
            out << "; " << limit << ": " << found.states << ", lost " << found.lost;
        }
    }
    return out << "; unclaimed bytes written over: " << counts.rewrites;
}

} // namespace dolm_test
