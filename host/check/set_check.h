// What is wrong with a set, or worth knowing of it.
#pragma once

#include <filesystem>
#include <optional>
#include <vector>

#include "host/check/finding.h"

namespace dolm {

struct SetView;

struct SetReport {
    std::vector<uint32_t> skus;      // that were checked
    std::optional<uint32_t> own_sku; // of "set.json"
    std::vector<Finding> findings;   // errors first, each cause before what was found later

    size_t count(Finding::Severity severity) const;
};

// Reads the members of the set without the library and checks the rules of their formats and what
// they say of each other; then starts the library up on a copy with each SKU of the file table, or
// with the one that is given. The set itself is not changed, and may be in any state. What the
// library reports on the way goes to standard error.
SetReport check_files(const std::filesystem::path &folder, std::optional<uint32_t> sku,
                      double lock_timeout);

// The same for members that are loaded, with what loading them has found. The view then holds all
// that could be read of them.
SetReport check_members(SetView &view, std::optional<uint32_t> sku, Findings findings);

} // namespace dolm
