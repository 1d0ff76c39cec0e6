// How a command of dolm ends other than well.
#pragma once

#include <stdexcept>

namespace dolm {

// Bad data, an input or output failure, or a failure that the library reported: exit code 1.
struct Failure : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// The command line asks for something that makes no sense: exit code 2.
struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

} // namespace dolm
