// Stands between the heap and operator new, malloc and its kin in everything that is linked in
// statically: makes allocations fail, and counts. Link dolm_wrapped_heap to use it.
#pragma once

#include <cstddef>

namespace heap_double {

// From now on allocation number first fails, counted from 0; all behind it as well, unless it is to
// be that one alone.
void fail_from(long first);
void fail_once(long number);

// Lets all allocations succeed again. True if one has failed.
bool stop();

// Bytes of the blocks that have been allocated and not freed.
size_t bytes_in_use();

// Keeps allocations from failing, and from being counted, while it lives.
class Pause {
  public:
    Pause();
    ~Pause();
    Pause(const Pause &) = delete;
    Pause &operator=(const Pause &) = delete;

  private:
    const bool active_;
};

} // namespace heap_double
