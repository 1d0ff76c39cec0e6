#pragma once

#include <cstdlib>

// Ends the run as a finding if what has to hold does not.
inline void require(bool condition) {
    if (!condition) {
        std::abort();
    }
}
