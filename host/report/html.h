// Markup in the making. What stands in the source as a literal goes in as it is; everything else is
// text and escaped, wherever it comes from and whatever it holds.
#pragma once

#include <concepts>
#include <cstddef>
#include <string>
#include <string_view>
#include <utility>

namespace dolm {

class Html {
  public:
    template <size_t Size>
    Html &operator<<(const char (&markup)[Size]) {
        markup_.append(markup, Size - 1);
        return *this;
    }

    // Fit for elements and for quoted attributes; bytes that are no printable UTF-8 become \xNN.
    Html &operator<<(const std::string &text);

    Html &operator<<(std::unsigned_integral auto number) { return *this << std::to_string(number); }

    Html &operator<<(const Html &markup) {
        markup_ += markup.markup_;
        return *this;
    }

    // As the build embedded it.
    Html &add_source(std::string_view markup) {
        markup_ += markup;
        return *this;
    }

    const std::string &markup() const { return markup_; }

  private:
    std::string markup_;
};

} // namespace dolm
