#include "host/value_text.h"

#include <algorithm>

#include "host/errors.h"
#include "host/set_files.h"
#include "host/utf8.h"

namespace dolm {

namespace {

constexpr std::string_view hex_prefix = "hex:";
constexpr std::string_view text_prefix = "text:";

int digit_value(char digit) {
    if (digit >= '0' && digit <= '9') {
        return digit - '0';
    }
    if (digit >= 'a' && digit <= 'f') {
        return digit - 'a' + 10;
    }
    if (digit >= 'A' && digit <= 'F') {
        return digit - 'A' + 10;
    }
    return -1;
}

} // namespace

std::string hex_digits(uint64_t number, int count) {
    std::string digits;
    for (int shift = 4 * (count - 1); shift >= 0; shift -= 4) {
        digits += "0123456789ABCDEF"[number >> shift & 0xF];
    }
    return digits;
}

std::optional<Bytes> from_hex(std::string_view text) {
    Bytes bytes;
    for (size_t i = 0; i < text.size();) {
        if (text[i] == ' ') {
            ++i;
            continue;
        }
        const int high = digit_value(text[i]);
        const int low = i + 1 < text.size() ? digit_value(text[i + 1]) : -1;
        if (high < 0 || low < 0) {
            return std::nullopt;
        }
        bytes.push_back(static_cast<uint8_t>(high << 4 | low));
        i += 2;
    }
    return bytes;
}

std::string to_hex(const Bytes &value) {
    constexpr std::string_view digits = "0123456789abcdef";
    std::string text;
    text.reserve(2 * value.size());
    for (const uint8_t byte : value) {
        text.push_back(digits[byte >> 4]);
        text.push_back(digits[byte & 0xF]);
    }
    return text;
}

Bytes to_bytes(std::string_view text) {
    return Bytes(text.begin(), text.end());
}

std::string_view to_text(const Bytes &bytes) {
    return {reinterpret_cast<const char *>(bytes.data()), bytes.size()};
}

Bytes parse_value(const std::string &argument) {
    const std::string_view text = argument;
    if (text.starts_with(hex_prefix)) {
        if (const auto bytes = from_hex(text.substr(hex_prefix.size()))) {
            return *bytes;
        }
        throw UsageError("'" + argument + "' is not hexadecimal: two digits make a byte");
    }
    if (text.starts_with('@')) {
        return read_file(system::to_path(text.substr(1)), max_table_size);
    }
    return to_bytes(text.starts_with(text_prefix) ? text.substr(text_prefix.size()) : text);
}

std::string format_value(const Bytes &value) {
    if (!is_printable(to_text(value))) {
        return std::string(hex_prefix) + to_hex(value);
    }
    const std::string text(to_text(value));
    const bool ambiguous =
        text.starts_with(hex_prefix) || text.starts_with(text_prefix) || text.starts_with('@');
    return ambiguous ? std::string(text_prefix) + text : text;
}

std::string preview_value(const Bytes &value, size_t width) {
    if (value.empty()) {
        return "-";
    }
    constexpr std::string_view cut = "...";
    if (!is_printable(to_text(value))) {
        const bool fits = 2 * value.size() <= width;
        const size_t shown = fits ? value.size() : (width - cut.size()) / 2;
        return to_hex(Bytes(value.begin(), value.begin() + static_cast<std::ptrdiff_t>(shown))) +
               (fits ? "" : std::string(cut));
    }
    // A character takes a column; the first quote and what stands for the rest take theirs.
    std::string_view rest = to_text(value);
    std::string shown;
    std::string fitting;
    size_t columns = 1;
    while (!rest.empty() && columns + 1 < width) {
        const size_t length = first_character(rest).length;
        shown += rest.substr(0, length);
        rest.remove_prefix(length);
        ++columns;
        if (columns + cut.size() == width) {
            fitting = shown;
        }
    }
    return rest.empty() ? "\"" + shown + "\"" : "\"" + fitting + std::string(cut);
}

} // namespace dolm
