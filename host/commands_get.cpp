#include "host/commands.h"
#include "host/commit.h"
#include "host/errors.h"
#include "host/nvar_json.h"
#include "host/nvar_names.h"
#include "host/patterns.h"
#include "host/set_files.h"
#include "host/value_text.h"

namespace dolm {

namespace {

FcsFileName table_named(const std::string &name) {
    return name == "base"       ? FCS_FILE_ORVEL_CFG
           : name == "override" ? FCS_FILE_VYN_CFG
                                : FCS_FILE_CURRENT_VALUES;
}

// Several values stand behind each other, as files do that are shown together.
void write_raw(const std::filesystem::path &path, const std::vector<Nvar> &nvars) {
    Bytes bytes;
    for (const Nvar &nvar : nvars) {
        bytes.insert(bytes.end(), nvar.value.begin(), nvar.value.end());
    }
    if (path == "-") {
        print_raw(to_text(bytes));
    } else {
        write_file(path, bytes);
    }
}

std::string text_of(const Bytes &value, ValueForm form) {
    switch (form) {
    case ValueForm::text:
        return std::string(to_text(value));
    case ValueForm::hex:
        return to_hex(value);
    default:
        return format_value(value);
    }
}

void print_values(const std::vector<Nvar> &nvars, ValueForm form, bool with_names) {
    for (const Nvar &nvar : nvars) {
        print_text((with_names ? std::string(short_name(nvar.name)) + "=" : "") +
                   text_of(nvar.value, form) + "\n");
    }
}

void print_values_json(const std::vector<Nvar> &nvars, const std::string &table, bool as_list) {
    Json json;
    if (as_list) {
        json["nvars"] = Json::array();
        for (const Nvar &nvar : nvars) {
            json["nvars"].push_back(to_json(nvar));
        }
    } else {
        json = to_json(nvars.front());
    }
    json["table"] = table;
    print_json(json);
}

} // namespace

void get_nvars(const GetOptions &options) {
    if (tells_json() && options.raw_file == "-") {
        throw UsageError("standard output cannot take the raw bytes and JSON");
    }
    SetFiles set = load_set(options.folder, options.lock_timeout);
    const Library library(set, choose_sku(set, options.sku));
    const FcsFileName table = table_named(options.table);
    std::vector<Nvar> nvars;
    for (const std::string &name : choose_nvars(library, options.names, table)) {
        nvars.push_back(library.nvar(name, table));
    }
    // Told by the words and not by what they mean today, so that a script gets what it expects.
    const bool several = options.names.size() > 1 || is_pattern(options.names.front());
    if (options.form == ValueForm::raw) {
        write_raw(*options.raw_file, nvars);
    }
    if (tells_json()) {
        print_values_json(nvars, options.table, several);
    } else if (options.form != ValueForm::raw) {
        print_values(nvars, options.form, several);
    }
}

} // namespace dolm
