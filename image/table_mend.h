// A file table that may be damaged, made readable again as far as it tells things twice: the rows
// of several SKUs, the entries themselves, the section of EFS and the EFS image.
#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <vector>

#include "image/bytes.h"

namespace dolm {

struct MendedTable {
    Bytes bytes;                        // for read_file_table
    std::vector<std::string> mended;    // what was wrong, one sentence each
    std::set<uint32_t> doubted_numbers; // of files whose entries contradict each other
    bool has_moved = false;             // no row led to its entries, as if bytes were put in
    size_t shift = 0;                   // how far what was there has moved behind a new head
    std::set<uint32_t> counted_ids;     // in EFS, of files whose id no table tells
};

// sku is the one that the set is used with, if that is known. The EFS image may be empty.
MendedTable mend_file_table(Bytes bytes, std::optional<uint32_t> sku,
                            std::span<const uint8_t> efs_image);

// Whether an entry can be one: it has a name and a number.
bool is_plausible_entry(std::span<const uint8_t> entry);

} // namespace dolm
