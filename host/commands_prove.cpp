#include <algorithm>
#include <iomanip>
#include <optional>
#include <sstream>

#include "host/assignments.h"
#include "host/commands.h"
#include "host/counted.h"
#include "host/errors.h"
#include "host/library.h"
#include "host/output.h"
#include "host/progress.h"
#include "host/set_files.h"
#include "host/system.h"
#include "image/efs_layout.h"
#include "proof/hash.h"
#include "proof/power_cut.h"
#include "proof/set_store.h"

namespace dolm {

namespace {

namespace fs = std::filesystem;

// Of both stores together, as the proofs have it.
Bytes image_of(const SetFiles &set) {
    Bytes image = set.qfs_image;
    image.insert(image.end(), set.efs_image.begin(), set.efs_image.end());
    return image;
}

// Tries the names and values on a copy of the set, by a start-up of its own.
std::vector<proof::NewValue> try_assignments(SetFiles copy, uint32_t sku,
                                             const std::vector<Assignment> &assignments) {
    Library library(copy, sku);
    if (!qoQfsIsVfsDeployed()) {
        throw Failure("the set has no deployed VFS, so that no value is ever written to flash");
    }
    std::vector<proof::NewValue> values;
    for (const ValueChange &change : assign(library, assignments)) {
        values.push_back({change.name, change.after});
    }
    return values;
}

// Begins the identifiers of a set's states, so that one is not taken for that of another set or of
// other changes.
std::string workload_name(const SetFiles &set, uint32_t sku,
                          const std::vector<proof::NewValue> &values) {
    uint64_t hash = proof::mix(proof::hash_start, sku);
    for (const Bytes *file :
         {&set.orvel_cfg, &set.vync_cfg, &set.ftbl, &set.qfs_image, &set.efs_image}) {
        hash = proof::hash_bytes(proof::mix(hash, file->size()), *file);
    }
    for (const proof::NewValue &value : values) {
        hash = proof::mix(hash, proof::hash_text(value.name));
        hash = proof::hash_bytes(proof::mix(hash, value.value.size()), value.value);
    }
    std::ostringstream name;
    name << std::hex << std::setw(8) << std::setfill('0') << (hash >> 32);
    return name.str();
}

proof::Choice choice_of(const ProveOptions &options) {
    proof::Choice choice;
    if (options.replay) {
        choice.replay = *options.replay;
        return choice;
    }
    if (!options.all) {
        const bool one_deep = options.depth == 1;
        choice.first = one_deep ? options.states : std::max<uint64_t>(1, options.states / 5);
        choice.second = options.states - choice.first;
    }
    if (options.depth == 1) {
        choice.second = 0;
    }
    return choice;
}

proof::Findings cut_everywhere(const SetFiles &set, uint32_t sku,
                               const std::vector<proof::NewValue> &values,
                               const ProveOptions &options) {
    const std::string name = workload_name(set, sku, values);
    if (options.replay && !options.replay->starts_with(name + "/")) {
        throw Failure("there is no state " + *options.replay + "; those of this set and these " +
                      "changes begin with " + name + "/");
    }
    std::optional<EfsLayout> layout;
    if (!set.efs_image.empty()) {
        layout = read_efs_layout(set.ftbl, sku);
    }
    // The library has a line there for each mount that fails, and here most may fail.
    const system::DiscardedOutput discarded;
    proof::SetStore store({set.orvel_cfg, set.vync_cfg, set.ftbl, sku}, set.qfs_image.size(),
                          layout);
    const Bytes image = image_of(set);
    const proof::Change termination = store.termination(image, values);
    std::optional<Progress> progress;
    return proof::explore(store, {name, image, store.files_on(image), {termination}},
                          choice_of(options), [&](uint64_t, uint64_t total) {
                              if (!progress) {
                                  progress.emplace("cutting the power, place", total);
                              }
                              progress->step();
                          });
}

// Over all states after one cut.
uint64_t files_found_old(const proof::Findings &findings) {
    uint64_t sum = 0;
    for (const auto &[old_files, states] : findings.states_by_old_files) {
        sum += old_files * states;
    }
    return sum;
}

uint64_t files_found_new(const proof::Findings &findings) {
    uint64_t sum = 0;
    for (const auto &[old_files, states] : findings.states_by_old_files) {
        sum += (findings.files - old_files) * states;
    }
    return sum;
}

uint64_t states_at_limits(const proof::Findings &findings) {
    uint64_t sum = 0;
    for (const auto &[name, found] : findings.at_limit) {
        sum += found.states;
    }
    return sum;
}

Json to_json(const proof::Findings &findings) {
    Json json{{"states",
               {{"one_deep", findings.first_level},
                {"two_deep", findings.second_level},
                {"at_limits", states_at_limits(findings)}}},
              {"writes", findings.writes},
              {"erases", findings.erases},
              {"bytes", findings.bytes},
              {"files", findings.files},
              {"old", files_found_old(findings)},
              {"new", files_found_new(findings)},
              {"left", Json::array()},
              {"limits", Json::array()},
              {"failed", findings.failed},
              {"failures", Json::array()},
              {"examples", Json::array()}};
    for (const auto &[old_files, states] : findings.states_by_old_files) {
        json["left"].push_back(
            {{"old", old_files}, {"new", findings.files - old_files}, {"states", states}});
    }
    for (const auto &[name, found] : findings.at_limit) {
        json["limits"].push_back(
            {{"name", name}, {"why", found.why}, {"states", found.states}, {"lost", found.lost}});
    }
    for (const proof::Failure &failure : findings.failures) {
        json["failures"].push_back({{"id", failure.id}, {"reason", failure.reason}});
    }
    for (const std::string &id : findings.examples) {
        json["examples"].push_back({{"id", id}});
    }
    return json;
}

void print_left_files(const proof::Findings &findings) {
    print_line(findings.has_changes
                   ? "of " + counted(findings.files, "changed file") + " one cut leaves"
                   : "no file changes; of " + counted(findings.files, "file") + " one cut leaves");
    for (const auto &[old_files, states] : findings.states_by_old_files) {
        const std::string kept = std::to_string(findings.files - old_files);
        print_line((findings.has_changes
                        ? "  " + kept + " new and " + std::to_string(old_files) + " old in "
                        : "  " + kept + " as before in ") +
                   counted(states, "state"));
    }
}

void print(const proof::Findings &findings) {
    print_line("written: " + counted(findings.bytes, "byte") + " in " +
               counted(findings.writes, "write") + ", " + counted(findings.erases, "erase"));
    print_line("visited: " + counted(findings.first_level, "state") + " after one cut, " +
               std::to_string(findings.second_level) + " after two");
    print_left_files(findings);
    for (const auto &[name, found] : findings.at_limit) {
        print_line("at a limit of the format, which no library can help: " + name);
        print_line("  " + counted(found.states, "state") + ", of which " +
                   std::to_string(found.lost) + " lost a file: " + found.why);
    }
    if (!findings.examples.empty()) {
        print_line("for --replay, one that holds: " + findings.examples.back());
    }
    for (const proof::Failure &failure : findings.failures) {
        const bool is_state = failure.id.find('/') != failure.id.npos;
        print_line((is_state ? failure.id : std::string("without a cut")) +
                   " fails: " + failure.reason);
    }
    if (findings.failed > findings.failures.size()) {
        print_line("and " + std::to_string(findings.failed - findings.failures.size()) + " more");
    }
    print_line(counted(findings.failed, "state") + " failed");
}

void print_replay(const proof::Findings &findings, const std::string &id) {
    if (findings.failures.empty()) {
        print_line(id + " holds");
    }
    for (const proof::Failure &failure : findings.failures) {
        print_line(failure.id + " fails: " + failure.reason);
    }
    for (const auto &[name, found] : findings.at_limit) {
        print_line("it is at a limit of the format, " + name + ": " + found.why);
    }
}

// The set as a cut left it. The tables are not in flash, so that they are still the old ones.
void save_image(const ProveOptions &options, SetFiles set, uint32_t sku, const Bytes &image) {
    const auto efs_at = image.begin() + static_cast<std::ptrdiff_t>(set.qfs_image.size());
    set.qfs_image.assign(image.begin(), efs_at);
    set.efs_image.assign(efs_at, image.end());
    set.sku = sku;
    const SetFolder target(*options.output, SetFolder::Use::change, options.lock_timeout);
    refuse_other_set(*options.output, options.replace);
    target.save(set, [] {});
}

} // namespace

void prove_set(const ProveOptions &options) {
    const std::vector<Assignment> assignments = read_assignments(options.words);
    require_one_each(assignments);
    if (options.output && fs::exists(*options.output) &&
        fs::equivalent(*options.output, options.folder)) {
        throw UsageError("the output folder is the set itself");
    }
    if (options.output) {
        refuse_other_set(*options.output, options.replace);
    }
    const SetFiles set = load_set(options.folder, options.lock_timeout);
    const uint32_t sku = choose_sku(set, options.sku);
    const auto values = try_assignments(set, sku, assignments);
    const proof::Findings findings = cut_everywhere(set, sku, values, options);
    if (options.replay && !findings.replayed) {
        throw Failure(findings.failures.front().reason);
    }
    if (options.output) {
        save_image(options, set, sku, *findings.replayed);
    }
    if (tells_json()) {
        print_json(to_json(findings));
    } else if (options.replay) {
        print_replay(findings, *options.replay);
    } else {
        print(findings);
    }
    if (findings.failed != 0) {
        flush_output();
        throw Failure(options.folder.string() + " does not stand every cut of the power");
    }
}

} // namespace dolm
