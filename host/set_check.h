// What is wrong with a set, or worth knowing of it.
#pragma once

#include <string>
#include <vector>

#include "host/set_files.h"

namespace dolm {

struct Finding {
    enum class Severity { note, error };

    Severity severity = Severity::error;
    std::string where; // a file of the set, or an NVAR
    std::string text;
};

// Reads both images without the library and checks the rules of their formats; starts the library
// up, reads every file of both stores, holds tables, stores and values against each other; ends
// with a termination on a copy and a start-up on what that leaves. The set itself is not changed.
// What the library reports on the way goes to standard error.
std::vector<Finding> check_files(const SetFiles &set, uint32_t sku);

} // namespace dolm
