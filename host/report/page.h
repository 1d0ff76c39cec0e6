// A set on one page of HTML that needs nothing else: findings, images, NVARs.
#pragma once

#include <optional>
#include <string>

#include "host/check/set_check.h"
#include "host/check/set_view.h"
#include "host/report/html.h"
#include "host/report/nvars.h"

namespace dolm {

struct OtherSet {
    std::string name;
    SetNvars nvars;
};

struct SetPage {
    std::string name;
    const SetView &view;
    const SetReport &report;
    const SetNvars &nvars;
    const std::optional<OtherSet> &other; // to compare the NVARs with
};

// The same bytes for the same set.
std::string write_page(const SetPage &page);

// What stands on it, from the top.
Html summary_section(const SetPage &page);
Html findings_section(const SetReport &report);
Html afs_section(const SetView &view);
Html efs_section(const SetView &view);
Html nvar_section(const SetPage &page);

// How many NVARs have another value than in the other set, or stand in one of the two alone.
size_t count_different(const SetNvars &nvars, const OtherSet &other);

} // namespace dolm
