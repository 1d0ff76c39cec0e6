// The NVARs on the page of a report.
#include <algorithm>
#include <map>

#include "host/report/page.h"
#include "host/utf8.h"
#include "host/value_text.h"

namespace dolm {

namespace {

constexpr size_t preview_width = 36; // columns
constexpr size_t dump_limit = 1024;  // bytes of a value that are shown
constexpr size_t dump_width = 16;    // bytes in a line

using Values = std::map<std::string, const Bytes *>;

Values values_of(const SetNvars &nvars) {
    Values values;
    for (const Nvar &nvar : nvars.nvars) {
        values[nvar.name] = &nvar.value;
    }
    return values;
}

const Bytes *value_in(const Values &values, const std::string &name) {
    const auto found = values.find(name);
    return found == values.end() ? nullptr : found->second;
}

// Bytes in hexadecimal, marked where another value has others.
Html dump_line(const Bytes &value, size_t begin, const Bytes &other) {
    Html html;
    const size_t end = std::min(begin + dump_width, value.size());
    const auto differs = [&](size_t at) { return at >= other.size() || value[at] != other[at]; };
    for (size_t at = begin; at < end; ++at) {
        if (differs(at) && (at == begin || !differs(at - 1))) {
            html << "<mark>";
        }
        html << to_hex({value[at]});
        if (differs(at) && (at + 1 == end || !differs(at + 1))) {
            html << "</mark>";
        }
        html << (at + 1 == end ? "\n" : " ");
    }
    return html;
}

Html dump(const Bytes &value, const Bytes &other) {
    Html html;
    html << "<pre>";
    const Bytes shown(value.begin(), value.begin() + static_cast<std::ptrdiff_t>(
                                                         std::min(value.size(), dump_limit)));
    if (is_printable(to_text(shown))) {
        html << std::string(to_text(shown)) << "\n";
    } else {
        for (size_t at = 0; at < shown.size(); at += dump_width) {
            html << dump_line(shown, at, other);
        }
    }
    if (shown.size() < value.size()) {
        html << "and " << value.size() - shown.size() << " bytes more";
    }
    html << "</pre>";
    return html;
}

// A value, in full on demand if it is long; `other` is what to compare it with.
Html show(const Bytes &value, const Bytes &other) {
    const std::string preview = preview_value(value, preview_width);
    Html html;
    if (!preview.ends_with("...")) {
        html << "<code>" << preview << "</code>";
    } else {
        html << "<details><summary><code>" << preview << "</code></summary>" << dump(value, other)
             << "</details>";
    }
    return html;
}

// A cell with the value elsewhere, if that is another one.
Html cell_elsewhere(const Bytes *elsewhere, const Bytes &value) {
    Html html;
    if (elsewhere == nullptr) {
        html << "<td class=\"none\">not there</td>";
    } else if (*elsewhere == value) {
        html << "<td class=\"same\">same</td>";
    } else {
        html << "<td>" << show(*elsewhere, value) << "</td>";
    }
    return html;
}

class NvarTable {
  public:
    explicit NvarTable(const SetPage &page) : page_(page) {
        if (page.other) {
            others_ = values_of(page.other->nvars);
        }
    }

    Html draw() const {
        Html html;
        html << "<div class=\"scroll\"><table id=\"nvar-table\">\n" << head() << "<tbody>\n";
        for (const Nvar &nvar : page_.nvars.nvars) {
            html << row(nvar);
        }
        html << rows_of_other() << "</tbody></table></div>\n";
        return html;
    }

  private:
    Html head() const {
        Html html;
        html << "<thead><tr><th>Name</th><th>Value</th><th>Base</th>";
        if (page_.other) {
            html << "<th>" << page_.other->name << "</th>";
        }
        html << "<th class=\"number\">Size</th><th class=\"number\">Limit</th><th>Origin</th>"
                "<th>File</th><th>Attributes</th></tr></thead>\n";
        return html;
    }

    Html row(const Nvar &nvar) const {
        const Bytes *base = nvar.base ? &*nvar.base : nullptr;
        const Bytes *other = value_in(others_, nvar.name);
        const bool differs_from_other = page_.other && (other == nullptr || *other != nvar.value);
        Html html;
        html << "<tr class=\"item" << (nvar.differs_from_base ? " changed" : "")
             << (differs_from_other ? " different" : "") << "\"><th scope=\"row\">" << nvar.name
             << "</th><td>" << show(nvar.value, base == nullptr ? nvar.value : *base) << "</td>"
             << cell_elsewhere(base, nvar.value);
        if (page_.other) {
            html << cell_elsewhere(other, nvar.value);
        }
        html << facts(nvar) << "</tr>\n";
        return html;
    }

    static Html facts(const Nvar &nvar) {
        char attributes[8];
        std::snprintf(attributes, sizeof attributes, "%04x", unsigned{nvar.entry.attributes});
        const bool in_flash = nvar.entry.store != static_cast<uint8_t>(Store::none);
        Html html;
        html << "<td class=\"number\">" << nvar.value.size() << "</td><td class=\"number\">"
             << nvar.entry.max_size << "</td><td class=\"origin\">"
             << std::string(to_string(nvar.origin)) << "</td><td>"
             << store_name(nvar.entry.store) +
                    (in_flash ? " " + std::to_string(nvar.entry.id) : std::string())
             << "</td><td><code>" << std::string(attributes) << "</code>"
             << (nvar.writable ? "" : " not written back") << "</td>";
        return html;
    }

    // NVARs that only the other set has.
    Html rows_of_other() const {
        const Values own = values_of(page_.nvars);
        Html html;
        if (!page_.other) {
            return html;
        }
        for (const Nvar &nvar : page_.other->nvars.nvars) {
            if (value_in(own, nvar.name) == nullptr) {
                html << "<tr class=\"item different\"><th scope=\"row\">" << nvar.name
                     << "</th><td class=\"none\">not there</td><td></td><td>"
                     << show(nvar.value, {}) << "</td><td></td><td></td><td></td><td></td>"
                     << "<td></td></tr>\n";
            }
        }
        return html;
    }

    const SetPage &page_;
    Values others_;
};

Html state_of(const std::string &name, const SetNvars &nvars) {
    Html html;
    if (!nvars.started_up) {
        html << "<p class=\"advice\">The library does not start up on " << name
             << "; shown is what its tables and images still hold.</p>\n";
    }
    return html;
}

} // namespace

size_t count_different(const SetNvars &nvars, const OtherSet &other) {
    const Values own = values_of(nvars);
    const Values others = values_of(other.nvars);
    const auto is_different = [](const Values &values, const std::string &name,
                                 const Bytes &value) {
        const Bytes *found = value_in(values, name);
        return found == nullptr || *found != value;
    };
    const auto different = std::count_if(own.begin(), own.end(), [&](const auto &nvar) {
        return is_different(others, nvar.first, *nvar.second);
    });
    const auto only_there = std::count_if(
        others.begin(), others.end(), [&](const auto &nvar) { return !own.contains(nvar.first); });
    return static_cast<size_t>(different + only_there);
}

Html nvar_section(const SetPage &page) {
    Html html;
    html << "<section id=\"nvars\">\n<h2>NVARs</h2>\n" << state_of(page.name, page.nvars);
    if (page.other) {
        html << state_of(page.other->name, page.other->nvars);
    }
    html << NvarTable(page).draw() << "</section>\n";
    return html;
}

} // namespace dolm
