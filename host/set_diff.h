// How two sets differ.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "host/set_content.h"

namespace dolm {

// Something that one of the sets has, or both have in different forms.
template <typename Thing>
struct Difference {
    std::string name;
    std::optional<Thing> before;     // nothing if it was added
    std::optional<Thing> after;      // nothing if it was removed
    std::vector<std::string> fields; // that differ, if both have it
};

struct SetDiff {
    std::vector<Difference<Json>> geometry;
    std::vector<Difference<Nvar>> nvars;
    std::vector<Difference<StoredFile>> files;

    bool is_empty() const { return geometry.empty() && nvars.empty() && files.empty(); }
};

// Of NVARs: value, base, attributes, limit, place and origin. What "vync.cfg" has beneath a value
// from flash does not count: every change of a set rewrites that. Of files: their contents, and
// their entries in the file table where they are no NVARs.
SetDiff compare_sets(const SetContent &before, const SetContent &after);

} // namespace dolm
