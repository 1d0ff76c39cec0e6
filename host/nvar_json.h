// NVARs in JSON, the same in every command (docs/json.md).
#pragma once

#include <optional>

#include "host/library.h"
#include "host/output.h"

namespace dolm {

// Null without a value.
Json to_json(const std::optional<Bytes> &value);

Json to_json(const Nvar &nvar);

} // namespace dolm
