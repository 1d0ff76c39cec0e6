// What someone who mistyped a word may have meant.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace dolm {

// Insertions, removals and replacements of characters that make one word the other.
size_t distance(std::string_view one, std::string_view other);

// Up to `count` of the words, nearest first.
std::vector<std::string> nearest(std::string_view word, std::vector<std::string> words,
                                 size_t count);

} // namespace dolm
