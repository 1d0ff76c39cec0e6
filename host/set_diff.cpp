#include "host/set_diff.h"

#include <set>

namespace dolm {

namespace {

using Fields = std::vector<std::string>;

void note(Fields &fields, const char *field, bool differs) {
    if (differs) {
        fields.emplace_back(field);
    }
}

void note_entry(Fields &fields, const TableEntry &before, const TableEntry &after) {
    note(fields, "max_size", before.max_size != after.max_size);
    note(fields, "attributes", before.attributes != after.attributes);
    note(fields, "number", number_in_class(before.number) != number_in_class(after.number));
    note(fields, "class", class_of(before.number) != class_of(after.number));
    note(fields, "store", before.store != after.store);
    note(fields, "id", before.id != after.id);
}

Fields differing_fields(const Nvar &before, const Nvar &after) {
    Fields fields;
    note(fields, "value", before.value != after.value);
    note_entry(fields, before.entry, after.entry);
    note(fields, "origin", before.origin != after.origin);
    note(fields, "base", before.base != after.base);
    return fields;
}

Fields differing_fields(const Json &before, const Json &after) {
    return before == after ? Fields{} : Fields{"value"};
}

// What each key of two maps has in them; different(before, after) gives the fields.
template <typename Thing>
std::vector<Difference<Thing>> compare(const std::map<std::string, Thing> &before,
                                       const std::map<std::string, Thing> &after,
                                       auto &&different) {
    std::map<std::string, Difference<Thing>> all;
    for (const auto &[name, thing] : before) {
        all[name].before = thing;
    }
    for (const auto &[name, thing] : after) {
        all[name].after = thing;
    }
    std::vector<Difference<Thing>> differences;
    for (auto &[name, difference] : all) {
        difference.name = name;
        if (difference.before && difference.after) {
            difference.fields = different(name, *difference.before, *difference.after);
            if (difference.fields.empty()) {
                continue;
            }
        }
        differences.push_back(std::move(difference));
    }
    return differences;
}

// Those that are files for themselves: on flash, or in the file table as no NVAR.
std::map<std::string, StoredFile> files_of(const SetContent &set) {
    std::map<std::string, StoredFile> files = set.files;
    std::erase_if(files, [&](const auto &item) {
        return !item.second.content && set.nvars.contains(item.first);
    });
    return files;
}

} // namespace

SetDiff compare_sets(const SetContent &before, const SetContent &after) {
    const auto by_fields = [](const std::string &, const auto &one, const auto &other) {
        return differing_fields(one, other);
    };
    const auto by_content = [&](const std::string &name, const StoredFile &one,
                                const StoredFile &other) {
        Fields fields;
        note(fields, "content", one.content != other.content);
        const bool are_nvars = before.nvars.contains(name) && after.nvars.contains(name);
        if (!are_nvars && one.entry && other.entry) {
            note_entry(fields, *one.entry, *other.entry);
        }
        return fields;
    };
    return {compare(before.geometry, after.geometry, by_fields),
            compare(before.nvars, after.nvars, by_fields),
            compare(files_of(before), files_of(after), by_content)};
}

} // namespace dolm
