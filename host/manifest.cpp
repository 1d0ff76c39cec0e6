// Reading the JSON form: every member is tested by itself here, what they mean together in
// manifest_check.cpp.
#include "host/manifest.h"

#include <algorithm>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <set>

#include "host/errors.h"
#include "host/manifest_check.h"
#include "host/set_files.h"
#include "host/value_text.h"

namespace dolm {

namespace {

using Json = nlohmann::json;

constexpr uint32_t max_u32 = 0xFFFFFFFF;
constexpr uint32_t max_content = 262144; // of any file in flash
constexpr uint32_t default_efs_files = 16;
constexpr uint32_t default_afs_files = 1024;

// An integer, given as a JSON number or as a string in C notation ("0x21").
std::optional<uint64_t> to_number(const Json &value) {
    if (value.is_number_unsigned()) {
        return value.get<uint64_t>();
    }
    if (value.is_string()) {
        const auto &text = value.get_ref<const std::string &>();
        char *end = nullptr;
        const uint64_t number = std::strtoull(text.c_str(), &end, 0);
        if (!text.empty() && text.front() != '-' && *end == '\0') {
            return number;
        }
    }
    return std::nullopt;
}

// One JSON object under reading: hands out its members, and knows which ones nobody asked for.
class Object {
  public:
    Object(const Json &object, std::string where, Problems &found)
        : json(object), place(std::move(where)), problems(found) {
        if (!json.is_object()) {
            problems.add(place, "an object is needed here");
        }
    }

    // Null if the member is absent.
    const Json *member(const std::string &key) {
        known.insert(key);
        const auto found = json.is_object() ? json.find(key) : json.end();
        return found == json.end() ? nullptr : &*found;
    }

    uint32_t number(const std::string &key, uint32_t low, uint32_t high,
                    std::optional<uint32_t> fallback) {
        const Json *value = member(key);
        if (value == nullptr) {
            if (!fallback && json.is_object()) {
                problems.add(place, "'" + key + "' is missing");
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

    std::string at(const std::string &key) const { return place + "/" + key; }

    void refuse_unknown_members() {
        if (!json.is_object()) {
            return;
        }
        for (const auto &item : json.items()) {
            if (!known.contains(item.key())) {
                problems.add(at(item.key()), "unknown member");
            }
        }
    }

    const Json &json;
    const std::string place;
    Problems &problems;

  private:
    std::set<std::string> known;
};

class Reader {
  public:
    Reader(std::filesystem::path values_from, Problems &found)
        : folder(std::move(values_from)), problems(found) {}

    Manifest manifest(const Json &json) {
        Object top(json, "", problems);
        top.member("description");
        Manifest manifest;
        manifest.skus = skus(top, "skus");
        if (manifest.skus.empty()) {
            problems.add("/skus", "at least one SKU is needed");
            manifest.skus.push_back(0);
        }
        manifest.default_sku = top.number("default_sku", 0, max_u32, manifest.skus.front());
        if (const Json *section = top.member("afs")) {
            manifest.afs = afs(*section);
        }
        if (const Json *section = top.member("efs")) {
            manifest.efs = efs(*section);
        }
        if (const Json *files = top.member("files"); files != nullptr && files->is_array()) {
            for (size_t i = 0; i < files->size(); ++i) {
                manifest.files.push_back(
                    file((*files)[i], "/files/" + std::to_string(i), manifest.skus));
            }
        } else {
            problems.add("/files", "an array of files is needed here");
        }
        top.refuse_unknown_members();
        give_efs_its_slots(manifest);
        return manifest;
    }

  private:
    std::vector<uint32_t> skus(Object &object, const std::string &key) {
        std::vector<uint32_t> skus;
        const Json *list = object.member(key);
        if (list == nullptr) {
            return skus;
        }
        if (!list->is_array()) {
            problems.add(object.at(key), "an array of SKU numbers is needed here");
            return skus;
        }
        for (const Json &item : *list) {
            const auto number = to_number(item);
            if (!number || *number > max_u32) {
                problems.add(object.at(key), item.dump() + " is no SKU number");
            } else if (std::find(skus.begin(), skus.end(), *number) != skus.end()) {
                problems.add(object.at(key), "SKU " + std::to_string(*number) + " stands twice");
            } else {
                skus.push_back(static_cast<uint32_t>(*number));
            }
        }
        return skus;
    }

    AfsLayout afs(const Json &json) {
        Object section(json, "/afs", problems);
        AfsLayout layout;
        layout.device_size = section.number("size", 0, max_u32, std::nullopt);
        layout.data_eus = section.number("data_units", 0, max_u32, std::nullopt);
        layout.file_count = section.number("file_count", 0, max_u32, default_afs_files);
        section.refuse_unknown_members();
        return layout;
    }

    EfsGeometry efs(const Json &json) {
        Object section(json, "/efs", problems);
        const EfsGeometry defaults;
        EfsGeometry geometry;
        geometry.bm_num = section.number("bm_num", 1, 255, defaults.bm_num);
        geometry.valid = section.number("valid", 1, 255, defaults.valid);
        geometry.non_valid = section.number("non_valid", 0, 255, defaults.non_valid);
        geometry.files_num = section.number("files_num", 1, 2048, 0);
        geometry.wear_threshold =
            section.number("wear_threshold", 0, max_u32, defaults.wear_threshold);
        geometry.layout_id = section.number("layout_id", 0, 255, defaults.layout_id);
        section.refuse_unknown_members();
        return geometry;
    }

    ManifestFile file(const Json &json, const std::string &place,
                      const std::vector<uint32_t> &all_skus) {
        Object object(json, place, problems);
        object.member("comment");
        ManifestFile file;
        file.place = place;
        file.name = name(object);
        file.number = object.number("number", 0, 0x0FFFFFFF, std::nullopt) |
                      object.number("class", 0, 15, 0) << 28;
        file.skus = skus(object, "skus");
        if (file.skus.empty()) {
            file.skus = all_skus;
        }
        file.attributes = attributes(object);
        file.base = value(object, "base");
        file.override_value = value(object, "override");
        file.max_size = object.number("max_size", 0, max_u32, std::nullopt);
        placement(object, file);
        object.refuse_unknown_members();
        return file;
    }

    std::string name(Object &object) {
        const Json *value = object.member("name");
        if (value == nullptr || !value->is_string()) {
            problems.add(object.at("name"), "a name is needed here");
            return {};
        }
        return value->get<std::string>();
    }

    // The attribute word: the plain bits of "attributes" with those that "trailer" and "pulled"
    // stand for.
    uint16_t attributes(Object &object) {
        uint32_t word = object.number("attributes", 0, 0xFFFF, 0);
        if (const Json *trailer = object.member("trailer")) {
            const auto length = to_number(*trailer);
            if (length == 40u) {
                word |= attribute_trailer;
            } else if (length == 56u) {
                word |= attribute_trailer | attribute_long_trailer;
            }
            if (length != trailer_length(static_cast<uint16_t>(word))) {
                problems.add(object.at("trailer"),
                             "0, 40 or 56 is needed here, in agreement with 'attributes'");
            }
        }
        if (const Json *pulled = object.member("pulled")) {
            if (!pulled->is_boolean()) {
                problems.add(object.at("pulled"), "true or false is needed here");
            } else if (!pulled->get<bool>()) {
                word |= attribute_not_pulled;
            }
        }
        return static_cast<uint16_t>(word);
    }

    // Store, id, content in flash and place in EFS.
    void placement(Object &object, ManifestFile &file) {
        const Json *store = object.member("store");
        const std::string name = store == nullptr     ? "none"
                                 : store->is_string() ? store->get<std::string>()
                                                      : "";
        if (name == "afs" || name == "efs") {
            file.store = name == "afs" ? Store::afs : Store::efs;
            file.id = static_cast<uint16_t>(object.number("id", 0, 2047, std::nullopt));
        } else if (name != "none") {
            problems.add(object.at("store"), "\"afs\", \"efs\" or \"none\" is needed here");
        }
        if (file.store == Store::efs) {
            file.efs = efs_place(object, file);
        }
        const Json *flash = object.member("flash");
        if (flash != nullptr && flash->is_boolean()) {
            if (flash->get<bool>()) {
                file.flash = file.override_value ? file.override_value : file.base;
                if (!file.flash) {
                    problems.add(object.at("flash"),
                                 "true stands for the file's value, and it has none");
                }
            }
        } else {
            file.flash = value(object, "flash");
        }
    }

    EfsPlacement efs_place(Object &object, const ManifestFile &file) {
        EfsPlacement place;
        const Json *json = object.member("efs");
        if (json == nullptr) {
            problems.add(object.place, "'efs' is missing, the file's place in EFS");
            return place;
        }
        Object section(*json, object.at("efs"), problems);
        place.block = section.number("block", 0, 254, std::nullopt);
        place.offset = section.number("offset", 0, 4072, 0);
        const uint32_t with_trailer =
            std::min(file.max_size, max_u32 - 56) + trailer_length(file.attributes);
        place.max_size = section.number("max_size", 0, max_u32, with_trailer);
        section.refuse_unknown_members();
        return place;
    }

    std::optional<Bytes> value(Object &object, const std::string &key) {
        const Json *json = object.member(key);
        if (json == nullptr) {
            return std::nullopt;
        }
        if (json->is_string()) {
            return to_bytes(json->get_ref<const std::string &>());
        }
        Object form(*json, object.at(key), problems);
        std::optional<Bytes> content = content_of(form);
        const Json *size = form.member("size");
        if (size != nullptr && content) {
            fill_to(form, *content);
        }
        form.refuse_unknown_members();
        return content;
    }

    // The one member that says what the content is.
    std::optional<Bytes> content_of(Object &form) {
        std::optional<Bytes> content;
        int forms = 0;
        for (const std::string key : {"text", "hex", "file"}) {
            const Json *json = form.member(key);
            if (json == nullptr) {
                continue;
            }
            ++forms;
            if (!json->is_string()) {
                problems.add(form.at(key), "a string is needed here");
                return std::nullopt;
            }
            content = content_from(form.at(key), key, json->get<std::string>());
        }
        if (forms != 1 && form.json.is_object()) {
            problems.add(form.place, "one of 'text', 'hex' and 'file' is needed here");
        }
        return content;
    }

    std::optional<Bytes> content_from(const std::string &place, const std::string &key,
                                      const std::string &text) {
        if (key == "text") {
            return to_bytes(text);
        }
        if (key == "hex") {
            auto content = from_hex(text);
            if (!content) {
                problems.add(place, "not hexadecimal: two digits make a byte");
            }
            return content;
        }
        try {
            return read_file(folder / text);
        } catch (const Failure &failure) {
            problems.add(place, failure.what());
            return std::nullopt;
        }
    }

    // Repeats the content until it has the size asked for.
    void fill_to(Object &form, Bytes &content) {
        const uint32_t size = form.number("size", 0, max_content, 0);
        if (content.empty() && size > 0) {
            problems.add(form.at("size"), "an empty content cannot be repeated");
            return;
        }
        const size_t period = content.size();
        content.resize(size);
        for (size_t i = period; i < content.size(); ++i) {
            content[i] = content[i - period];
        }
    }

    // Without a number of slots in the manifest: as many as the ids need, and the usual number at
    // least.
    static void give_efs_its_slots(Manifest &manifest) {
        if (!manifest.efs || manifest.efs->files_num != 0) {
            return;
        }
        manifest.efs->files_num = default_efs_files;
        for (const ManifestFile &file : manifest.files) {
            if (file.store == Store::efs) {
                manifest.efs->files_num = std::max(manifest.efs->files_num, file.id + 1u);
            }
        }
    }

    std::filesystem::path folder;
    Problems &problems;
};

// Parses, and refuses an object that names a member twice, of which the parser by itself would
// silently keep the last.
Json parse_strictly(std::string_view text, const std::string &source) {
    std::vector<std::set<std::string>> open;
    const auto watch = [&](int, Json::parse_event_t event, Json &parsed) {
        if (event == Json::parse_event_t::object_start) {
            open.emplace_back();
        } else if (event == Json::parse_event_t::object_end) {
            open.pop_back();
        } else if (event == Json::parse_event_t::key) {
            const auto key = parsed.get<std::string>();
            if (!open.back().insert(key).second) {
                throw Failure(source + ": the member '" + key + "' stands twice in an object");
            }
        }
        return true;
    };
    try {
        return Json::parse(text, watch, true, true);
    } catch (const Json::exception &error) {
        // "[json.exception.parse_error.101] parse error at line 1, column 2: ..."
        const std::string message = error.what();
        const size_t head = message.find("] ");
        throw Failure(source + ": " +
                      (head == std::string::npos ? message : message.substr(head + 2)));
    }
}

} // namespace

uint32_t trailer_length(uint16_t attributes) {
    if ((attributes & attribute_trailer) == 0) {
        return 0;
    }
    return (attributes & attribute_long_trailer) != 0 ? 56 : 40;
}

Manifest parse_manifest(std::string_view text, const std::string &source,
                        const std::filesystem::path &folder) {
    const Json json = parse_strictly(text, source);
    Problems problems;
    Manifest manifest = Reader(folder, problems).manifest(json);
    if (problems.empty()) {
        check_manifest(manifest, problems);
    }
    if (!problems.empty()) {
        throw Failure(problems.text(source));
    }
    return manifest;
}

Manifest load_manifest(const std::filesystem::path &path) {
    const Bytes text = read_file(path);
    return parse_manifest({reinterpret_cast<const char *>(text.data()), text.size()}, path.string(),
                          path.parent_path());
}

} // namespace dolm
