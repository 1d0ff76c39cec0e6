// A content that somebody asks for in JSON: a few bytes, repeated up to a size. A short text can
// ask for very much, so it is made only when all that was asked for has been found good.
#pragma once

#include <utility>

#include "image/bytes.h"

namespace dolm {

class Content {
  public:
    Content(Bytes period, size_t size) : period_(std::move(period)), size_(size) {}

    size_t size() const { return size_; }

    // The period must not be empty if the size is not 0.
    Bytes bytes() const {
        Bytes filled(size_);
        for (size_t i = 0; i < size_; ++i) {
            filled[i] = i < period_.size() ? period_[i] : filled[i - period_.size()];
        }
        return filled;
    }

  private:
    Bytes period_;
    size_t size_;
};

} // namespace dolm
