// Counts in sentences.
#pragma once

#include <cstdint>
#include <string>

namespace dolm {

// The noun as it stands behind a count: "byte", "bytes".
inline std::string plural(uint64_t count, const std::string &noun) {
    return noun + (count == 1 ? "" : "s");
}

// "1 byte", "2 bytes".
inline std::string counted(uint64_t count, const std::string &noun) {
    return std::to_string(count) + " " + plural(count, noun);
}

} // namespace dolm
