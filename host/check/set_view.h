// What a check knows of a set: the bytes of its members, and what the independent readers make of
// them. Nothing here has gone through the library.
#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "host/check/finding.h"
#include "host/set_files.h"
#include "image/afs_image.h"
#include "image/efs_image.h"
#include "image/efs_layout.h"
#include "image/fcs_store.h"
#include "image/file_table.h"

namespace dolm {

inline constexpr const char *orvel_cfg = "orvel.cfg";
inline constexpr const char *vync_cfg = "vync.cfg";
inline constexpr const char *ftbl_bin = "ftbl.bin";
inline constexpr const char *qfs_img = "qfs.img";
inline constexpr const char *efs_img = "efs.img";

struct SetView {
    SetFiles files;                             // a member that cannot be used is empty
    std::map<std::string, Checksums> checksums; // of tables, as "set.json" has them
    std::vector<uint32_t> skus;                 // to be checked, each with a row in the file table
    FileTable table; // lies in files.ftbl, as all that follows lies in files
    FcsStore base;
    FcsStore overrides;
    AfsImage afs;                              // without files if there is no image
    EfsImage efs;                              // the same
    std::optional<EfsLayout> layout;           // with which efs was read
    std::map<uint32_t, std::string> names;     // by number, of any SKU
    std::map<uint32_t, std::string> afs_names; // by id, of any SKU
    std::map<uint32_t, std::string> efs_names;

    SetView() = default;
    SetView(const SetView &) = delete;
    SetView &operator=(const SetView &) = delete;
};

// The name under a number, empty if there is none.
inline std::string name_in(const std::map<uint32_t, std::string> &names, uint32_t number) {
    const auto found = names.find(number);
    return found == names.end() ? std::string() : found->second;
}

// Loads and reads what is there, whatever is missing or broken, and tells of members that are
// missing, empty, unreadable or hold what belongs into another member. These are left out of the
// view. The EFS image has to wait until its geometry is known.
void load_members(const SetFolder &folder, SetView &view, Findings &findings);

// Makes the rest of the view from its files, but for the EFS image.
void read_members(SetView &view);

// Tells of members that are well-formed and belong to another set, and leaves them out of the view.
void drop_strangers(SetView &view, Findings &findings);

// Head, rows, entries and the EFST section of the file table, and which SKUs there are to check.
void check_table(SetView &view, std::optional<uint32_t> sku, Findings &findings);

// Heads, records and payloads of "orvel.cfg" and "vync.cfg", and their numbers and values against
// the file table.
void check_stores(const SetView &view, Findings &findings);

void check_afs(const SetView &view, Findings &findings);

// Reads the image, and decides between it and the file table where the two contradict each other.
void check_efs(SetView &view, Findings &findings);

// Places of the EFS file list that lie over each other.
void check_efs_overlaps(const SetView &view, Findings &findings);

// The files of the NVARs in flash: whether they are there, and what the tables say of them.
void check_deployment(const SetView &view, Findings &findings);

// Tables that are no more what dolm wrote, as "set.json" knows it: what was found so far is put
// under the change from which it comes.
void check_changes(const SetView &view, Findings &findings);

// Starts the library up with a SKU on a copy, reads every file, ends with a termination and starts
// up again on what that left.
void try_running(const SetView &view, uint32_t sku, Findings &findings);

} // namespace dolm
