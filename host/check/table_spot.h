// What a byte of a table belongs to.
#pragma once

#include <string>

#include "host/check/set_view.h"

namespace dolm {

struct TableSpot {
    std::string what; // such as "size of record 3"
    std::string nvar; // whose it is, if it is one's
};

// The file is "orvel.cfg", "vync.cfg" or "ftbl.bin".
TableSpot spot_at(const SetView &view, const std::string &file, size_t offset);

} // namespace dolm
