// Text of unknown origin, made fit to be shown.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace dolm {

struct Character {
    size_t length; // bytes
    uint32_t code; // code point
    bool is_shown; // well-formed, and neither a control nor invisible nor a mark of direction
};

// The first character of a text that is not empty; a byte that begins none counts as one.
Character first_character(std::string_view text);

// True if the text is the beginning of a character whose last bytes are missing.
bool is_cut_short(std::string_view text);

bool is_printable(std::string_view text);

// Every byte that is not part of a printable character becomes \xNN.
std::string escape(std::string_view text);

// The columns that the escaped text takes.
size_t count_columns(std::string_view text);

// JSON text with the characters that are not shown as \uNNNN; line ends stay. Outside of strings
// JSON has no others.
std::string escape_json(std::string_view text);

} // namespace dolm
