#include "host/nvar_json.h"

#include "host/value_json.h"

namespace dolm {

Json to_json(const std::optional<Bytes> &value) {
    return value ? value_to_json(*value) : Json();
}

Json to_json(const Nvar &nvar) {
    Json json{{"name", nvar.name}};
    json.update(value_to_json(nvar.value));
    json["max_size"] = nvar.entry.max_size;
    json["attributes"] = nvar.entry.attributes;
    json["origin"] = to_string(nvar.origin);
    json["differs_from_base"] = nvar.differs_from_base;
    json["writable"] = nvar.writable;
    json["number"] = number_in_class(nvar.entry.number);
    json["class"] = class_of(nvar.entry.number);
    json["store"] = store_name(nvar.entry.store);
    json["id"] = nvar.entry.id;
    json["base"] = to_json(nvar.base);
    json["override"] = to_json(nvar.override_value);
    return json;
}

} // namespace dolm
