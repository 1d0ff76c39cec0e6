#include "host/utf8.h"

#include <algorithm>
#include <cstdio>

namespace dolm {

namespace {

struct Range {
    uint32_t first;
    uint32_t last;
};

// Code points that are not shown: controls, invisible characters, marks of direction, and those
// that are no characters.
constexpr Range hidden[] = {
    {0x0, 0x1F},        {0x7F, 0x9F},       {0xAD, 0xAD},         {0x61C, 0x61C},
    {0x180E, 0x180E},   {0x200B, 0x200F},   {0x2028, 0x202E},     {0x2060, 0x206F},
    {0xFDD0, 0xFDEF},   {0xFEFF, 0xFEFF},   {0xFFF9, 0xFFFB},     {0xFFFE, 0xFFFF},
    {0xE0000, 0xE0FFF}, {0xFFFFE, 0xFFFFF}, {0x10FFFE, 0x10FFFF},
};

// What a first byte announces.
struct Lead {
    size_t length;     // of the character in bytes; 0 if none begins like this
    uint32_t bits;     // its highest ones
    uint32_t smallest; // code point that needs this length
};

Lead read_lead(uint8_t byte) {
    if (byte < 0x80) {
        return {1, byte, 0};
    }
    if (byte >= 0xC2 && byte < 0xE0) {
        return {2, byte & 0x1Fu, 0x80};
    }
    if (byte >= 0xE0 && byte < 0xF0) {
        return {3, byte & 0x0Fu, 0x800};
    }
    if (byte >= 0xF0 && byte < 0xF5) {
        return {4, byte & 0x07u, 0x10000};
    }
    return {0, 0, 0};
}

bool is_continuation(char byte) {
    return (static_cast<uint8_t>(byte) & 0xC0) == 0x80;
}

std::string hexadecimal(const char *form, unsigned value) {
    char text[16];
    std::snprintf(text, sizeof text, form, value);
    return text;
}

} // namespace

Character first_character(std::string_view text) {
    const auto byte = static_cast<uint8_t>(text.front());
    const Character no_character{1, byte, false};
    const Lead lead = read_lead(byte);
    if (lead.length == 0 || text.size() < lead.length) {
        return no_character;
    }
    uint32_t code = lead.bits;
    for (const char next : text.substr(1, lead.length - 1)) {
        if (!is_continuation(next)) {
            return no_character;
        }
        code = code << 6 | (static_cast<uint8_t>(next) & 0x3Fu);
    }
    if (code < lead.smallest || code > 0x10FFFF || (code >= 0xD800 && code < 0xE000)) {
        return no_character;
    }
    const bool is_hidden =
        std::any_of(std::begin(hidden), std::end(hidden), [code](const Range &range) {
            return code >= range.first && code <= range.last;
        });
    return {lead.length, code, !is_hidden};
}

bool is_cut_short(std::string_view text) {
    return !text.empty() && text.size() < read_lead(static_cast<uint8_t>(text.front())).length &&
           std::all_of(text.begin() + 1, text.end(), is_continuation);
}

bool is_printable(std::string_view text) {
    while (!text.empty()) {
        const Character character = first_character(text);
        if (!character.is_shown) {
            return false;
        }
        text.remove_prefix(character.length);
    }
    return true;
}

std::string escape(std::string_view text) {
    std::string escaped;
    while (!text.empty()) {
        const Character character = first_character(text);
        const std::string_view bytes = text.substr(0, character.length);
        if (character.is_shown) {
            escaped += bytes;
        } else {
            for (const char byte : bytes) {
                escaped += hexadecimal("\\x%02x", static_cast<uint8_t>(byte));
            }
        }
        text.remove_prefix(character.length);
    }
    return escaped;
}

size_t count_columns(std::string_view text) {
    size_t columns = 0;
    while (!text.empty()) {
        const Character character = first_character(text);
        columns += character.is_shown ? 1 : 4 * character.length;
        text.remove_prefix(character.length);
    }
    return columns;
}

std::string escape_json(std::string_view text) {
    std::string escaped;
    while (!text.empty()) {
        const Character character = first_character(text);
        if (character.is_shown || character.code == '\n') {
            escaped += text.substr(0, character.length);
        } else if (character.code > 0xFFFF) {
            const uint32_t beyond = character.code - 0x10000;
            escaped += hexadecimal("\\u%04x", 0xD800 + (beyond >> 10));
            escaped += hexadecimal("\\u%04x", 0xDC00 + (beyond & 0x3FF));
        } else {
            escaped += hexadecimal("\\u%04x", character.code);
        }
        text.remove_prefix(character.length);
    }
    return escaped;
}

} // namespace dolm
