#include "host/progress.h"

#include <iostream>

#include "host/system.h"

namespace dolm {

Progress::Progress(std::string what, size_t total)
    : what_(std::move(what)), total_(total), on_terminal_(system::errors_go_to_terminal()) {}

Progress::~Progress() {
    clear();
}

void Progress::step() {
    ++done_;
    if (on_terminal_) {
        std::cerr << '\r' << what_ << ' ' << done_ << " of " << total_ << std::flush;
    }
}

void Progress::clear() const {
    if (on_terminal_) {
        std::cerr << "\r\033[K" << std::flush;
    }
}

} // namespace dolm
