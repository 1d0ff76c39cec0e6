// Reading the JSON form: every member is tested by itself here, what they mean together in
// manifest_check.cpp.
#include "host/manifest.h"

#include <algorithm>

#include "host/errors.h"
#include "host/json_object.h"
#include "host/json_text.h"
#include "host/json_value.h"
#include "host/manifest_check.h"
#include "host/set_files.h"
#include "host/value_text.h"
#include "image/efs_records.h"

namespace dolm {

namespace {

using Json = nlohmann::json;

constexpr uint32_t max_u32 = 0xFFFFFFFF;
constexpr size_t max_members = 64;
constexpr uint32_t default_efs_files = 16;
constexpr uint32_t default_afs_files = 1024;

class Reader {
  public:
    Reader(std::filesystem::path values_from, Problems &found)
        : problems(found), values(std::move(values_from), found) {}

    Manifest manifest(const Json &json) {
        JsonObject top(json, "", problems);
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
    std::vector<uint32_t> skus(JsonObject &object, std::string_view key) {
        std::vector<uint32_t> skus;
        const Json *list = object.member(key);
        if (list == nullptr) {
            return skus;
        }
        if (!list->is_array()) {
            problems.add(object.at(key), "an array of SKU numbers is needed here");
            return skus;
        }
        for (size_t i = 0; i < list->size(); ++i) {
            const auto number = to_number((*list)[i]);
            if (!number || *number > max_u32) {
                problems.add(object.at(key) + "/" + std::to_string(i), "a whole number from 0 to " +
                                                                           std::to_string(max_u32) +
                                                                           " is needed here");
            } else if (std::find(skus.begin(), skus.end(), *number) != skus.end()) {
                problems.add(object.at(key), "SKU " + std::to_string(*number) + " stands twice");
            } else {
                skus.push_back(static_cast<uint32_t>(*number));
            }
        }
        return skus;
    }

    AfsLayout afs(const Json &json) {
        JsonObject section(json, "/afs", problems);
        AfsLayout layout;
        layout.device_size = section.number("size", 0, max_u32, std::nullopt);
        layout.data_eus = section.number("data_units", 0, max_u32, std::nullopt);
        layout.file_count = section.number("file_count", 0, max_u32, default_afs_files);
        section.refuse_unknown_members();
        return layout;
    }

    EfsGeometry efs(const Json &json) {
        JsonObject section(json, "/efs", problems);
        const EfsGeometry defaults;
        EfsGeometry geometry;
        geometry.bm_num = section.number("bm_num", 1, 255, defaults.bm_num);
        geometry.valid_blocks = section.number("valid", 1, 255, defaults.valid_blocks);
        geometry.spare_blocks = section.number("non_valid", 0, 255, defaults.spare_blocks);
        geometry.files_num = section.number("files_num", 1, 2048, 0);
        geometry.wear_threshold =
            section.number("wear_threshold", 0, max_u32, defaults.wear_threshold);
        geometry.layout_id = section.number("layout_id", 0, 255, defaults.layout_id);
        section.refuse_unknown_members();
        return geometry;
    }

    ManifestFile file(const Json &json, const std::string &place,
                      const std::vector<uint32_t> &all_skus) {
        JsonObject object(json, place, problems);
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

    std::string name(JsonObject &object) {
        const Json *value = object.member("name");
        if (value == nullptr || !value->is_string()) {
            problems.add(object.at("name"), "a name is needed here");
            return {};
        }
        return value->get<std::string>();
    }

    // The attribute word: the plain bits of "attributes" with those that "trailer" and "pulled"
    // stand for.
    uint16_t attributes(JsonObject &object) {
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
        if (!object.flag("pulled", true)) {
            word |= attribute_not_pulled;
        }
        return static_cast<uint16_t>(word);
    }

    // Store, id, content in flash and place in EFS.
    void placement(JsonObject &object, ManifestFile &file) {
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

    EfsPlacement efs_place(JsonObject &object, const ManifestFile &file) {
        EfsPlacement place;
        const Json *json = object.member("efs");
        if (json == nullptr) {
            problems.add(object.place, "'efs' is missing, the file's place in EFS");
            return place;
        }
        JsonObject section(*json, object.at("efs"), problems);
        place.block = section.number("block", 0, 254, std::nullopt);
        place.offset = section.number("offset", 0, efs::record_room, 0);
        const uint32_t with_trailer =
            std::min(file.max_size, max_u32 - 56) + trailer_length(file.attributes);
        place.max_size = section.number("max_size", 0, max_u32, with_trailer);
        section.refuse_unknown_members();
        return place;
    }

    std::optional<Content> value(JsonObject &object, std::string_view key) {
        const Json *json = object.member(key);
        return json == nullptr ? std::nullopt : values.read(*json, object.at(key));
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

    Problems &problems;
    ValueReader values;
};

// The name of the file that "/files/N..." is about, as far as the manifest gives it one.
std::string name_at(const Json &manifest, const std::string &place) {
    constexpr std::string_view files = "/files/";
    if (!place.starts_with(files)) {
        return "";
    }
    const Json &file = manifest["files"][std::stoul(place.substr(files.size()))];
    const auto name = file.is_object() ? file.find("name") : file.end();
    return name == file.end() || !name->is_string()
               ? ""
               : name->get<std::string>().substr(0, 2 * size_t{ftbl::name_size});
}

} // namespace

Manifest parse_manifest(std::string_view text, const std::string &source,
                        const std::filesystem::path &folder) {
    const Json json = parse_json_text(text, source, max_members);
    Problems problems;
    Manifest manifest = Reader(folder, problems).manifest(json);
    if (problems.empty()) {
        check_manifest(manifest, problems);
    }
    if (!problems.empty()) {
        throw Failure(
            problems.list(source, [&](const std::string &place) { return name_at(json, place); }));
    }
    return manifest;
}

Manifest load_manifest(const std::filesystem::path &path) {
    const Bytes text = read_file(path, max_table_size);
    return parse_manifest(to_text(text), path == "-" ? "standard input" : path.string(),
                          path.parent_path());
}

} // namespace dolm
