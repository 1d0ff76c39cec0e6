// New values out of a file: JSON, or lines.
#include <algorithm>

#include "host/assignments.h"
#include "host/errors.h"
#include "host/json_text.h"
#include "host/json_value.h"
#include "host/manifest.h"
#include "host/set_files.h"
#include "host/utf8.h"
#include "host/value_text.h"

namespace dolm {

namespace {

constexpr std::string_view blanks = " \t\r";

// What no set can take is not made.
void require_room(uint64_t bytes, const std::string &source) {
    if (bytes > max_table_size) {
        throw Failure(source + ": the values have more than " + std::to_string(max_table_size) +
                      " bytes in all");
    }
}

std::vector<Assignment> read_json(std::string_view text, const std::string &source,
                                  const std::filesystem::path &folder) {
    const nlohmann::json json = parse_json_text(text, source, max_files);
    Problems problems;
    ValueReader values(folder, problems);
    std::vector<std::pair<std::string, Content>> contents;
    uint64_t bytes = 0;
    for (const auto &[name, value] : json.items()) {
        const std::string place = (nlohmann::json::json_pointer() / name).to_string();
        if (auto content = values.read(value, place)) {
            bytes += content->size();
            contents.emplace_back(name, std::move(*content));
        }
    }
    if (!problems.empty()) {
        throw Failure(problems.list(source, [](const std::string &) { return ""; }));
    }
    require_room(bytes, source);
    std::vector<Assignment> assignments;
    for (const auto &[name, content] : contents) {
        assignments.push_back({name, content.bytes()});
    }
    return assignments;
}

// A line without its end, and without the blanks before its name.
std::string_view trim(std::string_view line) {
    if (line.ends_with('\r')) {
        line.remove_suffix(1);
    }
    return line.substr(std::min(line.find_first_not_of(blanks), line.size()));
}

std::vector<Assignment> read_lines(std::string_view text, const std::string &source) {
    std::vector<Assignment> assignments;
    std::vector<Problem> problems;
    uint64_t bytes = 0;
    for (size_t number = 1; !text.empty(); ++number) {
        const std::string_view whole = text.substr(0, text.find('\n'));
        text.remove_prefix(std::min(whole.size() + 1, text.size()));
        const std::string_view line = trim(whole);
        if (line.empty() || line.starts_with('#')) {
            continue;
        }
        const std::string place = "line " + std::to_string(number);
        const size_t name_end = line.find('=');
        if (name_end == line.npos || name_end == 0) {
            problems.push_back({source, place, "", "not of the form NAME=VALUE"});
            continue;
        }
        const std::string name(line.substr(0, name_end));
        try {
            Bytes value = parse_value(std::string(line.substr(name_end + 1)));
            bytes += value.size();
            assignments.push_back({name, std::move(value)});
        } catch (const std::exception &error) {
            problems.push_back({source, place, name, error.what()});
        }
        require_room(bytes, source);
    }
    if (!problems.empty()) {
        throw Failure(std::move(problems));
    }
    return assignments;
}

} // namespace

std::vector<Assignment> read_assignments_file(const std::filesystem::path &path) {
    constexpr std::string_view byte_order_mark =
        "\xef\xbb\xbf"; // some editors begin a text with it
    const Bytes bytes = read_file(path, max_table_size);
    const std::string source = path == "-" ? "standard input" : path.string();
    std::string_view text = to_text(bytes);
    if (text.starts_with(byte_order_mark)) {
        text.remove_prefix(byte_order_mark.size());
    }
    const size_t begin = text.find_first_not_of(" \t\r\n");
    const bool is_json = begin != text.npos && text[begin] == '{';
    return is_json ? read_json(text, source, path.parent_path()) : read_lines(text, source);
}

} // namespace dolm
