#include "host/commit.h"

#include <algorithm>
#include <set>

#include "host/errors.h"
#include "host/journal.h"
#include "host/output.h"
#include "host/system.h"

namespace dolm {

namespace fs = std::filesystem;

namespace {

constexpr uint64_t max_journal_size = 65536;

// What a path stands for behind all links, there or not.
fs::path behind_links(fs::path path) {
    constexpr int most_links = 40;
    for (int i = 0; fs::is_symlink(fs::symlink_status(path)); ++i) {
        if (i == most_links) {
            throw Failure(path.string() + ": too many links");
        }
        // An absolute target takes the place of the folder.
        path = path.parent_path() / fs::read_symlink(path);
    }
    return path;
}

// True if a new file can take the place of what is there, or there is nothing. A file with other
// names stays the one that they all stand for.
bool is_replaceable(const fs::path &target) {
    const fs::file_status status = fs::status(target);
    if (fs::is_directory(status)) {
        throw Failure(target.string() + " is a folder");
    }
    return !fs::exists(status) || (fs::is_regular_file(status) &&
                                   fs::hard_link_count(target) == 1 && system::may_replace(target));
}

std::string unused_name(const fs::path &folder, const std::string &stem) {
    for (int attempt = 0;; ++attempt) {
        std::string name = fresh_name(stem, attempt);
        if (!fs::exists(fs::symlink_status(folder / name))) {
            return name;
        }
    }
}

// A step of a journal with the paths that it works on.
struct Step {
    JournalStep::Kind kind;
    fs::path target; // behind any links; the member's own name to remove it
    fs::path fresh;
};

Step locate(const fs::path &folder, const JournalStep &step) {
    const fs::path path = folder / step.member;
    if (step.kind == JournalStep::Kind::remove) {
        return {step.kind, path, {}};
    }
    const fs::path target = behind_links(path);
    const bool lies_beside = step.kind == JournalStep::Kind::replace;
    return {step.kind, target, (lies_beside ? target.parent_path() : folder) / step.fresh};
}

std::vector<Step> locate(const fs::path &folder, const Journal &journal) {
    std::vector<Step> steps;
    for (const JournalStep &step : journal) {
        steps.push_back(locate(folder, step));
    }
    return steps;
}

JournalStep plan(const fs::path &folder, const MemberChange &change) {
    using Kind = JournalStep::Kind;
    if (!change.content) {
        return {Kind::remove, change.member, ""};
    }
    const fs::path target = behind_links(folder / change.member);
    const bool replaces = is_replaceable(target);
    return {replaces ? Kind::replace : Kind::overwrite, change.member,
            unused_name(replaces ? target.parent_path() : folder, change.member)};
}

std::string cannot_write(const fs::path &path, const std::error_code &error) {
    return "cannot write " + path.string() + ": " + error.message();
}

// Makes a new file that is to take the place of another or goes its own way.
void make_file(const fs::path &path, const Bytes &content, const fs::path &replaced) {
    try {
        system::create(path, content, replaced);
    } catch (const std::system_error &failure) {
        throw Failure(cannot_write(replaced.empty() ? path : replaced, failure.code()));
    }
}

std::set<fs::path> folders_of(const fs::path &folder, const std::vector<Step> &steps) {
    std::set<fs::path> folders{folder};
    for (const Step &step : steps) {
        folders.insert(step.target.parent_path());
    }
    return folders;
}

std::error_code sync_all(const std::set<fs::path> &folders) {
    std::error_code first;
    for (const fs::path &folder : folders) {
        std::error_code error;
        system::sync_folder(folder, error);
        first = first ? first : error;
    }
    return first;
}

// Takes a step that has not been taken.
std::error_code take(const Step &step) {
    std::error_code error;
    if (step.kind == JournalStep::Kind::remove) {
        fs::remove(step.target, error);
        return error;
    }
    if (!fs::exists(fs::symlink_status(step.fresh, error))) {
        return {};
    }
    if (step.kind == JournalStep::Kind::replace) {
        system::replace(step.fresh, step.target, error);
        return error;
    }
    try {
        system::overwrite(step.target, system::read(step.fresh, fs::file_size(step.fresh)));
    } catch (const std::system_error &failure) {
        return failure.code();
    }
    fs::remove(step.fresh, error);
    return error;
}

// Removes the new files and then the journal.
std::error_code undo(const fs::path &folder, const std::vector<Step> &steps) {
    std::error_code first;
    for (const Step &step : steps) {
        std::error_code error;
        if (!step.fresh.empty()) {
            fs::remove(step.fresh, error);
        }
        first = first ? first : error;
    }
    if (!first) {
        fs::remove(folder / undo_journal_name, first);
    }
    return first;
}

// Removes the journal of a change that has been put in place.
std::error_code close_journal(const fs::path &folder, const std::vector<Step> &steps) {
    // Else a cut of the power could keep the removal of the journal and lose what it stood for.
    std::error_code error = sync_all(folders_of(folder, steps));
    if (!error) {
        fs::remove(folder / finish_journal_name, error);
    }
    return error;
}

void prepare(const fs::path &folder, const std::vector<MemberChange> &changes,
             const Journal &journal, const std::vector<Step> &steps) {
    make_file(folder / undo_journal_name, to_bytes(journal), {});
    for (size_t i = 0; i < steps.size(); ++i) {
        if (changes[i].content) {
            const bool replaces = steps[i].kind == JournalStep::Kind::replace;
            make_file(steps[i].fresh, *changes[i].content, replaces ? steps[i].target : fs::path());
        }
    }
    if (const std::error_code error = sync_all(folders_of(folder, steps))) {
        throw Failure(cannot_write(folder, error));
    }
}

void decide(const fs::path &folder) {
    std::error_code error;
    system::replace(folder / undo_journal_name, folder / finish_journal_name, error);
    if (error) {
        throw Failure(cannot_write(folder, error));
    }
}

// Takes the decision back if the very first step fails; behind it there is no way back.
void put_in_place(const fs::path &folder, const std::vector<Step> &steps) {
    std::error_code error;
    system::sync_folder(folder, error);
    for (size_t i = 0; !error && i < steps.size(); ++i) {
        error = take(steps[i]);
        if (error && i == 0 && steps[i].kind != JournalStep::Kind::overwrite) {
            std::error_code no_way_back;
            system::replace(folder / finish_journal_name, folder / undo_journal_name, no_way_back);
            if (!no_way_back) {
                throw Failure(cannot_write(steps[i].target, error));
            }
        }
    }
    error = error ? error : close_journal(folder, steps);
    if (error) {
        tell_notice("warning: the change stands, but was not tidied up: " + error.message() +
                    "; the next command on " + folder.string() + " does it");
    }
}

Journal load_journal(const fs::path &path, bool must_be_whole) {
    const auto journal = read_journal(system::read(path, max_journal_size));
    if (!journal && must_be_whole) {
        throw Failure(path.string() + " is damaged; the set may hold half of a change");
    }
    return journal.value_or(Journal{});
}

} // namespace

void commit(const fs::path &folder, const std::vector<MemberChange> &changes,
            const std::function<void()> &before_decision) {
    if (changes.empty()) {
        before_decision();
        return;
    }
    const system::HeldSignals held;
    std::vector<MemberChange> ordered = changes;
    std::stable_partition(ordered.begin(), ordered.end(),
                          [](const MemberChange &change) { return change.content.has_value(); });
    Journal journal;
    for (const MemberChange &change : ordered) {
        journal.push_back(plan(folder, change));
    }
    const std::vector<Step> steps = locate(folder, journal);
    try {
        prepare(folder, ordered, journal, steps);
        before_decision();
        if (system::HeldSignals::any()) {
            throw Failure("ended by a signal");
        }
        decide(folder);
        put_in_place(folder, steps);
    } catch (const std::exception &) {
        undo(folder, steps);
        throw;
    }
}

bool is_interrupted(const fs::path &folder) {
    return fs::exists(folder / undo_journal_name) || fs::exists(folder / finish_journal_name);
}

void recover(const fs::path &folder) {
    const system::HeldSignals held;
    const bool was_decided = fs::exists(folder / finish_journal_name);
    std::error_code error;
    if (was_decided) {
        const auto steps = locate(folder, load_journal(folder / finish_journal_name, true));
        for (const Step &step : steps) {
            error = error ? error : take(step);
        }
        error = error ? error : close_journal(folder, steps);
    } else {
        error = undo(folder, locate(folder, load_journal(folder / undo_journal_name, false)));
    }
    if (error) {
        throw Failure(folder.string() + ": a change was interrupted, and could not be " +
                      (was_decided ? "finished: " : "undone: ") + error.message());
    }
    tell_notice(folder.string() + ": a change had been interrupted; it was " +
                (was_decided ? "finished" : "undone"));
}

void write_file(const fs::path &path, const Bytes &content) {
    const system::HeldSignals held;
    const fs::path target = behind_links(path);
    fs::path fresh;
    try {
        if (!is_replaceable(target)) {
            system::overwrite(target, content);
            return;
        }
        const fs::path folder = target.parent_path();
        fresh = folder / unused_name(folder, target.filename().string());
        system::create(fresh, content, target);
        std::error_code error;
        system::replace(fresh, target, error);
        if (!error) {
            system::sync_folder(folder, error);
        }
        if (error) {
            throw std::system_error(error);
        }
    } catch (const std::system_error &failure) {
        std::error_code ignored;
        if (!fresh.empty()) {
            fs::remove(fresh, ignored);
        }
        throw Failure(cannot_write(path, failure.code()));
    }
}

} // namespace dolm
