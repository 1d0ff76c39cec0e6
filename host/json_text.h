// JSON that a user wrote, of which nothing is taken for granted.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

namespace dolm {

// Refuses what nobody needs and what would take far more memory than its text: deep nesting, long
// lists, wide objects and long texts. Refuses an object that names a member twice too, of which a
// parser would silently keep the last. Comments in the manner of C++ are allowed. The outermost
// object has at most so many members. Throws Failure with the place; source says where the text is
// from.
nlohmann::json parse_json_text(std::string_view text, const std::string &source,
                               size_t most_members);

} // namespace dolm
