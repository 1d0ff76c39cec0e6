#include <algorithm>

#include "host/commands.h"
#include "host/errors.h"
#include "host/output.h"
#include "host/set_check.h"
#include "host/set_files.h"

namespace dolm {

namespace {

const char *severity_name(const Finding &finding) {
    return finding.severity == Finding::Severity::error ? "error" : "note";
}

std::string counted(size_t count, const char *noun) {
    return std::to_string(count) + " " + noun + (count == 1 ? "" : "s");
}

Json to_json(const std::vector<Finding> &findings) {
    Json list = Json::array();
    for (const Finding &finding : findings) {
        list.push_back({{"severity", severity_name(finding)},
                        {"where", finding.where},
                        {"text", finding.text}});
    }
    return list;
}

} // namespace

void check_set(const SetOptions &options) {
    const SetFiles set = load_set(options.folder, options.lock_timeout);
    const uint32_t sku = choose_sku(set, options.sku);
    const std::vector<Finding> findings = check_files(set, sku);
    const auto errors = static_cast<size_t>(
        std::count_if(findings.begin(), findings.end(), [](const Finding &finding) {
            return finding.severity == Finding::Severity::error;
        }));
    if (tells_json()) {
        print_json({{"sku", sku}, {"errors", errors}, {"findings", to_json(findings)}});
    } else {
        for (const Finding &finding : findings) {
            print_line(std::string(severity_name(finding)) + ": " + finding.where + ": " +
                       finding.text);
        }
        print_line(options.folder.string() + " with SKU " + std::to_string(sku) + ": " +
                   counted(errors, "error") + ", " + counted(findings.size() - errors, "note"));
    }
    if (errors != 0) {
        flush_output();
        throw Failure(options.folder.string() + " has " + counted(errors, "error"));
    }
}

} // namespace dolm
