// Why the library refuses a table, in words: it gives a status alone. Read from the bytes without
// the library.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "image/bytes.h"

namespace dolm {

struct Refusal {
    size_t offset; // in the file
    std::string text;
};

// Nothing if the table is one that start-up takes.
std::optional<Refusal> why_ftbl_refused(const Bytes &ftbl, uint32_t sku);
std::optional<Refusal> why_orvel_refused(const Bytes &orvel_cfg, const Bytes &ftbl, uint32_t sku);
std::optional<Refusal> why_vync_refused(const Bytes &vync_cfg, const Bytes &ftbl, uint32_t sku);

} // namespace dolm
