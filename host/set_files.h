// A set: a folder with the inputs of one start-up of the library, "orvel.cfg", "vync.cfg",
// "ftbl.bin", "qfs.img" and "efs.img", of which all but the first and the third may be absent, and
// "set.json", which remembers the SKU that the set is used with, the files that belong to it, and
// checksums of its tables.
#pragma once

#include <filesystem>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "host/errors.h"
#include "host/set_members.h"
#include "host/system.h"
#include "image/bytes.h"

namespace dolm {

// Reads a file, a device or a pipe, standard input for "-". Throws Failure if that fails or there
// are more than max_size bytes.
Bytes read_file(const std::filesystem::path &path, uint64_t max_size);

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
