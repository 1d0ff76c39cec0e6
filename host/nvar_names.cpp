#include "host/nvar_names.h"

#include <algorithm>
#include <utility>

#include "host/close_words.h"
#include "host/errors.h"
#include "host/patterns.h"
#include "image/file_table.h"

namespace dolm {

namespace {

constexpr size_t max_close_names = 3;

std::vector<std::string> names_of(const FtblRow &row) {
    std::vector<std::string> names;
    for (const FtblEntry &entry : row.entries) {
        names.emplace_back(entry.name);
    }
    return names;
}

bool means_any(const std::string &word, const std::vector<std::string> &names) {
    return !names_meant({word}, names).names.empty();
}

// Names that the word is a part of, or that a few keystrokes make of it.
std::vector<std::string> close_names(const std::string &word,
                                     const std::vector<std::string> &names) {
    const std::string_view typed = short_name(word);
    const size_t tolerance = std::max<size_t>(2, typed.size() / 3);
    std::vector<std::string> close;
    for (const std::string &name : names) {
        const std::string_view other = short_name(name);
        const bool is_part = typed.size() > 2 && other.find(typed) != other.npos;
        if (is_part || distance(typed, other) <= tolerance) {
            close.emplace_back(other);
        }
    }
    return nearest(typed, std::move(close), max_close_names);
}

std::string no_value_in(FcsFileName table) {
    switch (table) {
    case FCS_FILE_ORVEL_CFG:
        return "has no base value";
    case FCS_FILE_VYN_CFG:
        return "has no overriding value";
    default:
        return "is a file and no NVAR";
    }
}

std::string say_unknown(const Library &library, const std::string &word, FcsFileName table) {
    if (table == FCS_FILE_CURRENT_VALUES && means_any(word, library.override_only_names())) {
        return "stands in vync.cfg alone, so that it has no current value";
    }
    const FileTable file_table = read_file_table(library.set().ftbl);
    const FtblRow *own = file_table.row_of(library.sku());
    if (own != nullptr && means_any(word, names_of(*own))) {
        return no_value_in(table);
    }
    for (const FtblRow &row : file_table.rows) {
        if (means_any(word, names_of(row))) {
            return "is of SKU " + std::to_string(row.sku) + " and not of SKU " +
                   std::to_string(library.sku());
        }
    }
    if (is_pattern(word)) {
        return "fits no name";
    }
    std::string text = "there is no such NVAR";
    const std::vector<std::string> close = close_names(word, library.names(table));
    for (const std::string &name : close) {
        text += (&name == close.data() ? "; close to it: " : ", ") + name;
    }
    return text;
}

void refuse(const Library &library, const std::vector<std::string> &unknown, FcsFileName table) {
    std::vector<Problem> problems;
    for (const std::string &word : unknown) {
        problems.push_back({"", "", word, say_unknown(library, word, table)});
    }
    if (!problems.empty()) {
        throw Failure(std::move(problems));
    }
}

} // namespace

std::vector<std::string> choose_nvars(const Library &library, const std::vector<std::string> &words,
                                      FcsFileName table) {
    NamesMeant meant = names_meant(words, library.names(table));
    refuse(library, meant.unknown, table);
    return std::move(meant.names);
}

void require_nvars(const Library &library, const std::vector<std::string> &names) {
    std::vector<std::string> unknown;
    for (const std::string &name : names) {
        if (!library.has(name)) {
            unknown.push_back(name);
            if (is_pattern(name)) {
                throw UsageError("'" + name + "' is a pattern; a new value is for a single NVAR");
            }
        }
    }
    refuse(library, unknown, FCS_FILE_CURRENT_VALUES);
}

} // namespace dolm
