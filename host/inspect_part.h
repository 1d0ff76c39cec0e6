// A part of an image as it lies there: its bytes, and what each of them is.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <span>
#include <string>
#include <vector>

#include "host/output.h"

namespace dolm {

struct InspectedField {
    size_t at; // in the image
    size_t size;
    std::string name;
    std::string value; // in words
};

struct InspectedPart {
    std::string name; // "EU 7"
    size_t at = 0;    // in the image
    std::span<const uint8_t> bytes;
    std::vector<InspectedField> fields; // in the order of their places
};

void print_part(std::ostream &out, const InspectedPart &part);
Json part_to_json(const InspectedPart &part);

} // namespace dolm
