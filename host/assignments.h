// New values for NVARs as a command line gives them: names and values in turn.
#pragma once

#include <string>
#include <vector>

#include "host/library.h"

namespace dolm {

struct Assignment {
    std::string name;
    Bytes value;
};

// Reads all values, so that a bad one costs nothing later. Throws UsageError.
std::vector<Assignment> read_assignments(const std::vector<std::string> &words);

// What becomes of a value.
struct ValueChange {
    std::string name; // in full
    Bytes before;
    Bytes after;
};

// Changes current values, in the order given. Throws Failure if one has no NVAR, or is over its
// limit; says so if one will not reach the flash.
std::vector<ValueChange> assign(Library &library, const std::vector<Assignment> &assignments);

} // namespace dolm
