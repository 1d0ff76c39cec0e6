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
constexpr size_t max_members = 24;
constexpr uint64_t max_manifest_size = uint64_t{32} << 20;
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
        manifest.skus = skus(top, "skus").value_or(std::vector<uint32_t>());
        if (manifest.skus.empty()) {
            problems.add("/skus", "at least one SKU is needed");
            manifest.skus.push_back(0);
        }
        if (manifest.as_found = top.flag("as_found", false); manifest.as_found) {
            problems.let_doubts_pass();
        }
        manifest.default_sku = top.number("default_sku", 0, max_u32, manifest.skus.front());
        if (const Json *section = top.member("afs")) {
            manifest.afs = afs(*section);
        }
        if (const Json *section = top.member("efs")) {
            manifest.efs = efs_sections(*section, manifest.skus);
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
    // Nothing if they are not given.
    std::optional<std::vector<uint32_t>> skus(JsonObject &object, std::string_view key) {
        std::vector<uint32_t> skus;
        const Json *list = object.member(key);
        if (list == nullptr) {
            return std::nullopt;
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
        layout.total_va_size = section.number("total_va_size", 0, max_u32, 0);
        layout.fs_version = section.number("fs_version", 0, max_u32, 0);
        section.refuse_unknown_members();
        return layout;
    }

    // One section for all SKUs, or a list of them.
    std::vector<EfsSection> efs_sections(const Json &json, const std::vector<uint32_t> &all_skus) {
        if (!json.is_array()) {
            return {efs_section(json, "/efs", all_skus)};
        }
        std::vector<EfsSection> sections;
        for (size_t i = 0; i < json.size(); ++i) {
            sections.push_back(efs_section(json[i], "/efs/" + std::to_string(i), all_skus));
        }
        return sections;
    }

    EfsSection efs_section(const Json &json, const std::string &place,
                           const std::vector<uint32_t> &all_skus) {
        JsonObject object(json, place, problems);
        EfsSection section{place, skus(object, "skus").value_or(all_skus)};
        const EfsGeometry defaults;
        EfsGeometry &geometry = section.geometry;
        geometry.bm_num = object.number("bm_num", 1, 255, defaults.bm_num);
        geometry.valid_blocks = object.number("valid", 1, 255, defaults.valid_blocks);
        geometry.spare_blocks = object.number("non_valid", 0, 255, defaults.spare_blocks);
        geometry.files_num = object.number("files_num", 1, max_files, 0);
        geometry.wear_threshold =
            object.number("wear_threshold", 0, max_u32, defaults.wear_threshold);
        geometry.layout_id = object.number("layout_id", 0, 255, defaults.layout_id);
        section.has_image = object.flag("image", true);
        if (const Json *places = object.member("places")) {
            section.places = efs_places(*places, object.at("places"));
        }
        object.refuse_unknown_members();
        return section;
    }

    std::vector<EfsSlot> efs_places(const Json &json, const std::string &place) {
        std::vector<EfsSlot> slots;
        if (!json.is_array()) {
            problems.add(place, "an array of places is needed here");
            return slots;
        }
        for (size_t i = 0; i < json.size(); ++i) {
            JsonObject object(json[i], place + "/" + std::to_string(i), problems);
            const auto id = static_cast<uint16_t>(object.number("id", 0, 0xFFFF, std::nullopt));
            slots.push_back({id, efs_placement(object, std::nullopt)});
            object.refuse_unknown_members();
        }
        return slots;
    }

    EfsPlacement efs_placement(JsonObject &object, std::optional<uint32_t> default_size) {
        EfsPlacement placement;
        placement.block = object.number("block", 0, 255, std::nullopt);
        placement.offset = object.number("offset", 0, efs::record_room, 0);
        placement.max_size = object.number("max_size", 0, max_u32, default_size);
        return placement;
    }

    ManifestFile file(const Json &json, const std::string &place,
                      const std::vector<uint32_t> &all_skus) {
        JsonObject object(json, place, problems);
        ManifestFile file;
        if (const Json *comment = object.member("comment"); comment && comment->is_string()) {
            file.comment = comment->get<std::string>();
        }
        file.place = place;
        file.skus = skus(object, "skus").value_or(all_skus);
        // What stands in no table needs nothing that only a table has.
        const bool is_listed = !file.skus.empty();
        file.name = name(object, is_listed);
        file.number = object.number("number", 0, 0x0FFFFFFF, optional_if(!is_listed)) |
                      object.number("class", 0, 15, 0) << 28;
        file.attributes = attributes(object);
        file.base = value(object, "base");
        file.base_opaque = opaque(object, "base_opaque", file.base);
        file.override_value = value(object, "override");
        file.override_opaque = opaque(object, "override_opaque", file.override_value);
        file.max_size = object.number("max_size", 0, max_u32, optional_if(!is_listed));
        placement(object, file);
        object.refuse_unknown_members();
        return file;
    }

    // The fallback of a number that may be absent.
    static std::optional<uint32_t> optional_if(bool may_be_absent) {
        return may_be_absent ? std::optional(0u) : std::nullopt;
    }

    // A text, or a VALUE where it is none.
    std::string name(JsonObject &object, bool is_listed) {
        const Json *json = object.member("name");
        if (json == nullptr && !is_listed) {
            return {};
        }
        if (json == nullptr || !(json->is_string() || json->is_object())) {
            problems.add(object.at("name"), "a name is needed here");
            return {};
        }
        const auto content = values.read(*json, object.at("name"));
        return content && content->size() <= max_content ? std::string(to_text(content->bytes()))
                                                         : "";
    }

    uint16_t opaque(JsonObject &object, std::string_view key, const std::optional<Content> &value) {
        const uint32_t word = object.number(key, 0, 0xFFFF, 0);
        if (word != 0 && !value) {
            problems.add(object.at(key), "there is no value whose record could have it");
        }
        return static_cast<uint16_t>(word);
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
        file.store = store(object);
        const bool has_store = file.store == Store::afs || file.store == Store::efs;
        file.id = static_cast<uint16_t>(object.number("id", 0, 2047, optional_if(!has_store)));
        if (const Json *json = file.is_in_efs() ? object.member("efs") : nullptr) {
            JsonObject section(*json, object.at("efs"), problems);
            file.efs = efs_placement(section, std::min(file.max_size, max_u32 - 56) +
                                                  trailer_length(file.attributes));
            section.refuse_unknown_members();
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
        file.trailer = value(object, "trailer_content");
    }

    // By name, or the number of one that does not exist.
    Store store(JsonObject &object) {
        const Json *json = object.member("store");
        if (json == nullptr || *json == "none") {
            return Store::none;
        }
        if (*json == "afs") {
            return Store::afs;
        }
        if (*json == "efs") {
            return Store::efs;
        }
        const auto number = to_number(*json);
        if (!number || *number < 3 || *number > 255) {
            problems.add(object.at("store"), "\"afs\", \"efs\" or \"none\" is needed here");
            return Store::none;
        }
        return static_cast<Store>(*number);
    }

    std::optional<Content> value(JsonObject &object, std::string_view key) {
        const Json *json = object.member(key);
        return json == nullptr ? std::nullopt : values.read(*json, object.at(key));
    }

    // Without a number of slots in the manifest: as many as the ids need, and the usual number at
    // least.
    static void give_efs_its_slots(Manifest &manifest) {
        for (EfsSection &section : manifest.efs) {
            uint32_t &slots = section.geometry.files_num;
            if (slots != 0) {
                continue;
            }
            slots = default_efs_files;
            for (const ManifestFile &file : manifest.files) {
                if (section.lists(file)) {
                    slots = std::max(slots, file.id + 1u);
                }
            }
            for (const EfsSlot &slot : section.places) {
                slots = std::max(slots, slot.id + 1u);
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

bool EfsSection::lists(const ManifestFile &file) const {
    return file.efs &&
           (file.skus.empty() || std::any_of(file.skus.begin(), file.skus.end(),
                                             [&](uint32_t sku) { return has_sku(sku); }));
}

const EfsSection *Manifest::efs_image_section() const {
    const EfsSection *chosen = nullptr;
    for (const EfsSection &section : efs) {
        const bool is_first = chosen == nullptr || section.has_sku(default_sku);
        if (section.has_image && is_first) {
            chosen = &section;
        }
    }
    return chosen;
}

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
    const Bytes text = read_file(path, max_manifest_size);
    return parse_manifest(to_text(text), path == "-" ? "standard input" : path.string(),
                          path.parent_path());
}

} // namespace dolm
