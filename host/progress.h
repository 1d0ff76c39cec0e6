// How far long work has come, on a terminal only.
#pragma once

#include <string>

namespace dolm {

class Progress {
  public:
    // what says what is counted: "reading files".
    Progress(std::string what, size_t total);
    ~Progress();
    Progress(const Progress &) = delete;
    Progress &operator=(const Progress &) = delete;

    void step();

  private:
    void clear() const;

    std::string what_;
    size_t total_;
    size_t done_ = 0;
    bool on_terminal_;
};

} // namespace dolm
