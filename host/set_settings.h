// "set.json": the SKU that a set is used with, the files that belong to it, and checksums of its
// tables. docs/formats.md describes it. A user may write the SKU alone.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "host/checksums.h"

namespace dolm {

struct SetSettings {
    uint32_t sku = 0;
    std::vector<std::string> members;           // empty if it does not name them
    std::map<std::string, Checksums> checksums; // of tables, by name
    std::vector<std::string> unknown;           // fields of another version, or damaged ones
};

Bytes to_bytes(const SetSettings &settings);

// Nothing if the bytes are not of the form.
std::optional<SetSettings> read_settings(const Bytes &bytes);

} // namespace dolm
