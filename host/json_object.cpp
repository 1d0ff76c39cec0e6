#include "host/json_object.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>

namespace dolm {

using Json = nlohmann::json;

std::optional<uint64_t> to_number(const Json &value) {
    if (value.is_number_unsigned()) {
        return value.get<uint64_t>();
    }
    if (value.is_string()) {
        const auto &text = value.get_ref<const std::string &>();
        char *end = nullptr;
        errno = 0;
        const uint64_t number = std::strtoull(text.c_str(), &end, 0);
        const bool begins_well = !text.empty() && text.front() >= '0' && text.front() <= '9';
        if (begins_well && end == text.c_str() + text.size() && errno == 0) {
            return number;
        }
    }
    return std::nullopt;
}

JsonObject::JsonObject(const Json &object, std::string where, Problems &found)
    : json(object), place(std::move(where)), problems(found) {
    if (!json.is_object()) {
        problems.add(place, "an object is needed here");
    }
}

const Json *JsonObject::member(std::string_view key) {
    known_.push_back(key);
    const auto found = json.is_object() ? json.find(key) : json.end();
    return found == json.end() ? nullptr : &*found;
}

uint32_t JsonObject::number(std::string_view key, uint32_t low, uint32_t high,
                            std::optional<uint32_t> fallback) {
    const Json *value = member(key);
    if (value == nullptr) {
        if (!fallback && json.is_object()) {
            problems.add(place, "'" + std::string(key) + "' is missing");
        }
        return fallback.value_or(low);
    }
    const auto number = to_number(*value);
    if (!number || *number < low || *number > high) {
        problems.add(at(key), "a whole number from " + std::to_string(low) + " to " +
                                  std::to_string(high) + " is needed here");
        return fallback.value_or(low);
    }
    return static_cast<uint32_t>(*number);
}

bool JsonObject::flag(std::string_view key, bool fallback) {
    const Json *value = member(key);
    if (value == nullptr) {
        return fallback;
    }
    if (!value->is_boolean()) {
        problems.add(at(key), "true or false is needed here");
        return fallback;
    }
    return value->get<bool>();
}

void JsonObject::refuse_unknown_members() {
    if (!json.is_object()) {
        return;
    }
    for (const auto &item : json.items()) {
        if (std::find(known_.begin(), known_.end(), item.key()) == known_.end()) {
            problems.add(at(item.key()), "unknown member");
        }
    }
}

} // namespace dolm
