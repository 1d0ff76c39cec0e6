#include "host/value_json.h"

#include "host/utf8.h"
#include "host/value_text.h"

namespace dolm {

Json value_to_json(const Bytes &value) {
    Json json{{"size", value.size()}};
    if (is_printable(to_text(value))) {
        json["text"] = to_text(value);
    }
    json["hex"] = to_hex(value);
    return json;
}

} // namespace dolm
