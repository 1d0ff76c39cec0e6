// A set: a folder with the inputs of one start-up of the library, "orvel.cfg", "vync.cfg",
// "ftbl.bin", "qfs.img" and "efs.img", of which all but the first and the third may be absent, and
// "set.json", which remembers the SKU that the set is used with, the files that belong to it, and
// checksums of its tables.
#pragma once

#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "host/errors.h"
#include "host/set_settings.h"
#include "host/system.h"
#include "image/bytes.h"

namespace dolm {

// A table that is not what "set.json" has checksums of.
struct ChangedTable {
    Checksums recorded;
    Checksums found;
};

// The files of a set in memory; an absent one is empty.
struct SetFiles {
    Bytes orvel_cfg;
    Bytes vync_cfg;
    Bytes ftbl;
    Bytes qfs_image;
    Bytes efs_image;
    std::optional<uint32_t> sku;      // from "set.json"
    std::vector<std::string> members; // names of files that "set.json" counts on, there or not
    std::map<std::string, ChangedTable> changed_tables; // by name
};

// The largest sizes that make sense, so that a file of another kind is refused by its size alone.
// An AFS image has up to 255 units of 8192 bytes, an EFS image up to 511 blocks of 4096; both may
// be followed by what is left of the flash. The largest table is that of 65536 files and 10 SKUs.
inline constexpr uint64_t max_image_size = uint64_t{2} << 20;
inline constexpr uint64_t max_table_size = uint64_t{64} << 20;

struct SetMember {
    const char *name;
    Bytes SetFiles::*content;
    bool mandatory;
    bool is_table; // only dolm changes it, and it has no checksums of its own
    uint64_t max_size;
};

inline constexpr SetMember set_members[] = {
    {"orvel.cfg", &SetFiles::orvel_cfg, true, true, max_table_size},
    {"vync.cfg", &SetFiles::vync_cfg, false, true, max_table_size},
    {"ftbl.bin", &SetFiles::ftbl, true, true, max_table_size},
    {"qfs.img", &SetFiles::qfs_image, false, false, max_image_size},
    {"efs.img", &SetFiles::efs_image, false, false, max_image_size},
};
inline constexpr const char *settings_name = "set.json";

// Reads a file, a device or a pipe, standard input for "-". Throws Failure if that fails or there
// are more than max_size bytes.
Bytes read_file(const std::filesystem::path &path, uint64_t max_size);

// True for the name of a file that a set can have.
bool is_member_name(const std::string &name);

// True if the folder holds any file that a set consists of.
bool holds_set(const std::filesystem::path &folder);

// Throws UsageError if the folder holds a set that is not to be replaced.
void refuse_other_set(const std::filesystem::path &folder, bool replace);

// Makes a folder and those above it, as far as they do not exist. They go again with the object if
// nothing has come into them; a signal that would end the program waits until then.
class NewFolders {
  public:
    explicit NewFolders(const std::filesystem::path &folder);
    ~NewFolders();
    NewFolders(const NewFolders &) = delete;
    NewFolders &operator=(const NewFolders &) = delete;

    bool any() const { return !made_.empty(); }
    void keep() { made_.clear(); }

  private:
    void remove_empty() const;

    const system::HeldSignals held_;
    std::vector<std::filesystem::path> made_; // the innermost first
};

// The folder of a set, locked against other commands while the object lives. A change that was
// interrupted has been finished or undone.
class SetFolder {
  public:
    enum class Use { read, change };

    // Makes a folder that is to be changed if it does not exist; it goes again if nothing comes
    // into it. Waits for other commands for so many seconds. Throws Failure.
    SetFolder(std::filesystem::path folder, Use use, double lock_timeout);
    ~SetFolder();
    SetFolder(const SetFolder &) = delete;
    SetFolder &operator=(const SetFolder &) = delete;

    const std::filesystem::path &path() const { return path_; }

    // Throws Failure.
    SetFiles load();

    // What can be read, and why the rest cannot.
    SetFiles load_readable(std::vector<Problem> &unreadable);

    // Nothing without a "set.json". Throws Failure if it is not of its form.
    std::optional<SetSettings> settings() const;

    // Writes the whole set. A file that the set lacks is removed, but for one that was empty or a
    // link to nothing when the set was loaded; one that holds the same already is left alone.
    // before_decision is called at the last moment at which an exception leaves all as
    // it was. Throws Failure, and has changed nothing then.
    void save(const SetFiles &set, const std::function<void()> &before_decision) const;

  private:
    void lock(system::FolderLock::Kind kind, double timeout);

    std::filesystem::path path_;
    std::set<std::string> empty_;   // members without a byte when the set was loaded
    std::optional<NewFolders> new_; // removes behind the lock what the lock does not
    std::optional<system::FolderLock> lock_;
};

// The set in a folder, which is locked only as long as reading it takes.
SetFiles load_set(const std::filesystem::path &folder, double lock_timeout);

// The SKU to use: the one asked for, else the set's own. Throws UsageError if there is neither.
uint32_t choose_sku(const SetFiles &set, std::optional<uint32_t> asked);

} // namespace dolm
