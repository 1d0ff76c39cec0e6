#include "host/set_files.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <limits>
#include <memory>
#include <nlohmann/json.hpp>

#include "host/errors.h"

namespace dolm {

namespace fs = std::filesystem;

namespace {

constexpr const char *settings_name = "set.json";

struct Member {
    const char *name;
    Bytes SetFiles::*content;
    bool mandatory;
    uint64_t max_size;
};

constexpr Member members[] = {
    {"orvel.cfg", &SetFiles::orvel_cfg, true, max_table_size},
    {"vync.cfg", &SetFiles::vync_cfg, false, max_table_size},
    {"ftbl.bin", &SetFiles::ftbl, true, max_table_size},
    {"qfs.img", &SetFiles::qfs_image, false, max_image_size},
    {"efs.img", &SetFiles::efs_image, false, max_image_size},
};
constexpr uint64_t max_settings_size = 65536;

Bytes make_settings(uint32_t sku) {
    const std::string text = nlohmann::json{{"sku", sku}}.dump() + "\n";
    return Bytes(text.begin(), text.end());
}

fs::path beside(const fs::path &target, const char *ending) {
    return target.string() + "." + std::to_string(getpid()) + ending;
}

// A rename may reach the disk before the content that it stands for; then a cut of power would
// leave an empty file in the place of a good one.
bool flush_to_disk(const fs::path &path) {
    const int descriptor = open(path.c_str(), O_RDONLY);
    const bool done = descriptor >= 0 && fsync(descriptor) == 0;
    if (descriptor >= 0) {
        close(descriptor);
    }
    return done;
}

void write_new_file(const fs::path &path, const Bytes &content) {
    std::ofstream stream(path, std::ios::binary | std::ios::trunc);
    stream.write(reinterpret_cast<const char *>(content.data()),
                 static_cast<std::streamsize>(content.size()));
    stream.close();
    if (!stream || !flush_to_disk(path)) {
        const int error = errno;
        std::error_code ignored;
        fs::remove(path, ignored);
        throw Failure("cannot write " + path.string() + ": " + std::strerror(error));
    }
}

// An unchanged file is left alone, so that its time of change tells the truth.
bool holds_already(const fs::path &path, const std::optional<Bytes> &content) {
    if (!fs::is_regular_file(path)) {
        return !content && !fs::exists(path);
    }
    return content && fs::file_size(path) == content->size() &&
           read_file(path, content->size()) == *content;
}

// One change under way. The old file stays reachable under a name of its own until all changes
// stand, so there is no moment without a file under the target's name.
class PendingChange {
  public:
    explicit PendingChange(const FileChange &change)
        : target(change.first), fresh(beside(target, ".new")), old(beside(target, ".old")),
          removes(!change.second) {
        if (!removes) {
            write_new_file(fresh, *change.second);
        }
    }
    PendingChange(const PendingChange &) = delete;
    PendingChange &operator=(const PendingChange &) = delete;

    void put_in_place() {
        if (fs::exists(target)) {
            keep_old();
        }
        if (!removes) {
            if (had_old) {
                fs::permissions(fresh, fs::status(target).permissions());
            }
            fs::rename(fresh, target);
        } else if (had_old) {
            fs::remove(target);
        }
        placed = true;
    }

    // What fails here cannot be helped any more; the other files still get their turn.
    void put_back() noexcept {
        std::error_code ignored;
        if (had_old) {
            fs::rename(old, target, ignored);
        } else if (placed) {
            fs::remove(target, ignored);
        }
    }

    ~PendingChange() {
        std::error_code ignored;
        fs::remove(fresh, ignored);
        fs::remove(old, ignored);
    }

  private:
    void keep_old() {
        std::error_code no_links;
        fs::create_hard_link(target, old, no_links);
        if (no_links) {
            fs::copy_file(target, old);
        }
        had_old = true;
    }

    fs::path target;
    fs::path fresh;
    fs::path old;
    bool removes;
    bool had_old = false;
    bool placed = false;
};

} // namespace

Bytes read_file(const fs::path &path, uint64_t max_size) {
    std::error_code error;
    const uintmax_t size = fs::file_size(path, error);
    if (error) {
        throw Failure("cannot read " + path.string() + ": " + error.message());
    }
    if (size > max_size) {
        throw Failure(path.string() + " has " + std::to_string(size) + " bytes; at most " +
                      std::to_string(max_size) + " are plausible here");
    }
    Bytes content(static_cast<size_t>(size));
    std::ifstream stream(path, std::ios::binary);
    if (!stream.read(reinterpret_cast<char *>(content.data()),
                     static_cast<std::streamsize>(content.size()))) {
        throw Failure("cannot read " + path.string() + ": " + std::strerror(errno));
    }
    return content;
}

std::optional<uint32_t> read_sku(const fs::path &folder) {
    const fs::path path = folder / settings_name;
    if (!fs::exists(path)) {
        return std::nullopt;
    }
    const Bytes content = read_file(path, max_settings_size);
    const auto settings = nlohmann::json::parse(content, nullptr, false);
    const auto sku = settings.is_object() ? settings.find("sku") : settings.end();
    if (sku == settings.end() || !sku->is_number_unsigned() ||
        sku->get<uint64_t>() > std::numeric_limits<uint32_t>::max()) {
        throw Failure(path.string() + ": not of the form {\"sku\": NUMBER}");
    }
    return sku->get<uint32_t>();
}

bool holds_set(const fs::path &folder) {
    for (const Member &member : members) {
        if (fs::exists(folder / member.name)) {
            return true;
        }
    }
    return fs::exists(folder / settings_name);
}

SetFiles load_set(const fs::path &folder) {
    SetFiles set;
    for (const Member &member : members) {
        const fs::path path = folder / member.name;
        if (member.mandatory || fs::exists(path)) {
            set.*member.content = read_file(path, member.max_size);
        }
    }
    set.sku = read_sku(folder);
    return set;
}

uint32_t choose_sku(const SetFiles &set, std::optional<uint32_t> asked) {
    if (!asked && !set.sku) {
        throw UsageError("the set has no set.json that names its SKU; give one with --sku");
    }
    return asked ? *asked : *set.sku;
}

void save_set(const fs::path &folder, const SetFiles &set) {
    std::error_code error;
    fs::create_directories(folder, error);
    if (error) {
        throw Failure("cannot make the folder " + folder.string() + ": " + error.message());
    }
    std::vector<FileChange> changes;
    for (const Member &member : members) {
        const Bytes &content = set.*member.content;
        const bool absent = content.empty() && !member.mandatory;
        changes.emplace_back(folder / member.name,
                             absent ? std::nullopt : std::optional<Bytes>(content));
    }
    changes.emplace_back(folder / settings_name,
                         set.sku ? std::optional(make_settings(*set.sku)) : std::nullopt);
    apply_changes(changes);
}

void apply_changes(const std::vector<FileChange> &changes) {
    std::vector<std::unique_ptr<PendingChange>> pending;
    try {
        for (const FileChange &change : changes) {
            if (!holds_already(change.first, change.second)) {
                pending.push_back(std::make_unique<PendingChange>(change));
            }
        }
        for (const auto &change : pending) {
            change->put_in_place();
        }
    } catch (const std::exception &error) {
        for (const auto &change : pending) {
            change->put_back();
        }
        throw Failure(error.what());
    }
}

} // namespace dolm
