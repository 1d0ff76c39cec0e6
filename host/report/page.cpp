#include "host/report/page.h"

#include <algorithm>

#include "host/counted.h"

namespace dolm {

// page.html with style sheet and script in it.
extern const char *const page_source;

namespace {

constexpr std::string_view title_mark = "{{title}}";
constexpr std::string_view content_mark = "{{content}}";

std::string sku_text(const SetPage &page) {
    std::string text = "SKU " + std::to_string(page.nvars.sku);
    if (page.report.skus.size() > 1) {
        std::vector<std::string> skus;
        for (const uint32_t sku : page.report.skus) {
            skus.push_back(std::to_string(sku));
        }
        text += "; checked with SKUs " + listed(skus);
    }
    return text;
}

Html member_list(const SetFiles &files) {
    Html html;
    html << "<ul class=\"members\">";
    for (const SetMember &member : set_members) {
        const size_t size = (files.*member.content).size();
        html << "<li><code>" << std::string(member.name) << "</code> "
             << (size == 0 ? "not there, or not usable" : counted(size, "byte")) << "</li>";
    }
    html << "</ul>\n";
    return html;
}

class Figures {
  public:
    // The style sheet knows the kind.
    void add(const std::string &kind, const std::string &figure, const std::string &what) {
        html_ << "<li class=\"" << kind << "\"><b>" << figure << "</b> " << what << "</li>";
    }

    Html list() && {
        Html html;
        html << "<ul class=\"figures\">" << html_ << "</ul>\n";
        return html;
    }

  private:
    Html html_;
};

} // namespace

Html summary_section(const SetPage &page) {
    const size_t errors = page.report.count(Finding::Severity::error);
    const size_t notes = page.report.count(Finding::Severity::note);
    const auto &nvars = page.nvars.nvars;
    const auto changed = std::count_if(nvars.begin(), nvars.end(),
                                       [](const Nvar &nvar) { return nvar.differs_from_base; });
    Figures figures;
    figures.add(errors == 0 ? "good" : "error", std::to_string(errors), plural(errors, "error"));
    figures.add("note", std::to_string(notes), plural(notes, "note"));
    figures.add("", std::to_string(nvars.size()), plural(nvars.size(), "NVAR"));
    figures.add("", std::to_string(changed), "not at base value");
    if (page.other) {
        figures.add("", std::to_string(count_different(page.nvars, *page.other)),
                    "not as in " + page.other->name);
    }
    Html html;
    html << "<header>\n<h1>" << page.name << "</h1>\n<p>" << sku_text(page) << "</p>\n"
         << member_list(page.view.files) << std::move(figures).list() << "</header>\n";
    return html;
}

std::string write_page(const SetPage &page) {
    const std::string_view source = page_source;
    const size_t title = source.find(title_mark);
    const size_t content = source.find(content_mark);
    Html html;
    html.add_source(source.substr(0, title)) << page.name;
    html.add_source(source.substr(title + title_mark.size(), content - title - title_mark.size()));
    html << summary_section(page) << findings_section(page.report) << afs_section(page.view)
         << efs_section(page.view) << nvar_section(page);
    html.add_source(source.substr(content + content_mark.size()));
    return html.markup();
}

} // namespace dolm
