// What a report of the library means for a set: which of its files it is about, and what is wrong.
#pragma once

#include <vector>

#include "host/output.h"
#include "host/set_files.h"

namespace dolm {

// Fills in file and meaning of each report of one start-up or termination with the set, as far as
// they are known.
void explain(std::vector<Report> &reports, const SetFiles &set, uint32_t sku);

} // namespace dolm
