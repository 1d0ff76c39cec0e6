#include <algorithm>
#include <iomanip>
#include <map>
#include <sstream>

#include "host/assignments.h"
#include "host/commands.h"
#include "host/commit.h"
#include "host/errors.h"
#include "host/library.h"
#include "host/output.h"
#include "host/set_files.h"
#include "host/tables.h"
#include "host/utf8.h"
#include "host/value_json.h"
#include "host/value_text.h"

namespace dolm {

namespace {

constexpr size_t preview_width = 28;

Json to_json(const std::optional<Bytes> &value) {
    return value ? value_to_json(*value) : Json();
}

Json to_json(const Nvar &nvar) {
    Json json{{"name", nvar.name}};
    json.update(value_to_json(nvar.value));
    json["max_size"] = nvar.entry.max_size;
    json["attributes"] = nvar.entry.attributes;
    json["origin"] = to_string(nvar.origin);
    json["differs_from_base"] = nvar.differs_from_base;
    json["writable"] = nvar.writable;
    json["number"] = number_in_class(nvar.entry.number);
    json["class"] = class_of(nvar.entry.number);
    json["store"] = store_name(nvar.entry.store);
    json["id"] = nvar.entry.id;
    json["base"] = to_json(nvar.base);
    json["override"] = to_json(nvar.override_value);
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
        width = std::max(width, count_columns(nvar.name));
    }
    const auto name_column = [&](const std::string &name) {
        return name + std::string(width - count_columns(name), ' ');
    };
    print_line(name_column("NAME") + "   SIZE  LIMIT  ATTR  ORIGIN    WRITABLE  VALUE");
    for (const Nvar &nvar : nvars) {
        std::ostringstream line;
        line << name_column(nvar.name) << std::setw(7) << nvar.value.size() << std::setw(7)
             << nvar.entry.max_size << "  " << attributes_text(nvar.entry.attributes) << "  "
             << std::left << std::setw(8) << to_string(nvar.origin) << "  " << std::setw(8)
             << (nvar.writable ? "yes" : "no") << "  " << preview_value(nvar.value, preview_width);
        print_line(line.str());
    }
}

std::map<std::string, Bytes> all_values(const std::filesystem::path &folder,
                                        const SetOptions &options) {
    SetFiles set = load_set(folder, options.lock_timeout);
    const Library library(set, choose_sku(set, options.sku));
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
        print_raw(to_text(value));
    } else {
        write_file(path, value);
    }
}

void print_value(const GetOptions &options, const Bytes &value) {
    switch (options.form) {
    case ValueForm::notation:
        print_line(format_value(value));
        break;
    case ValueForm::text:
        print_text(std::string(to_text(value)) + "\n");
        break;
    case ValueForm::hex:
        print_line(to_hex(value));
        break;
    case ValueForm::raw:
        break;
    }
}

std::vector<std::string> words_of(const ChangeOptions &options) {
    std::vector<std::string> words{options.name, options.value};
    words.insert(words.end(), options.more.begin(), options.more.end());
    return words;
}

void print_changes(const std::filesystem::path &folder, uint32_t sku,
                   const std::vector<ValueChange> &changes) {
    if (!tells_json()) {
        for (const ValueChange &change : changes) {
            print_line(change.name + ": " + std::to_string(change.before.size()) + " -> " +
                       std::to_string(change.after.size()) + " bytes");
        }
        return;
    }
    Json list = Json::array();
    for (const ValueChange &change : changes) {
        list.push_back({{"name", change.name},
                        {"before", to_json(change.before)},
                        {"after", to_json(change.after)}});
    }
    print_json({{"set", folder.string()}, {"sku", sku}, {"changes", list}});
}

// Makes all changes of the options in the set.
std::vector<ValueChange> change_values(SetFiles &set, uint32_t sku,
                                       const std::vector<Assignment> &assignments) {
    std::vector<ValueChange> changes;
    Library library(set, sku);
    for (const Assignment &assignment : assignments) {
        changes.push_back(assign(library, assignment));
    }
    set.vync_cfg = with_vync_head(library.terminate());
    return changes;
}

bool is_same_folder(const std::filesystem::path &one, const std::filesystem::path &other) {
    std::error_code ignored;
    return std::filesystem::equivalent(one, other, ignored);
}

} // namespace

void list_nvars(const ListOptions &options) {
    std::map<std::string, Bytes> other_values;
    if (options.against) {
        other_values = all_values(*options.against, options);
    }
    SetFiles set = load_set(options.folder, options.lock_timeout);
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
    if (tells_json()) {
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
        print_line(name + " stands in vync.cfg alone and has no effect");
    }
}

void get_nvar(const GetOptions &options) {
    if (tells_json() && options.raw_file == "-") {
        throw UsageError("standard output cannot take the raw bytes and JSON");
    }
    SetFiles set = load_set(options.folder, options.lock_timeout);
    const Library library(set, choose_sku(set, options.sku));
    const Nvar nvar = library.nvar(options.name, table_named(options.table));
    if (options.form == ValueForm::raw) {
        write_raw(*options.raw_file, nvar.value);
    }
    if (tells_json()) {
        Json json = to_json(nvar);
        json["table"] = options.table;
        print_json(json);
    } else {
        print_value(options, nvar.value);
    }
}

void set_nvars(const ChangeOptions &options) {
    using Use = SetFolder::Use;
    const std::vector<Assignment> assignments = read_assignments(words_of(options));
    if (options.output) {
        refuse_other_set(*options.output, options.replace);
    }
    const bool in_place = !options.output || is_same_folder(*options.output, options.folder);
    std::optional<SetFolder> folder(std::in_place, options.folder,
                                    in_place ? Use::change : Use::read, options.lock_timeout);
    SetFiles set = folder->load();
    if (!in_place) {
        // Its lock goes first, so that two commands that copy crosswise do not block each other.
        folder.emplace(*options.output, Use::change, options.lock_timeout);
        refuse_other_set(*options.output, options.replace);
    }
    const uint32_t sku = choose_sku(set, options.sku);
    const std::vector<ValueChange> changes = change_values(set, sku, assignments);
    if (!set.sku) {
        set.sku = sku;
    }
    // What cannot be told does not happen either.
    folder->save(set, [&] {
        print_changes(folder->path(), sku, changes);
        flush_output();
    });
}

} // namespace dolm
