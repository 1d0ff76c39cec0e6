// The NVARs of a set for a report, whatever state the set is in.
#pragma once

#include <vector>

#include "host/check/set_view.h"
#include "host/library.h"

namespace dolm {

struct SetNvars {
    uint32_t sku = 0;
    bool started_up = false; // else they are what the tables and images still hold
    std::vector<Nvar> nvars;
};

// As the library has them after a start-up with the SKU. If it refuses that, the readers of the
// formats give what is left: an NVAR for each file of the table, and for each number of the stores
// that the table does not know, if any value of it can be read.
SetNvars read_nvars(const SetView &view, uint32_t sku);

// The SKU to show: the one asked for, else the set's own, else the first of the file table.
uint32_t sku_to_show(const SetView &view, std::optional<uint32_t> asked);

} // namespace dolm
