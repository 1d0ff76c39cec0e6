#include "host/json_value.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>

#include "host/errors.h"
#include "host/set_files.h"
#include "host/value_text.h"

namespace dolm {

using Json = nlohmann::json;

// A width in bytes with its sign and order of bytes.
struct NumberForm {
    std::string_view key;
    unsigned width;
    bool is_signed = false;
    bool is_big_endian = false;
};

namespace {

constexpr bool is_signed = true;
constexpr bool is_big_endian = true;

constexpr NumberForm number_forms[] = {
    {"u8", 1},
    {"u16", 2},
    {"u32", 4},
    {"u64", 8},
    {"i8", 1, is_signed},
    {"i16", 2, is_signed},
    {"i32", 4, is_signed},
    {"i64", 8, is_signed},
    {"u8be", 1, !is_signed, is_big_endian},
    {"u16be", 2, !is_signed, is_big_endian},
    {"u32be", 4, !is_signed, is_big_endian},
    {"u64be", 8, !is_signed, is_big_endian},
    {"i8be", 1, is_signed, is_big_endian},
    {"i16be", 2, is_signed, is_big_endian},
    {"i32be", 4, is_signed, is_big_endian},
    {"i64be", 8, is_signed, is_big_endian},
};

const NumberForm *find_number_form(std::string_view key) {
    const auto *found = std::find_if(std::begin(number_forms), std::end(number_forms),
                                     [=](const NumberForm &form) { return form.key == key; });
    return found == std::end(number_forms) ? nullptr : found;
}

// The bits of a number in two's complement; nothing if it does not fit.
std::optional<uint64_t> to_bits(const Json &json, const NumberForm &form) {
    const uint64_t most = UINT64_MAX >> (64 - 8 * form.width + (form.is_signed ? 1 : 0));
    const auto lowest = -static_cast<int64_t>(most) - 1; // of a signed one
    if (const auto number = to_number(json)) {
        return *number <= most ? number : std::nullopt;
    }
    if (!form.is_signed) {
        return std::nullopt;
    }
    if (json.is_number_integer()) {
        const auto number = json.get<int64_t>();
        return number >= lowest ? std::optional(static_cast<uint64_t>(number)) : std::nullopt;
    }
    if (json.is_string() && json.get_ref<const std::string &>().starts_with('-')) {
        // The amount below zero, of which there is one more than above.
        const auto amount = to_number(json.get_ref<const std::string &>().substr(1));
        return amount && *amount <= most + 1 ? std::optional(0 - *amount) : std::nullopt;
    }
    return std::nullopt;
}

void append_bits(Bytes &bytes, uint64_t bits, const NumberForm &form) {
    for (unsigned i = 0; i < form.width; ++i) {
        const unsigned place = form.is_big_endian ? form.width - 1 - i : i;
        bytes.push_back(static_cast<uint8_t>(bits >> (8 * place)));
    }
}

int digit64(char digit) {
    constexpr std::string_view digits =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    const size_t value = digits.find(digit);
    return value == digits.npos ? -1 : static_cast<int>(value);
}

// Nothing if the text is not groups of four digits, the last one filled up with "=".
std::optional<Bytes> from_base64(std::string_view text) {
    const std::ptrdiff_t fill = text.ends_with("==") ? 2 : text.ends_with("=") ? 1 : 0;
    if (text.size() % 4 != 0) {
        return std::nullopt;
    }
    Bytes bytes;
    bytes.reserve(text.size() / 4 * 3);
    uint32_t bits = 0;
    for (size_t i = 0; i < text.size(); ++i) {
        const int digit = i + static_cast<size_t>(fill) < text.size() ? digit64(text[i]) : 0;
        if (digit < 0) {
            return std::nullopt;
        }
        bits = bits << 6 | static_cast<uint32_t>(digit);
        if (i % 4 == 3) {
            bytes.insert(bytes.end(),
                         {static_cast<uint8_t>(bits >> 16), static_cast<uint8_t>(bits >> 8),
                          static_cast<uint8_t>(bits)});
        }
    }
    bytes.erase(bytes.end() - fill, bytes.end());
    return bytes;
}

} // namespace

bool is_number_form(std::string_view key) {
    return find_number_form(key) != nullptr;
}

std::optional<Content> ValueReader::read(const Json &json, const std::string &place) {
    if (json.is_string()) {
        const auto &text = json.get_ref<const std::string &>();
        return Content(to_bytes(text), text.size());
    }
    if (!json.is_object()) {
        problems_.add(place, "a text, or an object with one of 'text', 'hex', 'base64', 'file' and "
                             "a number like 'u32', is needed here");
        return std::nullopt;
    }
    JsonObject form(json, place, problems_);
    std::optional<Bytes> period = content_of(form);
    const size_t size =
        form.number("size", 0, max_content, period ? static_cast<uint32_t>(period->size()) : 0);
    form.refuse_unknown_members();
    if (!period) {
        return std::nullopt;
    }
    if (period->empty() && size > 0) {
        problems_.add(form.at("size"), "an empty content cannot be repeated");
    }
    return Content(std::move(*period), size);
}

// The one member that says what the content is.
std::optional<Bytes> ValueReader::content_of(JsonObject &form) {
    std::optional<Bytes> content;
    int forms = 0;
    for (const std::string_view key : {"text", "hex", "base64", "file"}) {
        if (const Json *json = form.member(key)) {
            ++forms;
            content = from_string(form.at(key), key, *json);
        }
    }
    for (const NumberForm &number : number_forms) {
        if (const Json *json = form.member(number.key)) {
            ++forms;
            content = from_numbers(form.at(number.key), number, *json);
        }
    }
    if (forms != 1) {
        problems_.add(
            form.place,
            "one of 'text', 'hex', 'base64', 'file' and a number like 'u32' is needed here");
        return std::nullopt;
    }
    return content;
}

std::optional<Bytes> ValueReader::from_string(const std::string &place, std::string_view key,
                                              const Json &json) {
    if (!json.is_string()) {
        problems_.add(place, "a string is needed here");
        return std::nullopt;
    }
    const auto &text = json.get_ref<const std::string &>();
    if (key == "text") {
        return to_bytes(text);
    }
    if (key == "file") {
        return from_file(place, text);
    }
    auto content = key == "hex" ? from_hex(text) : from_base64(text);
    if (!content) {
        problems_.add(place, key == "hex" ? "not hexadecimal: two digits make a byte"
                                          : "not base64: four digits make three bytes");
    }
    return content;
}

std::optional<Bytes> ValueReader::from_file(const std::string &place, const std::string &name) {
    try {
        Bytes content = read_file(folder_ / name, std::min<uint64_t>(max_content, room_));
        room_ -= content.size();
        return content;
    } catch (const Failure &failure) {
        problems_.add(place, failure.what());
        return std::nullopt;
    }
}

std::optional<Bytes> ValueReader::from_numbers(const std::string &place, const NumberForm &form,
                                               const Json &json) {
    Bytes bytes;
    const auto add = [&](const Json &number, const std::string &at) {
        const auto bits = to_bits(number, form);
        if (!bits) {
            problems_.add(at, "a whole number of " + std::to_string(8 * form.width) + " bits with" +
                                  (form.is_signed ? " sign" : "out sign") + " is needed here");
            return false;
        }
        append_bits(bytes, *bits, form);
        return true;
    };
    if (!json.is_array()) {
        return add(json, place) ? std::optional(bytes) : std::nullopt;
    }
    bool all_good = true;
    for (size_t i = 0; i < json.size(); ++i) {
        all_good = add(json[i], place + "/" + std::to_string(i)) && all_good;
    }
    if (bytes.size() > max_content) {
        problems_.add(place, "at most " + std::to_string(max_content) + " bytes fit");
        return std::nullopt;
    }
    return all_good ? std::optional(bytes) : std::nullopt;
}

} // namespace dolm
