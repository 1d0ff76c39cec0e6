// The files of a set's images, and which of them are the values of NVARs.
#pragma once

#include <map>
#include <optional>
#include <span>
#include <vector>

#include "host/check/set_view.h"

namespace dolm {

struct FlashFiles {
    // The view has to outlive it.
    explicit FlashFiles(const SetView &view);

    // The contents of a file where the dispatch by file number would look for it, or null.
    const std::vector<uint8_t> *contents(const FtblEntry &entry) const;

    // The value that start-up takes from a deployed VFS; nothing if the file is not there or
    // start-up would pass it by.
    std::optional<std::span<const uint8_t>> pulled(const FtblEntry &entry) const;

    // Whether the VFS of the row's SKU is a deployed one.
    bool is_deployed(const FtblRow &row) const;

    bool has_afs_image;
    std::map<uint32_t, const AfsFile *> afs; // what is there, by id
    std::map<uint32_t, const EfsFile *> efs;
};

// The entry of the file that makes a VFS a deployed one; null if the row has none.
const FtblEntry *deploy_marker_of(const FtblRow &row);

} // namespace dolm
