// The tables of a set, made from a manifest.
#pragma once

#include "host/manifest.h"

namespace dolm {

// "ftbl.bin": a row and an entry set for each SKU, and the EFST section if there is an EFS. All
// SKUs share one EFS geometry and file list, since a set has one EFS image.
Bytes make_ftbl(const Manifest &manifest);

// The SKUs that a file table has rows for; none if it is no file table.
std::vector<uint32_t> skus_of(const Bytes &ftbl);

// "orvel.cfg": a store of all base values. The store's bytes are made by the library, whose file
// table is a passing one afterwards, good until the next start-up.
Bytes make_orvel_cfg(const Manifest &manifest);

// "vync.cfg": the head and a store of all overriding values, made in the same way.
Bytes make_vync_cfg(const Manifest &manifest);

// Puts the 16-byte head of "vync.cfg" in front of a store: bytes 8 to 11 carry the store's length,
// the others are zero.
Bytes with_vync_head(const Bytes &store);

} // namespace dolm
