// How sure a reader is of what a file of an image holds.
#pragma once

#include <cstdint>

namespace dolm {

enum class HistoryState : uint8_t {
    sound,    // the first version is what a mount gives
    absent,   // there is no such file now
    shared,   // another file claims a part of it: which of them it belongs to is not known
    doubtful, // the first version has its checksums, and may not be the newest
    damaged   // what it holds now cannot be read
};

} // namespace dolm
