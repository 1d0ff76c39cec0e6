// What the library keeps for the life of the process is given back when the process ends or, for a
// host that loads it at run time, when the library is unloaded.
#pragma once

namespace dolm {

template <void (*release)()>
struct at_unload {
    ~at_unload() { release(); }
};

} // namespace dolm
