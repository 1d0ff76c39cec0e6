// The files of several SKUs in one list that keeps the order of each.
#pragma once

#include <vector>

#include "host/manifest.h"

namespace dolm {

// Takes the files of one more SKU into the list. One that stands there as it is gets the SKU too,
// as far as the order of both lists allows; the others come in between.
void merge_files(std::vector<ManifestFile> &list, std::vector<ManifestFile> row, uint32_t sku);

} // namespace dolm
