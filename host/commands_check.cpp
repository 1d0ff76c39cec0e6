#include "host/check/set_check.h"
#include "host/commands.h"
#include "host/errors.h"
#include "host/output.h"

namespace dolm {

namespace {

Json to_json(const Remark &remark) {
    Json json{{"file", remark.file}, {"place", remark.place}};
    if (!remark.nvar.empty()) {
        json["nvar"] = remark.nvar;
    }
    json["text"] = remark.text;
    return json;
}

Json to_json(const Finding &finding) {
    Json json{{"severity", to_string(finding.severity)}};
    json.update(to_json(finding.cause));
    if (!finding.advice.empty()) {
        json["advice"] = finding.advice;
    }
    json["consequences"] = Json::array();
    for (const Remark &remark : finding.consequences) {
        json["consequences"].push_back(to_json(remark));
    }
    return json;
}

Json to_json(const SetReport &report, size_t errors, size_t notes) {
    Json json{{"skus", report.skus}, {"errors", errors}, {"notes", notes}};
    if (report.own_sku) {
        json["sku"] = *report.own_sku;
    }

    json["findings"] = Json::array();
    for (const Finding &finding : report.findings) {
        json["findings"].push_back(to_json(finding));
    }
    return json;
}

std::string line_of(const Remark &remark) {
    std::string line;
    for (const std::string &part : {remark.file, remark.place, remark.nvar}) {
        line += part + (part.empty() ? "" : ": ");
    }
    return line + remark.text;
}

void print(const Finding &finding) {
    const std::string severity = to_string(finding.severity);
    const bool is_error = finding.severity == Finding::Severity::error;
    print_line(severity + ": " + line_of(finding.cause), is_error ? Style::bad : Style::warning,
               severity.size());
    for (const Remark &remark : finding.consequences) {
        print_line("    " + line_of(remark));
    }
    if (!finding.advice.empty()) {
        print_line("    advice: " + finding.advice);
    }
}

std::string skus_text(const std::vector<uint32_t> &skus) {
    std::string text;
    for (const uint32_t sku : skus) {
        text += (text.empty() ? "" : ", ") + std::to_string(sku);
    }
    return skus.empty() ? "" : (skus.size() == 1 ? " with SKU " : " with SKUs ") + text;
}

} // namespace

void check_set(const CheckOptions &options) {
    const SetReport report = check_files(options.folder, options.sku, options.lock_timeout);
    const size_t errors = report.count(Finding::Severity::error);
    const size_t notes = report.count(Finding::Severity::note);
    if (tells_json()) {
        print_json(to_json(report, errors, notes));
    } else {
        for (const Finding &finding : report.findings) {
            if (!options.quiet) {
                print(finding);
            }
        }
        print_line(options.folder.string() + skus_text(report.skus) + ": " +
                   counted(errors, "error") + ", " + counted(notes, "note"));
    }
    if (errors != 0 || (options.strict && notes != 0)) {
        flush_output();
        throw Failure(options.folder.string() + " has " + counted(errors, "error") +
                      (options.strict ? " and " + counted(notes, "note") : ""));
    }
}

} // namespace dolm
