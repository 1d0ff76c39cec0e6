#include "host/set_files.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "host/commit.h"
#include "host/errors.h"
#include "host/output.h"

namespace dolm {

namespace fs = std::filesystem;

namespace {

constexpr uint64_t max_settings_size = 65536;

std::map<std::string, ChangedTable>
changed_tables(const SetFiles &set, const std::map<std::string, Checksums> &recorded) {
    std::map<std::string, ChangedTable> changed;
    for (const SetMember &member : set_members) {
        const auto known = recorded.find(member.name);
        if (known != recorded.end()) {
            const Checksums found = checksums_of(set.*member.content);
            if (found != known->second) {
                changed[member.name] = {known->second, found};
            }
        }
    }
    return changed;
}

// What a table is to be held against later. One that had changed behind dolm's back, and that is
// written as it was found, keeps the checksums by which that shows.
Checksums checksums_to_record(const SetFiles &set, const SetMember &member) {
    const Checksums current = checksums_of(set.*member.content);
    const auto changed = set.changed_tables.find(member.name);
    return changed != set.changed_tables.end() && changed->second.found == current
               ? changed->second.recorded
               : current;
}

// Names what is there, and what was said to belong to the set before, so that a lost file is missed
// after a change too.
SetSettings make_settings(const SetFiles &set) {
    SetSettings settings{*set.sku, {}, {}, {}};
    for (const SetMember &member : set_members) {
        const bool is_there = !(set.*member.content).empty();
        const bool is_counted =
            std::find(set.members.begin(), set.members.end(), member.name) != set.members.end();
        if (is_counted || is_there) {
            settings.members.push_back(member.name);
        }
        if (is_there && member.is_table) {
            settings.checksums[member.name] = checksums_to_record(set, member);
        }
    }
    return settings;
}

std::string sizes_text(const SetFiles &set) {
    std::string text;
    for (const SetMember &member : set_members) {
        if (const size_t size = (set.*member.content).size(); size != 0) {
            text += std::string(text.empty() ? " " : ", ") + member.name + " " +
                    std::to_string(size) + " bytes";
        }
    }
    return text;
}

// An unchanged file is left alone, so that its time of change tells the truth.
bool holds_already(const fs::path &path, const std::optional<Bytes> &content) {
    if (!fs::is_regular_file(path)) {
        return !content && !fs::exists(fs::symlink_status(path));
    }
    return content && fs::file_size(path) == content->size() &&
           read_file(path, content->size()) == *content;
}

std::chrono::milliseconds to_duration(double seconds) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::duration<double>(seconds));
}

} // namespace

Bytes read_file(const fs::path &path, uint64_t max_size) {
    static bool has_read_input = false;
    if (path == "-" && std::exchange(has_read_input, true)) {
        throw Failure("standard input can be read only once");
    }
    try {
        return system::read(path, max_size);
    } catch (const std::system_error &failure) {
        if (failure.code() == std::errc::file_too_large) {
            throw Failure(path.string() + " has more than " + std::to_string(max_size) +
                          " bytes, which are not plausible here");
        }
        throw Failure("cannot read " + (path == "-" ? "standard input" : path.string()) + ": " +
                      failure.code().message());
    }
}

bool holds_set(const fs::path &folder) {
    return fs::exists(folder / settings_name) ||
           std::any_of(std::begin(set_members), std::end(set_members),
                       [&](const SetMember &member) { return fs::exists(folder / member.name); });
}

void refuse_other_set(const fs::path &folder, bool replace) {
    if (!replace && holds_set(folder)) {
        throw UsageError(folder.string() + " holds a set already; --replace writes over it");
    }
}

NewFolders::NewFolders(const fs::path &folder) {
    for (fs::path each = folder; !each.empty() && !fs::exists(each); each = each.parent_path()) {
        made_.push_back(each);
    }
    try {
        fs::create_directories(folder);
    } catch (const fs::filesystem_error &) {
        remove_empty();
        throw;
    }
}

NewFolders::~NewFolders() {
    remove_empty();
}

void NewFolders::remove_empty() const {
    for (const fs::path &folder : made_) {
        std::error_code not_empty;
        fs::remove(folder, not_empty);
    }
}

SetFolder::SetFolder(fs::path folder, Use use, double lock_timeout) : path_(std::move(folder)) {
    try {
        if (use == Use::change) {
            new_.emplace(path_);
        }
        lock_.emplace(path_);
        if (new_ && !lock_->acquire(system::FolderLock::Kind::exclusive, {})) {
            new_->keep(); // another command has the folder now
        }
        if (new_ && !new_->any()) {
            new_.reset(); // waiting needs the signals
        }
        const auto kind = use == Use::read ? system::FolderLock::Kind::shared
                                           : system::FolderLock::Kind::exclusive;
        lock(kind, lock_timeout);
        // A reader lets others in between when it changes the kind of its lock.
        while (is_interrupted(path_)) {
            lock(system::FolderLock::Kind::exclusive, lock_timeout);
            if (is_interrupted(path_)) {
                recover(path_);
            }
            lock(kind, lock_timeout);
        }
    } catch (const std::system_error &failure) {
        throw Failure("cannot open the folder " + path_.string() + ": " + failure.code().message());
    }
}

SetFolder::~SetFolder() {
    if (new_ && lock_) {
        lock_->remove_empty_folder();
    }
}

void SetFolder::lock(system::FolderLock::Kind kind, double timeout) {
    constexpr double quiet = 1; // seconds after which a user wonders
    if (lock_->acquire(kind, to_duration(std::min(timeout, quiet)))) {
        return;
    }
    if (timeout > quiet) {
        tell_notice("waiting for another command that works on " + path_.string());
        if (lock_->acquire(kind, to_duration(timeout - quiet))) {
            return;
        }
    }
    throw Failure("another command works on " + path_.string() +
                  "; gave up waiting for it (--lock-timeout)");
}

std::optional<SetSettings> SetFolder::settings() const {
    const fs::path path = path_ / settings_name;
    if (!fs::exists(path)) {
        return std::nullopt;
    }
    auto settings = read_settings(read_file(path, max_settings_size));
    if (!settings) {
        throw Failure(path.string() + ": not of the form {\"sku\": NUMBER, \"members\": [NAME, "
                                      "...], \"checksums\": {...}}");
    }
    return settings;
}

SetFiles SetFolder::load() {
    SetFiles set;
    for (const SetMember &member : set_members) {
        const fs::path path = path_ / member.name;
        if (member.mandatory || fs::exists(path)) {
            set.*member.content = read_file(path, member.max_size);
        }
        if ((set.*member.content).empty()) {
            empty_.insert(member.name);
        }
    }
    tell_detail("read the set in " + path_.string() + ":" + sizes_text(set));
    if (auto said = settings()) {
        set.sku = said->sku;
        set.members = std::move(said->members);
        set.changed_tables = changed_tables(set, said->checksums);
    }
    return set;
}

SetFiles SetFolder::load_readable(std::vector<Problem> &unreadable) {
    SetFiles set;
    for (const SetMember &member : set_members) {
        const fs::path path = path_ / member.name;
        try {
            if (member.mandatory || fs::exists(path)) {
                set.*member.content = read_file(path, member.max_size);
            }
        } catch (const Failure &failure) {
            unreadable.push_back({member.name, "", "", failure.what()});
        }
    }
    try {
        if (auto said = settings()) {
            set.sku = said->sku;
            set.members = std::move(said->members);
            set.changed_tables = changed_tables(set, said->checksums);
        }
    } catch (const Failure &failure) {
        unreadable.push_back({settings_name, "", "", failure.what()});
    }
    return set;
}

void SetFolder::save(const SetFiles &set, const std::function<void()> &before_decision) const {
    std::vector<MemberChange> changes;
    const auto add = [&](const char *name, std::optional<Bytes> content) {
        if (!holds_already(path_ / name, content)) {
            changes.push_back({name, std::move(content)});
        }
    };
    for (const SetMember &member : set_members) {
        const Bytes &content = set.*member.content;
        const bool absent = content.empty() && !member.mandatory;
        if (!absent || !empty_.contains(member.name)) {
            add(member.name, absent ? std::nullopt : std::optional(content));
        }
    }
    add(settings_name, set.sku ? std::optional(to_bytes(make_settings(set))) : std::nullopt);
    commit(path_, changes, before_decision);
    for (const MemberChange &change : changes) {
        tell_detail((change.content ? "wrote " : "removed ") + (path_ / change.member).string());
    }
}

SetFiles load_set(const fs::path &folder, double lock_timeout) {
    return SetFolder(folder, SetFolder::Use::read, lock_timeout).load();
}

uint32_t choose_sku(const SetFiles &set, std::optional<uint32_t> asked) {
    if (!asked && !set.sku) {
        throw UsageError("the set has no set.json that names its SKU; give one with --sku");
    }
    return asked ? *asked : *set.sku;
}

} // namespace dolm
