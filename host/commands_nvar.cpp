#include <algorithm>
#include <iomanip>
#include <iostream>
#include <map>
#include <set>

#include "host/commands.h"
#include "host/errors.h"
#include "host/json_output.h"
#include "host/library.h"
#include "host/set_files.h"
#include "host/tables.h"
#include "host/value_text.h"

namespace dolm {

namespace {

constexpr size_t preview_width = 28;

Json to_json(const Nvar &nvar) {
    Json json{{"name", nvar.name}};
    json.update(value_to_json(nvar.value));
    json["max_size"] = nvar.max_size;
    json["attributes"] = nvar.attributes;
    json["origin"] = to_string(nvar.origin);
    json["differs_from_base"] = nvar.differs_from_base;
    json["writable"] = nvar.writable;
    return json;
}

std::string attributes_text(uint16_t attributes) {
    std::ostringstream text;
    text << std::hex << std::setw(4) << std::setfill('0') << attributes;
    return text.str();
}

void print_nvar_table(const std::vector<Nvar> &nvars) {
    size_t width = 4;
    for (const Nvar &nvar : nvars) {
        width = std::max(width, nvar.name.size());
    }
    const auto name_column = [&](const std::string &name) -> std::ostream & {
        return std::cout << std::left << std::setw(static_cast<int>(width)) << name << std::right;
    };
    name_column("NAME") << "   SIZE  LIMIT  ATTR  ORIGIN    WRITABLE  VALUE\n";
    for (const Nvar &nvar : nvars) {
        name_column(nvar.name) << std::setw(7) << nvar.value.size() << std::setw(7) << nvar.max_size
                               << "  " << attributes_text(nvar.attributes) << "  " << std::left
                               << std::setw(8) << to_string(nvar.origin) << "  " << std::setw(8)
                               << (nvar.writable ? "yes" : "no") << "  "
                               << preview_value(nvar.value, preview_width) << '\n';
    }
}

std::map<std::string, Bytes> all_values(const std::filesystem::path &folder,
                                        std::optional<uint32_t> sku) {
    SetFiles set = load_set(folder);
    const Library library(set, choose_sku(set, sku));
    std::map<std::string, Bytes> values;
    for (const std::string &name : library.names()) {
        values[name] = library.value(name, FCS_FILE_CURRENT_VALUES);
    }
    return values;
}

FcsFileName table_named(const std::string &name) {
    return name == "base"       ? FCS_FILE_ORVEL_CFG
           : name == "override" ? FCS_FILE_VYN_CFG
                                : FCS_FILE_CURRENT_VALUES;
}

void write_raw(const std::filesystem::path &path, const Bytes &value) {
    if (path == "-") {
        std::cout.write(reinterpret_cast<const char *>(value.data()),
                        static_cast<std::streamsize>(value.size()));
    } else {
        apply_changes({{path, value}});
    }
}

void print_value(const GetOptions &options, const Bytes &value) {
    switch (options.form) {
    case ValueForm::notation:
        std::cout << format_value(value) << '\n';
        break;
    case ValueForm::text:
        std::cout << std::string(value.begin(), value.end()) << '\n';
        break;
    case ValueForm::hex:
        std::cout << to_hex(value) << '\n';
        break;
    case ValueForm::raw:
        write_raw(*options.raw_file, value);
        break;
    }
}

struct Assignment {
    std::string name;
    Bytes value;
};

// Reads all values before the library starts, so that a bad one costs nothing.
std::vector<Assignment> to_assignments(const ChangeOptions &options) {
    std::vector<std::string> words{options.name, options.value};
    words.insert(words.end(), options.more.begin(), options.more.end());
    std::vector<Assignment> assignments;
    std::set<std::string> names;
    for (size_t i = 0; i < words.size(); i += 2) {
        const std::string &name = words[i];
        if (name.starts_with('-')) {
            throw UsageError("unknown option " + name);
        }
        if (i + 1 == words.size()) {
            throw UsageError("'" + name + "' has no value");
        }
        if (!names.insert(full_name(name)).second) {
            throw UsageError("'" + name + "' is given two values");
        }
        assignments.push_back({name, parse_value(words[i + 1])});
    }
    return assignments;
}

// The size that the value had.
size_t assign(Library &library, const Assignment &assignment) {
    const Nvar nvar = library.nvar(assignment.name);
    if (assignment.value.size() > nvar.max_size) {
        throw Failure(assignment.name + ": the value has " +
                      std::to_string(assignment.value.size()) + " bytes, over the limit of " +
                      std::to_string(nvar.max_size));
    }
    if (!nvar.writable) {
        std::cerr << "dolm: warning: " << assignment.name
                  << " is not written back to flash; its new value stands in vync.cfg alone\n";
    }
    library.set_value(assignment.name, assignment.value);
    return nvar.value.size();
}

} // namespace

void list_nvars(const ListOptions &options) {
    std::map<std::string, Bytes> other_values;
    if (options.against) {
        other_values = all_values(*options.against, options.sku);
    }
    SetFiles set = load_set(options.folder);
    const uint32_t sku = choose_sku(set, options.sku);
    const Library library(set, sku);
    std::vector<Nvar> nvars;
    for (const std::string &name : library.names()) {
        Nvar nvar = library.nvar(name);
        const auto other = other_values.find(name);
        const bool same = other != other_values.end() && other->second == nvar.value;
        if (!same && (nvar.differs_from_base || !options.changed_only)) {
            nvars.push_back(std::move(nvar));
        }
    }
    const std::vector<std::string> override_only = library.override_only_names();
    if (options.json) {
        Json list = Json::array();
        for (const Nvar &nvar : nvars) {
            list.push_back(to_json(nvar));
        }
        print_json({{"sku", sku},
                    {"vfs_deployed", qoQfsIsVfsDeployed()},
                    {"nvars", list},
                    {"override_only", override_only}});
        return;
    }
    print_nvar_table(nvars);
    for (const std::string &name : override_only) {
        std::cout << name << " stands in vync.cfg alone and has no effect\n";
    }
}

void get_nvar(const GetOptions &options) {
    SetFiles set = load_set(options.folder);
    const Library library(set, choose_sku(set, options.sku));
    if (options.json && options.table == "current") {
        print_json(to_json(library.nvar(options.name)));
        return;
    }
    const Bytes value = library.value(options.name, table_named(options.table));
    if (options.json) {
        Json json{{"name", options.name}, {"table", options.table}};
        json.update(value_to_json(value));
        print_json(json);
    } else {
        print_value(options, value);
    }
}

void set_nvars(const ChangeOptions &options) {
    const std::vector<Assignment> assignments = to_assignments(options);
    SetFiles set = load_set(options.folder);
    const uint32_t sku = choose_sku(set, options.sku);
    std::string told;
    {
        Library library(set, sku);
        for (const Assignment &assignment : assignments) {
            const size_t old_size = assign(library, assignment);
            told += assignment.name + ": " + std::to_string(old_size) + " -> " +
                    std::to_string(assignment.value.size()) + " bytes\n";
        }
        set.vync_cfg = with_vync_head(library.terminate());
    }
    if (!set.sku) {
        set.sku = sku;
    }
    save_set(options.output.value_or(options.folder), set);
    std::cout << told;
}

} // namespace dolm
