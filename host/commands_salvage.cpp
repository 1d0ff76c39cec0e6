// What can still be read of a damaged set, written as an export.
#include "host/commands.h"
#include "host/errors.h"
#include "host/export_writer.h"
#include "host/output.h"
#include "host/salvage.h"
#include "host/table_entries.h"
#include "host/value_json.h"

namespace dolm {

namespace {

const char *to_string(Found found) {
    switch (found) {
    case Found::sound:
        return "sound";
    case Found::older:
        return "older";
    case Found::lost:
        break;
    }
    return "lost";
}

struct Counts {
    size_t sound = 0;
    size_t older = 0;
    size_t lost = 0;

    void add(Found found) {
        ++(found == Found::sound ? sound : found == Found::older ? older : lost);
    }
    bool all_sound() const { return older == 0 && lost == 0; }
};

bool has_part(const SalvagedPart &part) {
    return part.value || part.state == Found::lost;
}

Json part_to_json(const SalvagedPart &part) {
    if (!has_part(part)) {
        return {};
    }
    Json json{{"state", to_string(part.state)}};
    if (part.value) {
        json.update(value_to_json(*part.value));
    }
    if (!part.why.empty()) {
        json["why"] = part.why;
    }
    if (!part.where.empty()) {
        json["where"] = part.where;
    }
    return json;
}

Json to_json(const ManifestFile &file, const SalvagedFile &found) {
    Json json{{"name", file.name},
              {"number", number_in_class(file.number)},
              {"class", class_of(file.number)},
              {"store", store_name(static_cast<uint8_t>(file.store))},
              {"id", file.id},
              {"source", found.source}};
    json.update(part_to_json(found.current));
    json["flash"] = part_to_json(found.flash);
    json["override"] = part_to_json(found.override_value);
    json["base"] = part_to_json(found.base);
    return json;
}

// Of the values that a start-up gives, and of those that stand behind them.
Counts count_all(const Salvage &salvage) {
    Counts counts;
    for (const SalvagedFile &file : salvage.files) {
        for (const SalvagedPart *part : {&file.flash, &file.override_value, &file.base}) {
            if (has_part(*part)) {
                counts.add(part->state);
            }
        }
    }
    return counts;
}

std::string name_of(const ManifestFile &file) {
    return !file.name.empty() ? file.name
                              : "file " + std::to_string(file.id) + " of " +
                                    store_name(static_cast<uint8_t>(file.store));
}

void print_part(const ManifestFile &file, const char *source, const SalvagedPart &part) {
    if (part.state != Found::sound) {
        print_line(std::string(to_string(part.state)) + "  " + source + "  " + name_of(file) +
                   ": " + part.why + (part.where.empty() ? "" : "; " + part.where));
    }
}

void print(const SalvageOptions &options, const Salvage &salvage) {
    Counts current;
    for (const SalvagedFile &file : salvage.files) {
        if (has_part(file.current)) {
            current.add(file.current.state);
        }
    }
    if (tells_json()) {
        Json json{{"set", options.folder.string()}, {"output", options.output.string()},
                  {"sound", current.sound},         {"older", current.older},
                  {"lost", current.lost},           {"values", Json::array()},
                  {"damages", Json::array()}};
        for (size_t i = 0; i < salvage.files.size(); ++i) {
            if (has_part(salvage.files[i].current)) {
                json["values"].push_back(to_json(salvage.manifest.files[i], salvage.files[i]));
            }
        }
        for (const Problem &damage : salvage.damages) {
            json["damages"].push_back({{"file", damage.source}, {"text", damage.text}});
        }
        print_json(json);
        return;
    }
    for (const Problem &damage : salvage.damages) {
        print_line("damage  " + damage.line());
    }
    for (size_t i = 0; i < salvage.files.size(); ++i) {
        const ManifestFile &file = salvage.manifest.files[i];
        const SalvagedFile &found = salvage.files[i];
        print_part(file, "flash", found.flash);
        print_part(file, "override", found.override_value);
        print_part(file, "base", found.base);
        if (found.flash.state == Found::lost && found.current.value) {
            print_line("        its value comes from " + std::string(found.source));
        }
    }
    print_line(options.output.string() + ": " + std::to_string(current.sound) + " values sound, " +
               std::to_string(current.older) + " older, " + std::to_string(current.lost) + " lost");
}

} // namespace

void salvage_set(const SalvageOptions &options) {
    std::vector<Problem> unreadable;
    Salvage salvage;
    {
        SetFolder folder(options.folder, SetFolder::Use::read, options.lock_timeout);
        salvage = salvage_set(folder.load_readable(unreadable));
    }
    salvage.damages.insert(salvage.damages.begin(), unreadable.begin(), unreadable.end());
    write_export(salvage.manifest, options.output, options.replace);
    print(options, salvage);
    const Counts counts = count_all(salvage);
    if (!counts.all_sound() || !salvage.damages.empty()) {
        flush_output();
        throw Failure(options.folder.string() + ": of the places of its values " +
                      std::to_string(counts.older) + " gave an older one and " +
                      std::to_string(counts.lost) +
                      " none; other damages: " + std::to_string(salvage.damages.size()));
    }
}

} // namespace dolm
