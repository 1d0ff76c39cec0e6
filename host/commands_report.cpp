#include <algorithm>

#include "host/check/set_check.h"
#include "host/check/set_view.h"
#include "host/commands.h"
#include "host/commit.h"
#include "host/errors.h"
#include "host/output.h"
#include "host/report/nvars.h"
#include "host/report/page.h"
#include "host/value_text.h"

namespace dolm {

namespace {

namespace fs = std::filesystem;

Findings load(const fs::path &folder, double lock_timeout, SetView &view) {
    if (!holds_set(folder)) {
        throw Failure(folder.string() + " holds no set");
    }
    Findings findings;
    load_members(SetFolder(folder, SetFolder::Use::read, lock_timeout), view, findings);
    return findings;
}

// Its NVARs alone; what is wrong with it is a report of its own.
OtherSet read_other(const ReportOptions &options) {
    SetView view;
    Findings findings = load(*options.against, options.lock_timeout, view);
    check_table(view, options.sku, findings);
    check_efs(view, findings);
    return {options.against->string(), read_nvars(view, sku_to_show(view, options.sku))};
}

size_t count_changed(const SetNvars &nvars) {
    return static_cast<size_t>(
        std::count_if(nvars.nvars.begin(), nvars.nvars.end(),
                      [](const Nvar &nvar) { return nvar.differs_from_base; }));
}

void tell(const ReportOptions &options, const SetPage &page) {
    const size_t errors = page.report.count(Finding::Severity::error);
    const size_t notes = page.report.count(Finding::Severity::note);
    if (!tells_json()) {
        print_line(options.output.string() + ": " + counted(errors, "error") + ", " +
                   counted(notes, "note") + ", " + counted(page.nvars.nvars.size(), "NVAR"));
        return;
    }
    Json json{{"report", options.output.string()},
              {"sku", page.nvars.sku},
              {"skus", page.report.skus},
              {"errors", errors},
              {"notes", notes},
              {"nvars", page.nvars.nvars.size()},
              {"changed", count_changed(page.nvars)}};
    if (page.other) {
        json["different"] = count_different(page.nvars, *page.other);
    }
    print_json(json);
}

} // namespace

void report_set(const ReportOptions &options) {
    const bool to_output = options.output == "-";
    if (tells_json() && to_output) {
        throw UsageError("standard output cannot take the page and JSON");
    }
    SetView view;
    Findings findings = load(options.folder, options.lock_timeout, view);
    std::optional<OtherSet> other;
    if (options.against) {
        other = read_other(options);
    }
    const SetReport report = check_members(view, options.sku, std::move(findings));
    const SetNvars nvars = read_nvars(view, sku_to_show(view, options.sku));
    const SetPage page{options.folder.string(), view, report, nvars, other};
    const std::string html = write_page(page);
    if (to_output) {
        print_raw(html);
        return;
    }
    write_file(options.output, to_bytes(html));
    tell(options, page);
}

} // namespace dolm
