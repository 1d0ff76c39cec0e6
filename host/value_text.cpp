#include "host/value_text.h"

#include <algorithm>

#include "host/errors.h"
#include "host/set_files.h"

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

bool is_printable(const Bytes &value) {
    return std::all_of(value.begin(), value.end(),
                       [](uint8_t byte) { return byte >= 0x20 && byte < 0x7F; });
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
        return read_file(text.substr(1), max_table_size);
    }
    return to_bytes(text.starts_with(text_prefix) ? text.substr(text_prefix.size()) : text);
}

std::string format_value(const Bytes &value) {
    if (!is_printable(value)) {
        return std::string(hex_prefix) + to_hex(value);
    }
    const std::string text(value.begin(), value.end());
    const bool ambiguous =
        text.starts_with(hex_prefix) || text.starts_with(text_prefix) || text.starts_with('@');
    return ambiguous ? std::string(text_prefix) + text : text;
}

std::string preview_value(const Bytes &value, size_t width) {
    if (value.empty()) {
        return "-";
    }
    // Enough bytes to overflow any width, so that a long value is not converted as a whole.
    const Bytes head(value.begin(),
                     value.begin() + static_cast<std::ptrdiff_t>(std::min(value.size(), width)));
    const bool text = is_printable(value);
    std::string shown = to_hex(head);
    if (text) {
        shown.assign(1, '"').append(head.begin(), head.end()).push_back('"');
    }
    if (head.size() < value.size() || shown.size() > width) {
        const size_t kept = width - 3;
        shown.resize(std::min(shown.size(), text ? kept : kept / 2 * 2));
        shown += "...";
    }
    return shown;
}

} // namespace dolm
