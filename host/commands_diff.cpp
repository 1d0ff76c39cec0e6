#include <algorithm>
#include <set>
#include <type_traits>

#include "host/commands.h"
#include "host/errors.h"
#include "host/nvar_json.h"
#include "host/output.h"
#include "host/patterns.h"
#include "host/set_diff.h"
#include "host/value_json.h"
#include "host/value_text.h"

namespace dolm {

namespace {

constexpr size_t diff_value_columns = 36;

SetContent read_content(const std::filesystem::path &folder, const DiffOptions &options) {
    SetFiles set = load_set(folder, options.lock_timeout);
    const uint32_t sku = choose_sku(set, options.sku);
    try {
        return read_set_content(std::move(set), sku);
    } catch (const Failure &failure) {
        throw Failure(folder.string() + ": " + failure.what());
    }
}

template <typename Thing>
const char *kind_of(const Difference<Thing> &difference) {
    return !difference.before ? "added" : !difference.after ? "removed" : "changed";
}

// JSON

Json to_json(const StoredFile &file) {
    Json json = file.content ? value_to_json(*file.content) : Json::object();
    json["store"] = file.store;
    json["id"] = file.id;
    if (file.entry) {
        json["max_size"] = file.entry->max_size;
        json["attributes"] = file.entry->attributes;
        json["number"] = number_in_class(file.entry->number);
        json["class"] = class_of(file.entry->number);
    }
    return json;
}

Json to_json(const Json &measure) {
    return measure;
}

template <typename Thing>
Json to_json(const std::vector<Difference<Thing>> &differences) {
    Json list = Json::array();
    for (const Difference<Thing> &difference : differences) {
        list.push_back({{"name", difference.name},
                        {"change", kind_of(difference)},
                        {"fields", difference.fields},
                        {"before", difference.before ? to_json(*difference.before) : Json()},
                        {"after", difference.after ? to_json(*difference.after) : Json()}});
    }
    return list;
}

// Text

std::string preview(const Bytes &value) {
    return preview_value(value, diff_value_columns);
}

std::string entry_field(const TableEntry &entry, const std::string &field) {
    return field == "max_size"     ? std::to_string(entry.max_size)
           : field == "attributes" ? hex_digits(entry.attributes, 4)
           : field == "number"     ? std::to_string(number_in_class(entry.number))
           : field == "class"      ? std::to_string(class_of(entry.number))
           : field == "store"      ? store_name(entry.store)
                                   : std::to_string(entry.id);
}

std::string field_text(const Nvar &nvar, const std::string &field) {
    return field == "value"    ? preview(nvar.value)
           : field == "base"   ? preview(nvar.base.value_or(Bytes{}))
           : field == "origin" ? to_string(nvar.origin)
                               : entry_field(nvar.entry, field);
}

std::string field_text(const StoredFile &file, const std::string &field) {
    return field == "content" ? (file.content ? preview(*file.content) : "nothing")
                              : entry_field(*file.entry, field);
}

std::string field_text(const Json &measure, const std::string &) {
    return measure.dump();
}

std::string whole_text(const Nvar &nvar) {
    return preview(nvar.value) + ", origin " + to_string(nvar.origin) + ", attributes " +
           hex_digits(nvar.entry.attributes, 4);
}

std::string whole_text(const StoredFile &file) {
    return file.store + " " + std::to_string(file.id) + ", " + field_text(file, "content") +
           (file.entry ? ", attributes " + hex_digits(file.entry->attributes, 4) : "");
}

std::string whole_text(const Json &measure) {
    return measure.dump();
}

// Where long values part that begin alike, so that their previews do not show it.
std::string parting(const Bytes &before, const Bytes &after) {
    if (preview(before) != preview(after)) {
        return "";
    }
    const auto at = std::mismatch(before.begin(), before.end(), after.begin(), after.end()).first;
    return " (from byte " + std::to_string(at - before.begin()) + " on, " +
           std::to_string(before.size()) + " -> " + std::to_string(after.size()) + " bytes)";
}

std::string parting_of(const Nvar &before, const Nvar &after, const std::string &field) {
    return field == "value"  ? parting(before.value, after.value)
           : field == "base" ? parting(before.base.value_or(Bytes{}), after.base.value_or(Bytes{}))
                             : "";
}

std::string parting_of(const StoredFile &before, const StoredFile &after,
                       const std::string &field) {
    return field == "content"
               ? parting(before.content.value_or(Bytes{}), after.content.value_or(Bytes{}))
               : "";
}

std::string parting_of(const Json &, const Json &, const std::string &) {
    return "";
}

template <typename Thing>
void print(const std::string &what, const Difference<Thing> &difference) {
    const std::string head = what + " " + difference.name + ": ";
    if (!difference.before) {
        print_line("+ " + head + whole_text(*difference.after), Style::good);
        return;
    }
    if (!difference.after) {
        print_line("- " + head + whole_text(*difference.before), Style::bad);
        return;
    }
    std::string line = "~ " + head;
    for (const std::string &field : difference.fields) {
        line += (field == difference.fields.front() ? "" : "; ") +
                (std::is_same_v<Thing, Json> ? "" : field + " ") +
                field_text(*difference.before, field) + " -> " +
                field_text(*difference.after, field) +
                parting_of(*difference.before, *difference.after, field);
    }
    print_line(line, Style::warning, head.size() + 1);
}

void print(const SetDiff &diff) {
    for (const auto &difference : diff.geometry) {
        print("geometry", difference);
    }
    for (const auto &difference : diff.nvars) {
        print("nvar", difference);
    }
    std::set<std::string> told;
    for (const auto &difference : diff.nvars) {
        if (!difference.fields.empty() && difference.fields.front() == "value") {
            told.insert(difference.name);
        }
    }
    // The file of an NVAR has another value with it.
    for (const auto &difference : diff.files) {
        const bool says_no_more = difference.fields == std::vector<std::string>{"content"};
        if (!says_no_more || !told.contains(difference.name)) {
            print("file", difference);
        }
    }
}

} // namespace

bool diff_sets(const DiffOptions &options) {
    const SetContent before = read_content(options.folder, options);
    const SetContent after = read_content(options.other, options);
    const SetDiff diff = compare_sets(before, after);
    if (tells_json()) {
        print_json({{"sets", {options.folder.string(), options.other.string()}},
                    {"skus", {before.sku, after.sku}},
                    {"same", diff.is_empty()},
                    {"geometry", to_json(diff.geometry)},
                    {"nvars", to_json(diff.nvars)},
                    {"files", to_json(diff.files)}});
    } else {
        print(diff);
    }
    return diff.is_empty();
}

} // namespace dolm
