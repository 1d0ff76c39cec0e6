// A set: a folder with the inputs of one start-up of the library, "orvel.cfg", "vync.cfg",
// "ftbl.bin", "qfs.img" and "efs.img", of which all but the first and the third may be absent, and
// "set.json", which remembers the SKU that the set is used with.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "image/bytes.h"

namespace dolm {

// The files of a set in memory; an absent one is empty.
struct SetFiles {
    Bytes orvel_cfg;
    Bytes vync_cfg;
    Bytes ftbl;
    Bytes qfs_image;
    Bytes efs_image;
    std::optional<uint32_t> sku; // from "set.json"
};

// Throws Failure if the file cannot be read or is too long for the library's 32-bit sizes.
Bytes read_file(const std::filesystem::path &path);

SetFiles load_set(const std::filesystem::path &folder);

// The SKU that "set.json" in the folder names, if there is one.
std::optional<uint32_t> read_sku(const std::filesystem::path &folder);

// True if the folder holds any file that a set consists of.
bool holds_set(const std::filesystem::path &folder);

// The SKU to use: the one asked for, else the set's own. Throws UsageError if there is neither.
uint32_t choose_sku(const SetFiles &set, std::optional<uint32_t> asked);

// Writes the whole set into the folder, which is created if need be; a file that the set lacks is
// removed.
void save_set(const std::filesystem::path &folder, const SetFiles &set);

// A file to be put in place, or to be removed if there is no content.
using FileChange = std::pair<std::filesystem::path, std::optional<Bytes>>;

// Brings all changes about or none: everything is written to temporary names in the folders
// concerned first and then renamed over the targets, and a failure on the way puts back what had
// been renamed. Throws Failure.
void apply_changes(const std::vector<FileChange> &changes);

} // namespace dolm
