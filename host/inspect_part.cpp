#include "host/inspect_part.h"

#include <algorithm>
#include <iomanip>
#include <ostream>

#include "host/value_text.h"

namespace dolm {

namespace {

constexpr size_t bytes_per_line = 16;

std::string offset_text(size_t offset) {
    return to_hex({static_cast<uint8_t>(offset >> 16), static_cast<uint8_t>(offset >> 8),
                   static_cast<uint8_t>(offset)});
}

void print_line_of_bytes(std::ostream &out, size_t at, std::span<const uint8_t> line) {
    std::string hex;
    std::string text;
    for (size_t i = 0; i < bytes_per_line; ++i) {
        hex += i == bytes_per_line / 2 ? " " : "";
        hex += i < line.size() ? to_hex({line[i]}) + " " : "   ";
    }
    for (const uint8_t byte : line) {
        text += byte >= 0x20 && byte < 0x7F ? static_cast<char>(byte) : '.';
    }
    out << offset_text(at) << "  " << hex << " |" << text << "|\n";
}

// Lines like the one before are left out, with a star for all of them.
void print_bytes(std::ostream &out, const InspectedPart &part) {
    std::span<const uint8_t> before;
    bool is_left_out = false;
    for (size_t i = 0; i < part.bytes.size(); i += bytes_per_line) {
        const auto line = part.bytes.subspan(i, std::min(bytes_per_line, part.bytes.size() - i));
        const bool is_last = i + bytes_per_line >= part.bytes.size();
        if (!is_last && std::ranges::equal(line, before)) {
            out << (is_left_out ? "" : "*\n");
            is_left_out = true;
        } else {
            print_line_of_bytes(out, part.at + i, line);
            is_left_out = false;
        }
        before = line;
    }
}

} // namespace

void print_part(std::ostream &out, const InspectedPart &part) {
    out << part.name << ": " << part.bytes.size() << " bytes at 0x" << offset_text(part.at)
        << "\n\nOFFSET  SIZE  FIELD                 VALUE\n";
    for (const InspectedField &field : part.fields) {
        out << offset_text(field.at) << std::setw(6) << field.size << "  " << std::left
            << std::setw(20) << field.name << std::right << "  " << field.value << '\n';
    }
    out << '\n';
    print_bytes(out, part);
}

Json part_to_json(const InspectedPart &part) {
    Json json{{"kind", "part"},
              {"name", part.name},
              {"at", part.at},
              {"size", part.bytes.size()},
              {"hex", to_hex({part.bytes.begin(), part.bytes.end()})}};
    json["fields"] = Json::array();
    for (const InspectedField &field : part.fields) {
        json["fields"].push_back(
            {{"name", field.name}, {"at", field.at}, {"size", field.size}, {"value", field.value}});
    }
    return json;
}

} // namespace dolm
