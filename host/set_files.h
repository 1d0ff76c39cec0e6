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

// The largest sizes that make sense, so that a file of another kind is refused by its size alone.
// An AFS image has up to 255 units of 8192 bytes, an EFS image up to 511 blocks of 4096; both may
// be followed by what is left of the flash. The largest table is that of 65536 files and 10 SKUs.
inline constexpr uint64_t max_image_size = uint64_t{2} << 20;
inline constexpr uint64_t max_table_size = uint64_t{64} << 20;

// Throws Failure if the file cannot be read or is longer than max_size.
Bytes read_file(const std::filesystem::path &path, uint64_t max_size);

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
