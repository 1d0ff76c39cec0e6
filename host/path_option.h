// How the parser of the command line makes a path of a word. Included before the parser, which
// would else make it by itself.
#pragma once

#include <filesystem>
#include <string>

#include "host/system.h"

namespace CLI::detail {

inline bool lexical_cast(const std::string &input, std::filesystem::path &output) {
    output = dolm::system::to_path(input);
    return true;
}

} // namespace CLI::detail
