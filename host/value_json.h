// A value as commands tell it to machines.
#pragma once

#include "host/output.h"
#include "image/bytes.h"

namespace dolm {

// Size, the text if it is printable, and hexadecimal.
Json value_to_json(const Bytes &value);

} // namespace dolm
