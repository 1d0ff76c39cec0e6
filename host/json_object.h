// One JSON object under reading: hands out its members, and knows which ones nobody asked for.
#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host/problems.h"

namespace dolm {

// An integer from 0 on, given as a JSON number or as a string in C notation ("0x21").
std::optional<uint64_t> to_number(const nlohmann::json &value);

// Keys are literals.
class JsonObject {
  public:
    JsonObject(const nlohmann::json &object, std::string where, Problems &found);

    // Null if the member is absent.
    const nlohmann::json *member(std::string_view key);

    // A whole number within the bounds. Without a fallback it has to be there.
    uint32_t number(std::string_view key, uint32_t low, uint32_t high,
                    std::optional<uint32_t> fallback);

    bool flag(std::string_view key, bool fallback);

    std::string at(std::string_view key) const { return place + "/" + std::string(key); }

    void refuse_unknown_members();

    const nlohmann::json &json;
    const std::string place;
    Problems &problems;

  private:
    std::vector<std::string_view> known_;
};

} // namespace dolm
