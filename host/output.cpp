#include "host/output.h"

#include <cerrno>
#include <cstring>
#include <iostream>
#include <set>
#include <sstream>
#include <utility>

#include "host/utf8.h"

namespace dolm {

namespace {

constexpr int error_level = 4;

bool json_chosen = false;
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
    const std::string line = "dolm: " + escape(to_text(report)) + "\n";
    if (is_error(report) || warnings.insert(line).second) {
        complain(line);
    }
}

void tell_notice(const std::string &text) {
    complain(json_chosen ? dump({{"notice", text}}, -1) : "dolm: " + escape(text) + "\n");
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
        complain("dolm: " + escape(problem.line()) + "\n");
    }
    if (problems.empty()) {
        complain("dolm: " + escape(error) + "\n");
    }
}

void print_line(std::string_view line) {
    print_raw(escape(line) + "\n");
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
