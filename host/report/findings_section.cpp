// The findings of a check on the page of a report, in the order of the check.
#include "host/report/page.h"

namespace dolm {

namespace {

Html part(const char *name, const std::string &text) {
    Html html;
    if (!text.empty()) {
        html << "<span class=\"" << std::string(name) << "\">" << text << "</span> ";
    }
    return html;
}

Html show(const Remark &remark) {
    Html html;
    html << part("file", remark.file) << part("place", remark.place) << part("nvar", remark.nvar)
         << part("text", remark.text);
    return html;
}

Html show_consequences(const std::vector<Remark> &consequences) {
    constexpr size_t most_open = 5;
    Html html;
    if (consequences.empty()) {
        return html;
    }
    if (consequences.size() <= most_open) {
        html << "<details open>";
    } else {
        html << "<details>";
    }
    html << "<summary>" << counted(consequences.size(), "consequence") << "</summary><ul>\n";
    for (const Remark &remark : consequences) {
        html << "<li>" << show(remark) << "</li>\n";
    }
    html << "</ul></details>";
    return html;
}

} // namespace

Html findings_section(const SetReport &report) {
    Html html;
    html << "<section id=\"findings\">\n<h2>Findings</h2>\n";
    if (report.findings.empty()) {
        html << "<p>The set is sound.</p>\n";
    }
    html << "<ol class=\"findings\">\n";
    for (const Finding &finding : report.findings) {
        const std::string severity = to_string(finding.severity);
        html << "<li class=\"item " << severity << "\"><b>" << severity << "</b> "
             << show(finding.cause) << show_consequences(finding.consequences);
        if (!finding.advice.empty()) {
            html << "<p class=\"advice\">" << finding.advice << "</p>";
        }
        html << "</li>\n";
    }
    html << "</ol>\n</section>\n";
    return html;
}

} // namespace dolm
