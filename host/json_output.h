// JSON on standard output.
#pragma once

#include <nlohmann/json.hpp>

#include "image/bytes.h"

namespace dolm {

using Json = nlohmann::ordered_json;

void print_json(const Json &json);

// Size, the text if it is printable, and hexadecimal.
Json value_to_json(const Bytes &value);

} // namespace dolm
