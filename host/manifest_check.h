// The rules that a manifest has to keep beyond the form of each single member.
#pragma once

#include "host/manifest.h"
#include "host/problems.h"

namespace dolm {

// Adds a problem for: names, numbers or ids that stand twice; names that no look-up can find;
// values over their limits; files in flash without a store to hold them; EFS records that overlap,
// run past the last block or need more blocks than there are spares; geometries that cannot work;
// files whose absence from a deployed VFS would make every termination fail.
void check_manifest(const Manifest &manifest, Problems &problems);

} // namespace dolm
