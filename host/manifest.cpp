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
#include "image/efs_records.h"

namespace dolm {

namespace {

using Json = nlohmann::json;

constexpr uint32_t max_u32 = 0xFFFFFFFF;
constexpr uint32_t max_content = 262144;                 // of any file in flash
constexpr uint64_t max_value_files = uint64_t{64} << 20; // bytes of all of them together
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
// Keys are literals.
class Object {
  public:
    Object(const Json &object, std::string where, Problems &found)
        : json(object), place(std::move(where)), problems(found) {
        if (!json.is_object()) {
            problems.add(place, "an object is needed here");
        }
    }

    // Null if the member is absent.
    const Json *member(std::string_view key) {
        known.push_back(key);
        const auto found = json.is_object() ? json.find(key) : json.end();
        return found == json.end() ? nullptr : &*found;
    }

    uint32_t number(std::string_view key, uint32_t low, uint32_t high,
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

    std::string at(std::string_view key) const { return place + "/" + std::string(key); }

    void refuse_unknown_members() {
        if (!json.is_object()) {
            return;
        }
        for (const auto &item : json.items()) {
            if (std::find(known.begin(), known.end(), item.key()) == known.end()) {
                problems.add(at(item.key()), "unknown member");
            }
        }
    }

    const Json &json;
    const std::string place;
    Problems &problems;

  private:
    std::vector<std::string_view> known;
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
    std::vector<uint32_t> skus(Object &object, std::string_view key) {
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
        place.offset = section.number("offset", 0, efs::record_room, 0);
        const uint32_t with_trailer =
            std::min(file.max_size, max_u32 - 56) + trailer_length(file.attributes);
        place.max_size = section.number("max_size", 0, max_u32, with_trailer);
        section.refuse_unknown_members();
        return place;
    }

    std::optional<Content> value(Object &object, std::string_view key) {
        const Json *json = object.member(key);
        if (json == nullptr) {
            return std::nullopt;
        }
        if (json->is_string()) {
            const auto &text = json->get_ref<const std::string &>();
            return Content(to_bytes(text), text.size());
        }
        if (!json->is_object()) {
            problems.add(
                object.at(key),
                "a text, or an object with one of 'text', 'hex' and 'file', is needed here");
            return std::nullopt;
        }
        Object form(*json, object.at(key), problems);
        std::optional<Bytes> period = content_of(form);
        const size_t size =
            form.number("size", 0, max_content, period ? static_cast<uint32_t>(period->size()) : 0);
        form.refuse_unknown_members();
        if (!period) {
            return std::nullopt;
        }
        if (period->empty() && size > 0) {
            problems.add(form.at("size"), "an empty content cannot be repeated");
        }
        return Content(std::move(*period), size);
    }

    // The one member that says what the content is.
    std::optional<Bytes> content_of(Object &form) {
        std::optional<Bytes> content;
        int forms = 0;
        for (const std::string_view key : {"text", "hex", "file"}) {
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
        if (forms != 1) {
            problems.add(form.place, "one of 'text', 'hex' and 'file' is needed here");
        }
        return content;
    }

    std::optional<Bytes> content_from(const std::string &place, std::string_view key,
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
            Bytes content = read_file(folder / text, std::min<uint64_t>(max_content, room));
            room -= content.size();
            return content;
        } catch (const Failure &failure) {
            problems.add(place, failure.what());
            return std::nullopt;
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
    uint64_t room = max_value_files; // for the value files to come
};

// Reads a text without keeping it, and refuses what no manifest can have: deep nesting, long lists,
// wide objects and long texts, which would take far more memory than the text once they are kept.
// Refuses an object that names a member twice too, of which a parser would silently keep the last.
class FormCheck : public nlohmann::json_sax<Json> {
  public:
    explicit FormCheck(const std::string &source) : source_(source) {}

    bool null() override { return begin_item(); }
    bool boolean(bool) override { return begin_item(); }
    bool number_integer(int64_t) override { return begin_item(); }
    bool number_unsigned(uint64_t) override { return begin_item(); }
    bool number_float(double, const std::string &) override { return begin_item(); }
    bool binary(Json::binary_t &) override { return begin_item(); }
    bool string(std::string &text) override {
        if (text.size() > max_text) {
            refuse("a text of " + std::to_string(text.size()) + " bytes; at most " +
                   std::to_string(max_text) + " fit");
        }
        return begin_item();
    }
    bool start_object(size_t) override { return begin_container(false); }
    bool start_array(size_t) override { return begin_container(true); }
    bool end_object() override { return end_container(); }
    bool end_array() override { return end_container(); }

    bool key(std::string &key) override {
        Container &object = open_.back();
        object.key = key.substr(0, max_key);
        if (key.size() > max_key) {
            refuse("a name of " + std::to_string(key.size()) + " bytes; at most " +
                   std::to_string(max_key) + " fit");
        }
        if (object.keys.size() == max_members) {
            refuse("at most " + std::to_string(max_members) + " members fit into an object");
        }
        if (!object.keys.insert(key).second) {
            refuse("the member '" + key + "' stands twice in an object");
        }
        return true;
    }

    bool parse_error(size_t, const std::string &,
                     const nlohmann::detail::exception &error) override {
        // "[json.exception.parse_error.101] parse error at line 1, column 2: ..."
        const std::string_view message = error.what();
        const size_t head = message.find("] ");
        constexpr size_t most_shown = 300; // it ends with the last thing read, however long
        throw Failure(source_ + ": " +
                      std::string(message.substr(head == message.npos ? 0 : head + 2, most_shown)));
    }

  private:
    static constexpr size_t max_depth = 64;
    static constexpr size_t max_members = 64; // of an object
    static constexpr size_t max_key = 256;
    static constexpr size_t max_text = size_t{1} << 20; // the longest content in hexadecimal

    struct Container {
        bool is_array;
        size_t count;    // items of an array so far
        std::string key; // the member of an object that is being read
        std::set<std::string> keys;
    };

    // A member of an object has begun with its key.
    bool begin_item() {
        if (open_.empty() || !open_.back().is_array) {
            return true;
        }
        const std::string &key = open_.size() > 1 ? open_[open_.size() - 2].key : open_.back().key;
        const bool lists_files = open_.size() == 2 && key == "files";
        const size_t most = lists_files ? max_files : max_sku_rows;
        if (++open_.back().count > most) {
            const char *items = lists_files ? "files" : key == "skus" ? "SKUs" : "items";
            open_.pop_back();
            refuse("at most " + std::to_string(most) + " " + items + " fit");
        }
        return true;
    }

    bool begin_container(bool is_array) {
        begin_item();
        if (open_.size() == max_depth) {
            refuse("nested more than " + std::to_string(max_depth) + " deep");
        }
        open_.push_back({is_array, 0, {}, {}});
        return true;
    }

    bool end_container() {
        open_.pop_back();
        return true;
    }

    [[noreturn]] void refuse(const std::string &why) const {
        std::string place;
        for (const Container &container : open_) {
            place += "/";
            place += container.is_array ? std::to_string(container.count - 1) : container.key;
        }
        throw Failure(source_ + ": " + (place.empty() ? "/" : place) + ": " + why);
    }

    const std::string &source_;
    std::vector<Container> open_;
};

Json parse_strictly(std::string_view text, const std::string &source) {
    FormCheck check(source);
    const bool with_comments = true;
    Json::sax_parse(text, &check, Json::input_format_t::json, true, with_comments);
    return Json::parse(text, nullptr, true, with_comments);
}

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
               : name->get<std::string>().substr(0, 2 * size_t{max_name_length});
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
