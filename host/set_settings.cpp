#include "host/set_settings.h"

#include <nlohmann/json.hpp>
#include <stdexcept>

namespace dolm {

namespace {

using Json = nlohmann::ordered_json;

Json to_json(const Checksums &checksums) {
    return {{"size", checksums.size},
            {"crc32", checksums.whole},
            {"block_size", checksums.block},
            {"block_crc32", checksums.crc32s}};
}

uint32_t to_number(const Json &json) {
    if (!json.is_number_unsigned() || json.get<uint64_t>() > UINT32_MAX) {
        throw std::invalid_argument("no number of 32 bits");
    }
    return json.get<uint32_t>();
}

Checksums to_checksums(const Json &json) {
    Checksums checksums{to_number(json.at("size")),
                        to_number(json.at("block_size")),
                        {},
                        to_number(json.at("crc32"))};
    for (const Json &crc32 : json.at("block_crc32")) {
        checksums.crc32s.push_back(to_number(crc32));
    }
    if (!is_possible(checksums)) {
        throw std::invalid_argument("no checksums of a file");
    }
    return checksums;
}

SetSettings to_settings(const Json &json) {
    SetSettings settings{to_number(json.at("sku")), {}, {}, {}};
    for (const auto &[key, field] : json.items()) {
        if (key == "members") {
            settings.members = field.get<std::vector<std::string>>();
        } else if (key == "checksums") {
            for (const auto &[name, of_file] : field.items()) {
                settings.checksums.emplace(name, to_checksums(of_file));
            }
        } else if (key != "sku") {
            settings.unknown.push_back(key);
        }
    }
    return settings;
}

} // namespace

Bytes to_bytes(const SetSettings &settings) {
    Json json{{"sku", settings.sku}, {"members", settings.members}};
    for (const auto &[name, checksums] : settings.checksums) {
        json["checksums"][name] = to_json(checksums);
    }
    const std::string text = json.dump() + "\n";
    return Bytes(text.begin(), text.end());
}

std::optional<SetSettings> read_settings(const Bytes &bytes) {
    try {
        return to_settings(Json::parse(bytes));
    } catch (const std::exception &) {
        return std::nullopt;
    }
}

} // namespace dolm
