#include "host/output.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <set>
#include <sstream>
#include <utility>

#include "host/system.h"
#include "host/utf8.h"

namespace dolm {

namespace {

constexpr int error_level = 4;

bool json_chosen = false;
bool quiet_chosen = false;
bool verbose_chosen = false;
std::string command_name;
Json untold_reports = Json::array();

std::string dump(const Json &json, int indent) {
    // Strings come from files that may hold anything, UTF-8 or not.
    return escape_json(json.dump(indent, ' ', false, Json::error_handler_t::replace)) + "\n";
}

// A complaint that cannot be told has nowhere to go.
void complain(const std::string &line) {
    std::cerr << line << std::flush;
}

Json to_json(const Report &report) {
    Json json{{"level", report.level},
              {"number", report.number},
              {"text", report.text},
              {"message", report.message}};
    if (report.status) {
        json["status"] = *report.status;
    }
    if (!report.file.empty()) {
        json["file"] = report.file;
    }
    if (!report.meaning.empty()) {
        json["meaning"] = report.meaning;
    }
    return json;
}

bool colours_are_welcome() {
    const char *no_color = std::getenv("NO_COLOR");
    const char *terminal = std::getenv("TERM");
    return (no_color == nullptr || *no_color == '\0') &&
           (terminal == nullptr || std::string_view(terminal) != "dumb");
}

// Escape sequences around an escaped text.
std::string styled_text(const std::string &text, Style style) {
    constexpr const char *codes[] = {"", "1", "32", "33", "1;31"};
    return style == Style::plain || text.empty()
               ? text
               : std::string("\x1b[") + codes[static_cast<size_t>(style)] + "m" + text + "\x1b[0m";
}

// The beginning of each complaint.
std::string head_of_complaint(Style style) {
    static const bool in_colour = colours_are_welcome() && system::errors_go_to_terminal();
    return styled_text("dolm:", in_colour ? style : Style::plain) + " ";
}

void check_output() {
    if (!std::cout) {
        throw Failure(std::string("cannot write standard output: ") + std::strerror(errno));
    }
}

} // namespace

bool is_error(const Report &report) {
    return report.level >= error_level;
}

std::string to_text(const Report &report) {
    std::ostringstream line;
    line << (is_error(report) ? "error " : "warning ") << report.number << " (level "
         << report.level << "):";
    if (!report.text.empty()) {
        line << ' ' << report.text;
    }
    if (!report.message.empty()) {
        line << (report.text.empty() || report.text.ends_with('.') ? "" : ":")
             << (report.message.front() == ' ' ? "" : " ") << report.message;
    }
    if (!report.meaning.empty()) {
        line << " (" << (report.file.empty() ? "" : report.file + ": ") << report.meaning
             << (report.status ? "; status " + std::to_string(*report.status) : "") << ')';
    }
    return line.str();
}

void choose_quiet() {
    quiet_chosen = true;
}

void choose_verbose() {
    verbose_chosen = true;
}

void choose_json(const std::string &command) {
    json_chosen = true;
    command_name = command;
}

bool tells_json() {
    return json_chosen;
}

void tell_report(const Report &report) {
    if (json_chosen) {
        untold_reports.push_back(to_json(report));
        return;
    }
    // A command may start up more than once, and each start-up warns of the same missing files.
    static std::set<std::string> warnings;
    const std::string line = escape(to_text(report)) + "\n";
    if (is_error(report) || warnings.insert(line).second) {
        complain(head_of_complaint(is_error(report) ? Style::bad : Style::warning) + line);
    }
}

void tell_notice(const std::string &text) {
    complain(json_chosen ? dump({{"notice", text}}, -1)
                         : head_of_complaint(Style::warning) + escape(text) + "\n");
}

void tell_detail(const std::string &text) {
    if (verbose_chosen) {
        complain(json_chosen ? dump({{"notice", text}}, -1)
                             : head_of_complaint(Style::plain) + escape(text) + "\n");
    }
}

void tell_error(const std::string &error, int exit_code, const std::vector<Problem> &problems) {
    if (json_chosen) {
        Json json{{"error", error},
                  {"exit", exit_code},
                  {"reports", std::exchange(untold_reports, Json::array())}};
        for (const Problem &problem : problems) {
            json["problems"].push_back(
                {{"place", problem.place}, {"name", problem.name}, {"text", problem.text}});
        }
        complain(dump(json, -1));
        return;
    }
    for (const Problem &problem : problems) {
        complain(head_of_complaint(Style::bad) + escape(problem.line()) + "\n");
    }
    if (problems.empty()) {
        complain(head_of_complaint(Style::bad) + escape(error) + "\n");
    }
}

void print_line(std::string_view line, Style style, size_t styled) {
    if (quiet_chosen) {
        return;
    }
    static const bool in_colour = colours_are_welcome() && system::output_goes_to_terminal();
    const std::string head = escape(line.substr(0, styled));
    const std::string rest = styled < line.size() ? escape(line.substr(styled)) : "";
    print_raw(styled_text(head, in_colour ? style : Style::plain) + rest + "\n");
}

void print_text(std::string_view text) {
    while (!text.empty()) {
        const size_t end = text.find('\n');
        print_line(text.substr(0, end));
        text.remove_prefix(end == text.npos ? text.size() : end + 1);
    }
}

void print_json(Json json) {
    json["command"] = command_name;
    json["reports"] = std::exchange(untold_reports, Json::array());
    print_raw(dump(json, 2));
}

void print_raw(std::string_view bytes) {
    std::cout.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    check_output();
}

void flush_output() {
    std::cout.flush();
    check_output();
}

} // namespace dolm
