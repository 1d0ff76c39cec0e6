// Values as people type and read them. One notation serves both ways: what format_value prints,
// parse_value reads back to the same bytes.
//
//   hex:00ff10   bytes in hexadecimal; blanks between bytes are allowed
//   @path        the content of a file
//   text:...     the text behind the colon, byte for byte
//   anything else is text, byte for byte; an empty argument is the empty value
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "image/bytes.h"

namespace dolm {

// Throws UsageError for malformed hexadecimal and Failure for a file that cannot be read.
Bytes parse_value(const std::string &argument);

// As text if it is printable UTF-8, else in hexadecimal.
std::string format_value(const Bytes &value);

// A one-line form for tables: quoted text or hexadecimal, cut with "..." to at most width columns
// (at least 8), "-" for the empty value.
std::string preview_value(const Bytes &value, size_t width);

std::string to_hex(const Bytes &value);

// The lowest digits of a number, in capitals.
std::string hex_digits(uint64_t number, int count);

// Nothing if the text is not pairs of hexadecimal digits with blanks between.
std::optional<Bytes> from_hex(std::string_view text);

Bytes to_bytes(std::string_view text);
std::string_view to_text(const Bytes &bytes);

} // namespace dolm
