// What a command tells: results on standard output, everything else on standard error, as text for
// people or as JSON for programs (docs/json.md). Text is told line by line, and each line is
// escaped on its way out, so that names out of damaged files cannot play tricks with a terminal or
// pass for lines of their own.
#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "host/errors.h"

namespace dolm {

using Json = nlohmann::ordered_json;

// How a command tells; text until JSON is chosen. Its name goes into its result.
void choose_json(const std::string &command);
bool tells_json();

// How much a command tells beside its results in JSON and what goes to "-": of quiet ones, nothing
// on standard output; of verbose ones, details on standard error too.
void choose_quiet();
void choose_verbose();

// Something that the library reported, or that the command has to say beside its results.
struct Report {
    int level = 0;  // of the library: 4 for an error, 2 for a warning
    int number = 0; // in the library's catalogue
    std::string text;
    std::string message;
    std::optional<int> status; // of a lower layer of the library
    std::string file;          // of the set, where it is known; and in words what is wrong with it
    std::string meaning;
};

bool is_error(const Report &report);

// In one line: "error 331 (level 4): ...".
std::string to_text(const Report &report);

// As text a report is told at once, a warning that was told before not again. In JSON it becomes an
// element of "reports" of what comes next, the result or the error.
void tell_report(const Report &report);

// A line on standard error; in JSON an object, {"notice": text}.
void tell_notice(const std::string &text);

// The same, if the command is to be verbose.
void tell_detail(const std::string &text);

// The last words of a command that fails: a line on standard error for each problem, or the object
// {"error", "exit", "reports", "problems"}.
void tell_error(const std::string &error, int exit_code, const std::vector<Problem> &problems);

// Colours, on a terminal and unless NO_COLOR is set.
enum class Style { plain, heading, good, warning, bad };

// A line of text on standard output, the first `styled` bytes of it in a style. This and what
// follows throw Failure if standard output does not take it.
void print_line(std::string_view line, Style style = Style::plain,
                size_t styled = std::string_view::npos);

// The lines of a text; a last line without an end gets one.
void print_text(std::string_view text);

// The one result of a command in JSON, an object.
void print_json(Json json);

// Bytes to standard output as they are.
void print_raw(std::string_view bytes);

// Until then standard output may hold back what was written.
void flush_output();

} // namespace dolm
