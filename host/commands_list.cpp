#include <algorithm>
#include <iomanip>
#include <map>
#include <sstream>

#include "host/commands.h"
#include "host/nvar_json.h"
#include "host/nvar_names.h"
#include "host/set_files.h"
#include "host/utf8.h"
#include "host/value_text.h"

namespace dolm {

namespace {

constexpr size_t list_value_columns = 28;

void print_table(const std::vector<Nvar> &nvars) {
    size_t width = 4;
    for (const Nvar &nvar : nvars) {
        width = std::max(width, count_columns(nvar.name));
    }
    const auto name_column = [&](const std::string &name) {
        return name + std::string(width - count_columns(name), ' ');
    };
    print_line(name_column("NAME") + "   SIZE  LIMIT  ATTR  ORIGIN    WRITABLE  VALUE",
               Style::heading);
    for (const Nvar &nvar : nvars) {
        std::ostringstream line;
        line << name_column(nvar.name) << std::setw(7) << nvar.value.size() << std::setw(7)
             << nvar.entry.max_size << "  " << hex_digits(nvar.entry.attributes, 4) << "  "
             << std::left << std::setw(8) << to_string(nvar.origin) << "  " << std::setw(8)
             << (nvar.writable ? "yes" : "no") << "  "
             << preview_value(nvar.value, list_value_columns);
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

} // namespace

void list_nvars(const ListOptions &options) {
    std::map<std::string, Bytes> other_values;
    if (options.against) {
        other_values = all_values(*options.against, options);
    }
    SetFiles set = load_set(options.folder, options.lock_timeout);
    const Library library(set, choose_sku(set, options.sku));
    const bool all = options.names.empty();
    std::vector<Nvar> nvars;
    for (const std::string &name :
         all ? library.names() : choose_nvars(library, options.names, FCS_FILE_CURRENT_VALUES)) {
        Nvar nvar = library.nvar(name);
        const auto other = other_values.find(name);
        const bool same = other != other_values.end() && other->second == nvar.value;
        if (!same && (nvar.differs_from_base || !options.changed_only)) {
            nvars.push_back(std::move(nvar));
        }
    }
    const std::vector<std::string> override_only =
        all ? library.override_only_names() : std::vector<std::string>{};
    if (tells_json()) {
        Json list = Json::array();
        for (const Nvar &nvar : nvars) {
            list.push_back(to_json(nvar));
        }
        print_json({{"sku", library.sku()},
                    {"vfs_deployed", qoQfsIsVfsDeployed()},
                    {"nvars", list},
                    {"override_only", override_only}});
        return;
    }
    print_table(nvars);
    for (const std::string &name : override_only) {
        print_line(name + " stands in vync.cfg alone and has no effect");
    }
}

} // namespace dolm
