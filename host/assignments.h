// New values for NVARs as a user gives them.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "host/library.h"

namespace dolm {

struct Assignment {
    std::string name;
    std::optional<Bytes> value; // back to the base value without one
};

// Reads names and values in turn, all of them, so that a bad one costs nothing later. Throws
// UsageError.
std::vector<Assignment> read_assignments(const std::vector<std::string> &words);

// Reads a file, standard input for "-": a JSON object from names to VALUEs, whose files lie in the
// folder of that file, or lines NAME=VALUE as on a command line. Throws Failure with all that is
// wrong.
std::vector<Assignment> read_assignments_file(const std::filesystem::path &path);

// Throws UsageError if a name has two values.
void require_one_each(const std::vector<Assignment> &assignments);

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
