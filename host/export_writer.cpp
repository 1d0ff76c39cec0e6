#include "host/export_writer.h"

#include <string>

#include "host/errors.h"
#include "host/output.h"
#include "host/set_files.h"
#include "host/table_entries.h"
#include "host/utf8.h"
#include "host/value_folder.h"
#include "host/value_text.h"

namespace dolm {

namespace fs = std::filesystem;

namespace {

// What a value file is called: by the file's name, or by what else is known of it.
std::string name_of_values(const ManifestFile &file) {
    return !file.name.empty() ? file.name
                              : store_name(static_cast<uint8_t>(file.store)) + "-" +
                                    std::to_string(file.id) + "-" + std::to_string(file.number);
}

// Files for very many short values take longer than all else, so these stand in the manifest.
constexpr size_t most_small_files = 1024;
constexpr size_t most_inline = 64; // bytes

size_t count_values(const Manifest &manifest) {
    size_t count = 0;
    for (const ManifestFile &file : manifest.files) {
        for (const auto *value : {&file.base, &file.override_value, &file.flash}) {
            count += *value ? 1U : 0U;
        }
    }
    return count;
}

class Writer {
  public:
    Writer(const Manifest &manifest, fs::path folder)
        : manifest_(manifest), folder_(std::move(folder)),
          short_ones_inline_(count_values(manifest) > most_small_files) {}

    // The number of values that were written as files. Nothing stays of an export that fails.
    size_t write() {
        try {
            write_all();
        } catch (...) {
            folder_.discard();
            throw;
        }
        return values_;
    }

  private:
    void write_all() {
        std::string text = head();
        for (size_t i = 0; i < manifest_.files.size(); ++i) {
            text += i == 0 ? "\n    " : ",\n    ";
            text += file(manifest_.files[i]).dump();
        }
        text += "\n  ]\n}\n";
        folder_.write("manifest.json", to_bytes(text));
    }

    // The manifest up to its files, a member a line.
    std::string head() const {
        Json json;
        if (manifest_.as_found) {
            json["as_found"] = true;
        }
        json["skus"] = manifest_.skus;
        json["default_sku"] = manifest_.default_sku;
        if (manifest_.afs) {
            json["afs"] = afs(*manifest_.afs);
        }
        if (manifest_.efs.size() == 1) {
            json["efs"] = efs(manifest_.efs.front());
        } else if (!manifest_.efs.empty()) {
            for (const EfsSection &section : manifest_.efs) {
                json["efs"].push_back(efs(section));
            }
        }
        std::string text = "{\n";
        for (const auto &[key, value] : json.items()) {
            text += "  \"" + key + "\": " + value.dump() + ",\n";
        }
        return text + "  \"files\": [";
    }

    static Json afs(const AfsLayout &layout) {
        Json json{{"size", layout.device_size},
                  {"data_units", layout.data_eus},
                  {"file_count", layout.file_count}};
        if (layout.total_va_size != 0) {
            json["total_va_size"] = layout.total_va_size;
        }
        if (layout.fs_version != 0) {
            json["fs_version"] = layout.fs_version;
        }
        return json;
    }

    Json efs(const EfsSection &section) const {
        const EfsGeometry &geometry = section.geometry;
        Json json{{"bm_num", geometry.bm_num},
                  {"valid", geometry.valid_blocks},
                  {"non_valid", geometry.spare_blocks},
                  {"files_num", geometry.files_num},
                  {"wear_threshold", geometry.wear_threshold},
                  {"layout_id", geometry.layout_id}};
        if (section.skus != manifest_.skus) {
            json["skus"] = section.skus;
        }
        if (!section.has_image) {
            json["image"] = false;
        }
        for (const EfsSlot &slot : section.places) {
            Json place{{"id", slot.id}};
            place.update(placement(slot.placement));
            json["places"].push_back(std::move(place));
        }
        return json;
    }

    static Json placement(const EfsPlacement &placement) {
        return {{"block", placement.block},
                {"offset", placement.offset},
                {"max_size", placement.max_size}};
    }

    Json file(const ManifestFile &file) {
        Json json;
        if (!file.name.empty() || !file.skus.empty()) {
            json["name"] =
                is_utf8(file.name) ? Json(file.name) : Json{{"hex", to_hex(to_bytes(file.name))}};
        }
        json["number"] = number_in_class(file.number);
        if (class_of(file.number) != 0) {
            json["class"] = class_of(file.number);
        }
        json["max_size"] = file.max_size;
        if (file.skus != manifest_.skus) {
            json["skus"] = file.skus;
        }
        put_attributes(json, file.attributes);
        put_value(json, "base", "base", file, file.base);
        put_opaque(json, "base_opaque", file.base_opaque);
        put_value(json, "override", "override", file, file.override_value);
        put_opaque(json, "override_opaque", file.override_opaque);
        put_place(json, file);
        put_value(json, "flash", "flash", file, file.flash);
        put_value(json, "trailer_content", "trailer", file, file.trailer);
        if (!file.comment.empty()) {
            json["comment"] = file.comment;
        }
        return json;
    }

    static void put_attributes(Json &json, uint16_t attributes) {
        if (const uint32_t trailer = trailer_length(attributes); trailer != 0) {
            json["trailer"] = trailer;
            attributes &= static_cast<uint16_t>(~(attribute_trailer | attribute_long_trailer));
        }
        if ((attributes & attribute_not_pulled) != 0) {
            json["pulled"] = false;
            attributes &= static_cast<uint16_t>(~attribute_not_pulled);
        }
        if (attributes != 0) {
            json["attributes"] = attributes;
        }
    }

    static void put_place(Json &json, const ManifestFile &file) {
        if (file.store == Store::afs || file.store == Store::efs) {
            json["store"] = store_name(static_cast<uint8_t>(file.store));
        } else if (file.store != Store::none) {
            json["store"] = static_cast<uint8_t>(file.store);
        }
        if (file.store != Store::none || file.id != 0) {
            json["id"] = file.id;
        }
        if (file.efs) {
            json["efs"] = placement(*file.efs);
        }
    }

    static void put_opaque(Json &json, const char *key, uint16_t opaque) {
        if (opaque != 0) {
            json[key] = opaque;
        }
    }

    void put_value(Json &json, const char *key, const char *kind, const ManifestFile &file,
                   const std::optional<Content> &value) {
        if (!value) {
            return;
        }
        const Bytes bytes = value->bytes();
        if (!short_ones_inline_ || bytes.size() > most_inline) {
            const std::string path = folder_.add(kind, name_of_values(file), ".bin", bytes);
            json[key] = {{"file", path}};
        } else if (is_printable(to_text(bytes))) {
            json[key] = to_text(bytes);
        } else {
            json[key] = {{"hex", to_hex(bytes)}};
        }
        ++values_;
    }

    static bool is_utf8(const std::string &text) {
        try {
            (void)Json(text).dump();
            return true;
        } catch (const Json::type_error &) {
            return false;
        }
    }

    const Manifest &manifest_;
    ValueFolder folder_;
    const bool short_ones_inline_;
    size_t values_ = 0;
};

} // namespace

size_t write_export(const Manifest &manifest, const fs::path &folder, bool replace) {
    try {
        const NewFolders made(folder); // which go again if nothing comes into them
        if (!replace && !fs::is_empty(folder)) {
            throw UsageError(folder.string() +
                             " is not empty; --replace writes over what it holds");
        }
        fs::remove(folder / "manifest.json");
        return Writer(manifest, folder).write();
    } catch (const std::system_error &failure) {
        throw Failure("cannot write the export to " + folder.string() + ": " +
                      failure.code().message());
    }
}

} // namespace dolm
