#include "proof/power_cut.h"

#include <algorithm>
#include <ostream>
#include <set>
#include <stdexcept>
#include <unordered_set>
#include <utility>

#include "proof/hash.h"
#include "proof/recording.h"
#include "proof/tears.h"

namespace dolm::proof {
namespace {

constexpr unsigned max_level = 2;
constexpr size_t max_kept_failures = 20;

uint64_t hash_files(uint64_t hash, const Files &files) {
    for (const auto &[number, contents] : files) {
        hash = hash_bytes(mix(mix(hash, number), contents.size()), contents);
    }
    return hash;
}

// Picks about `wanted` of `total` things, evenly, from a place on that differs with the seed.
class Sample {
  public:
    Sample(uint64_t wanted, uint64_t total, uint64_t seed)
        : wanted_(std::min(wanted, total)), total_(total), at_(total == 0 ? 0 : seed % total) {}

    bool takes_next() {
        const uint64_t at = at_;
        at_ = (at_ + 1) % total_;
        return at * wanted_ / total_ != (at + 1) * wanted_ / total_;
    }

  private:
    uint64_t wanted_;
    uint64_t total_;
    uint64_t at_;
};

class Explorer {
  public:
    Explorer(FlashStore &store, Choice choice, OnProgress on_progress)
        : store_(store), choice_(std::move(choice)), on_progress_(std::move(on_progress)) {}

    Findings explore(const Workload &workload);
    Findings chain(const Workload &workload, uint64_t seed, unsigned cuts);

  private:
    Recording record(const Workload &workload, const State &start);
    Recording run_and_check(Image &image, const State &state, const Changes &changes);
    void cut_everywhere(const Image &start, const Recording &recording, const State &parent,
                        unsigned level);
    bool cut_somewhere(Image &image, const Recording &recording, State &state, Files &before,
                       Files &after, uint64_t random) const;
    void visit(const Image &image, const State &state, unsigned level);
    uint64_t count_tears(const Recording &recording) const;
    uint64_t share_of_second_cuts() const;
    bool leads_to_replay(const std::string &id) const;
    bool is_new(uint64_t hash, unsigned level);
    void expect_visits() const;
    void note_workload(const Recording &recording);
    void note_sound(const State &state, const Files &files, unsigned level);
    void note_progress(unsigned level);
    void fail(const State &state, const std::string &reason, const Image &image);

    FlashStore &store_;
    const Choice choice_;
    const OnProgress on_progress_;
    Findings findings_;
    std::unordered_set<uint64_t> visited_[max_level + 1]; // states of each level
    uint64_t first_cuts_ = 0;                             // to be made
    uint64_t first_cuts_made_ = 0;
    uint64_t sound_[max_level + 1] = {};
    std::set<uint32_t> watched_; // the files that the workload changes, or all
    Files new_files_;            // what it leaves
};

Findings Explorer::explore(const Workload &workload) {
    const State start{workload.name, &workload.files, &workload.files, nullptr, false};
    try {
        const Recording recording = record(workload, start);
        note_workload(recording);
        cut_everywhere(workload.start, recording, start, 1);
        expect_visits();
    } catch (const std::runtime_error &error) {
        fail(start, error.what(), workload.start);
    }
    return std::move(findings_);
}

// Runs the workload without a cut. If that leaves anything wrong, the last write or erase of it has
// left it, as any cut does.
Recording Explorer::record(const Workload &workload, const State &start) {
    Image image = workload.start;
    const Session session(store_, image);
    Recording recording =
        run(store_, image, start, [&](const Files &) { return workload.changes; });
    try {
        findings_.rewrites += look_again(store_, image, recording, start) ? 1 : 0;
    } catch (const std::runtime_error &error) {
        const size_t events = DeviceDouble::instance().log().size();
        if (events == 0) {
            throw;
        }
        State end = start;
        end.id += "/" + std::to_string(events - 1) + Tear{}.name();
        fail(end, error.what(), image);
    }
    take_log(recording);
    return recording;
}

void Explorer::expect_visits() const {
    if (findings_.failed != 0) {
        return;
    }
    if (!choice_.replay.empty() && !findings_.replayed) {
        throw Broken("there is no state " + choice_.replay);
    }
    if (findings_.states() + findings_.chained == 0) {
        throw Broken("there is no state to visit");
    }
}

Recording Explorer::run_and_check(Image &image, const State &state, const Changes &changes) {
    const Session session(store_, image);
    Recording recording = run(store_, image, state, changes);
    findings_.rewrites += look_again(store_, image, recording, state) ? 1 : 0;
    take_log(recording);
    return recording;
}

void Explorer::note_workload(const Recording &recording) {
    for (const DeviceEvent &event : recording.events) {
        const bool is_write = event.kind == DeviceEvent::Kind::write;
        ++(is_write ? findings_.writes : findings_.erases);
        findings_.bytes += is_write ? event.length : 0;
    }
    const Files &before = recording.files_at_mount;
    const Files &after = recording.segments.back().after;
    watched_ = numbers_in({&before, &after});
    findings_.has_changes = before != after;
    if (findings_.has_changes) {
        std::erase_if(watched_, [&](uint32_t number) { return same(before, after, number); });
    }
    new_files_ = after;
    findings_.files = watched_.size();
    first_cuts_ = choice_.replay.empty() ? std::min(choice_.first, count_tears(recording)) : 1;
}

void Explorer::cut_everywhere(const Image &start, const Recording &recording, const State &parent,
                              unsigned level) {
    Sample sample(level == 1 ? first_cuts_ : share_of_second_cuts(), count_tears(recording),
                  level == 1 ? 0 : hash_text(parent.id));
    Image before = start;
    auto segment = recording.segments.begin();
    for (size_t k = 0; k < recording.events.size(); ++k) {
        while (k >= segment->end) {
            ++segment;
        }
        const DeviceEvent &event = recording.events[k];
        for (const Tear &tear : tears_of(store_, event)) {
            State state{parent.id + "/" + std::to_string(k) + tear.name(),
                        &oldest_allowed(*segment, k, tear), &segment->after, nullptr,
                        parent.unclaimed_bytes};
            const bool taken = sample.takes_next();
            if (choice_.replay.empty() ? !taken : !leads_to_replay(state.id)) {
                continue;
            }
            const Image image = torn(store_, before, event, tear);
            state.limit = store_.limit(recording.events, k, tear, image);
            state.unclaimed_bytes =
                state.unclaimed_bytes || store_.leaves_unclaimed_bytes(recording.events, k);
            const uint64_t oracle = hash_files(hash_files(hash_start, *state.before), *state.after);
            if (is_new(mix(hash_bytes(oracle, image), state.limit != nullptr ? 1 : 0), level)) {
                visit(image, state, level);
            }
            note_progress(level);
        }
        apply(before, event);
    }
}

uint64_t Explorer::count_tears(const Recording &recording) const {
    uint64_t count = 0;
    for (const DeviceEvent &event : recording.events) {
        count += tears_of(store_, event).size();
    }
    return count;
}

// Of the second cuts, behind the first cut under way.
uint64_t Explorer::share_of_second_cuts() const {
    const uint64_t each = choice_.second / first_cuts_;
    return each + (first_cuts_made_ < choice_.second % first_cuts_ ? 1 : 0);
}

bool Explorer::leads_to_replay(const std::string &id) const {
    return choice_.replay == id || choice_.replay.starts_with(id + "/");
}

// A state counts once, but is visited again with fewer cuts behind it: from there it goes further.
bool Explorer::is_new(uint64_t hash, unsigned level) {
    if (!visited_[level].insert(hash).second) {
        return false;
    }
    const auto others = level == 1 ? 2 : 1;
    if (!visited_[others].contains(hash)) {
        ++(level == 1 ? findings_.first_level : findings_.second_level);
        return true;
    }
    return level == 1;
}

void Explorer::visit(const Image &image, const State &state, unsigned level) {
    if (state.limit != nullptr) {
        Findings::AtLimit &found = findings_.at_limit[state.limit->name];
        found.why = state.limit->why;
        ++found.states;
    }
    if (state.id == choice_.replay) {
        findings_.replayed = image;
    }
    Image work = image;
    try {
        const auto choice = static_cast<uint32_t>(hash_text(state.id) >> 16);
        const Recording recording = run_and_check(
            work, state, [&](const Files &files) { return store_.further_changes(choice, files); });
        note_sound(state, recording.files_at_mount, level);
        if (level < max_level && state.limit == nullptr && choice_.second != 0) {
            cut_everywhere(image, recording, state, level + 1);
        }
    } catch (const Undisciplined &error) {
        fail(state, error.what(), image);
    } catch (const std::runtime_error &error) {
        if (state.limit == nullptr) {
            fail(state, error.what(), image);
        } else {
            ++findings_.at_limit[state.limit->name].lost;
        }
    }
}

void Explorer::note_sound(const State &state, const Files &files, unsigned level) {
    if (state.limit != nullptr) {
        return;
    }
    if (level == 1) {
        const auto is_old = [&](uint32_t number) { return !same(files, new_files_, number); };
        ++findings_.states_by_old_files[static_cast<uint64_t>(
            std::count_if(watched_.begin(), watched_.end(), is_old))];
    }
    // The 1st, the 10th, the 100th ...
    const uint64_t count = ++sound_[level];
    const auto digits = std::to_string(count);
    if (digits.find_first_not_of('0', 1) == digits.npos && digits[0] == '1') {
        findings_.examples.push_back(state.id);
    }
}

void Explorer::note_progress(unsigned level) {
    if (level == 1) {
        ++first_cuts_made_;
        if (on_progress_) {
            on_progress_(first_cuts_made_, first_cuts_);
        }
    }
}

void Explorer::fail(const State &state, const std::string &reason, const Image &image) {
    if (++findings_.failed <= max_kept_failures) {
        findings_.failures.push_back({state.id, reason, image});
    }
}

Findings Explorer::chain(const Workload &workload, uint64_t seed, unsigned cuts) {
    const std::string name = workload.name + "." + std::to_string(seed);
    Image image = workload.start;
    Files before = workload.files;
    Files after = workload.files;
    State state{"", &before, &after, nullptr, false};
    uint64_t random = mix(hash_start, seed);
    for (unsigned step = 0; step < cuts && findings_.failed == 0; ++step) {
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
            ++findings_.chained;
        } catch (const std::runtime_error &error) {
            fail(state, error.what(), image);
        }
    }
    expect_visits();
    return std::move(findings_);
}

// False if the cut that was drawn is one that the format cannot stand, or there was nothing to cut.
bool Explorer::cut_somewhere(Image &image, const Recording &recording, State &state, Files &before,
                             Files &after, uint64_t random) const {
    if (recording.events.empty()) {
        return false;
    }
    const auto k = static_cast<size_t>(random % recording.events.size());
    const DeviceEvent &event = recording.events[k];
    const std::vector<Tear> all = tears_of(store_, event);
    const Tear tear = all[static_cast<size_t>((random >> 24) % all.size())];
    Image reached = image;
    for (size_t i = 0; i < k; ++i) {
        apply(reached, recording.events[i]);
    }
    reached = torn(store_, reached, event, tear);
    if (store_.limit(recording.events, k, tear, reached) != nullptr) {
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

} // namespace

Findings explore(FlashStore &store, const Workload &workload, const Choice &choice,
                 const OnProgress &on_progress) {
    return Explorer(store, choice, on_progress).explore(workload);
}

Findings chain(FlashStore &store, const Workload &workload, uint64_t seed, unsigned cuts) {
    return Explorer(store, Choice{}, {}).chain(workload, seed, cuts);
}

std::ostream &operator<<(std::ostream &out, const Findings &findings) {
    out << findings.states() << " states, " << findings.first_level << " after one cut and "
        << findings.second_level << " after two";
    for (const auto &[limit, found] : findings.at_limit) {
        out << "; " << limit << ": " << found.states << ", lost " << found.lost;
    }
    return out << "; unclaimed bytes written over: " << findings.rewrites;
}

} // namespace dolm::proof
