#include "host/json_output.h"

#include <iostream>
#include <string>

#include "host/value_text.h"

namespace dolm {

void print_json(const Json &json) {
    // Names come from tables that may be anything, UTF-8 or not.
    std::cout << json.dump(2, ' ', false, Json::error_handler_t::replace) << '\n';
}

Json value_to_json(const Bytes &value) {
    Json json{{"size", value.size()}};
    if (is_printable(value)) {
        json["text"] = std::string(value.begin(), value.end());
    }
    json["hex"] = to_hex(value);
    return json;
}

} // namespace dolm
