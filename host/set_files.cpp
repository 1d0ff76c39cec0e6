#include "host/set_files.h"

#include <algorithm>
#include <limits>
#include <nlohmann/json.hpp>
#include <utility>
#include <vector>

#include "host/commit.h"
#include "host/errors.h"
#include "host/output.h"

namespace dolm {

namespace fs = std::filesystem;

namespace {

constexpr uint64_t max_settings_size = 65536;

// Names what is there, and what was said to belong to the set before, so that a lost file is missed
// after a change too.
Bytes make_settings(const SetFiles &set) {
    nlohmann::ordered_json settings{{"sku", *set.sku}, {"members", nlohmann::json::array()}};
    for (const SetMember &member : set_members) {
        const bool is_counted =
            std::find(set.members.begin(), set.members.end(), member.name) != set.members.end();
        if (is_counted || !(set.*member.content).empty()) {
            settings["members"].push_back(member.name);
        }
    }
    const std::string text = settings.dump() + "\n";
    return Bytes(text.begin(), text.end());
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

bool is_member_name(const std::string &name) {
    return name == settings_name ||
           std::any_of(std::begin(set_members), std::end(set_members),
                       [&](const SetMember &member) { return name == member.name; });
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

SetFolder::SetFolder(fs::path folder, Use use, double lock_timeout) : path_(std::move(folder)) {
    try {
        is_new_ = use == Use::change && fs::create_directories(path_);
        lock_.emplace(path_);
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
    std::error_code not_empty;
    if (is_new_) {
        fs::remove(path_, not_empty);
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
    const auto json = nlohmann::json::parse(read_file(path, max_settings_size), nullptr, false);
    const auto bad_if = [&](bool bad) {
        if (bad) {
            throw Failure(path.string() +
                          ": not of the form {\"sku\": NUMBER, \"members\": [NAME, ...]}");
        }
    };
    bad_if(!json.is_object() || !json.contains("sku") || !json["sku"].is_number_unsigned());
    bad_if(json["sku"].get<uint64_t>() > std::numeric_limits<uint32_t>::max());
    SetSettings settings{json["sku"].get<uint32_t>(), {}};
    if (json.contains("members")) {
        bad_if(!json["members"].is_array());
        for (const auto &name : json["members"]) {
            bad_if(!name.is_string());
            settings.members.push_back(name.get<std::string>());
        }
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
    if (auto said = settings()) {
        set.sku = said->sku;
        set.members = std::move(said->members);
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
    add(settings_name, set.sku ? std::optional(make_settings(set)) : std::nullopt);
    commit(path_, changes, before_decision);
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
