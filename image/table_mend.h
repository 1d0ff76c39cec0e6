// A file table that may be damaged, made readable again as far as it tells things twice: the rows
// of several SKUs, the entries themselves, the section of EFS and the EFS image.
#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "image/bytes.h"
#include "image/efs_survey.h"

namespace dolm {

struct MendedTable {
    Bytes bytes;                        // for read_file_table
    std::vector<std::string> mended;    // what was wrong, one sentence each
    std::set<uint32_t> doubted_numbers; // of files whose entries contradict each other
};

// sku is the one that the set is used with, own the geometry that the EFS image tells, where they
// are known.
MendedTable mend_file_table(Bytes bytes, std::optional<uint32_t> sku,
                            const std::optional<EfsOwnGeometry> &own);

// Whether an entry can be one: it has a name and a number.
bool is_plausible_entry(std::span<const uint8_t> entry);

} // namespace dolm
