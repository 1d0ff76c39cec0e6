// The files that a set consists of, and what they hold in memory.
#pragma once

#include <algorithm>
#include <iterator>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "host/set_settings.h"
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

// True for the name of a file that a set can have.
inline bool is_member_name(const std::string &name) {
    return name == settings_name ||
           std::any_of(std::begin(set_members), std::end(set_members),
                       [&](const SetMember &member) { return name == member.name; });
}

} // namespace dolm
