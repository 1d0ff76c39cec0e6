// Makes allocations fail: operator new, and malloc, calloc and realloc of everything that is linked
// in statically. Link dolm_failing_memory to use it.
#pragma once

namespace failing_memory {

// From now on allocation number first fails, counted from 0; all behind it as well, unless it is to
// be that one alone.
void fail_from(long first);
void fail_once(long number);

// Lets all allocations succeed again. True if one has failed.
bool stop();

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

} // namespace failing_memory
