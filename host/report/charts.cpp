#include "host/report/charts.h"

#include <algorithm>
#include <cstdio>
#include <numeric>

#include "host/check/finding.h"

namespace dolm {

namespace {

// What is drawn over the ground, which shows erased cells, and by which class of the style sheet.
struct CellStyle {
    Cell cell;
    const char *name;
};
constexpr CellStyle cell_styles[] = {
    {Cell::live, "live"},
    {Cell::dead, "dead"},
    {Cell::reserved, "reserved"},
    {Cell::unused, "unused"},
};

// All cells of one kind as an SVG path, a rectangle for each run in a row.
std::string path_of(const Tile &tile, Cell cell) {
    std::string path;
    for (size_t begin = 0; begin < tile.cells.size();) {
        const size_t row_end =
            std::min(begin - begin % tile.columns + tile.columns, tile.cells.size());
        size_t end = begin;
        while (end < row_end && tile.cells[end] == tile.cells[begin]) {
            ++end;
        }
        if (tile.cells[begin] == cell) {
            const std::string width = std::to_string(end - begin);
            path.append("M").append(std::to_string(begin % tile.columns));
            path.append(" ").append(std::to_string(begin / tile.columns));
            path.append("h").append(width).append("v1h-").append(width).append("z");
        }
        begin = end;
    }
    return path;
}

Html draw_cells(Tile tile) {
    const size_t rows = (tile.cells.size() + tile.columns - 1) / tile.columns;
    tile.cells.resize(rows * tile.columns, Cell::unused); // the rest of the last row
    Html html;
    if (tile.cells.empty()) {
        html << "<svg class=\"unknown\"></svg>";
        return html;
    }
    html << "<svg viewBox=\"0 0 " << tile.columns << " " << rows
         << "\" preserveAspectRatio=\"none\" aria-hidden=\"true\">";
    for (const CellStyle &style : cell_styles) {
        const std::string path = path_of(tile, style.cell);
        if (!path.empty()) {
            html << "<path class=\"" << std::string(style.name) << "\" d=\"" << path << "\"/>";
        }
    }
    html << "</svg>";
    return html;
}

std::string mean_of(const std::vector<uint32_t> &values) {
    const uint64_t sum = std::accumulate(values.begin(), values.end(), uint64_t{0});
    char text[24];
    std::snprintf(text, sizeof text, "%.1f",
                  static_cast<double>(sum) / static_cast<double>(values.size()));
    return text;
}

Html draw_bar(const Bar &bar, size_t index, uint64_t highest) {
    constexpr uint64_t full_height = 100;
    const uint64_t height =
        !bar.value || highest == 0 ? 0 : std::max<uint64_t>(1, *bar.value * full_height / highest);
    Html html;
    html << "<rect class=\"role-" << bar.role << "\" x=\"" << index << ".1\" y=\""
         << full_height - height << "\" width=\".8\" height=\"" << height << "\"><title>"
         << bar.name << ": " << (bar.value ? counted(*bar.value, "erase") : "erases not known")
         << "</title></rect>";
    return html;
}

} // namespace

Html draw(const std::vector<Tile> &tiles) {
    Html html;
    html << "<ol class=\"map\">\n";
    for (const Tile &tile : tiles) {
        html << "<li class=\"role-" << tile.role << (tile.damaged ? " damaged" : "")
             << "\" title=\"" << tile.details << "\"><b>" << tile.name << "</b> <span>" << tile.role
             << "</span>" << draw_cells(tile) << "<small>" << tile.note << "</small></li>\n";
    }
    html << "</ol>\n";
    return html;
}

Html draw_wear(const std::vector<Bar> &bars) {
    std::vector<uint32_t> known;
    for (const Bar &bar : bars) {
        if (bar.value) {
            known.push_back(*bar.value);
        }
    }
    Html html;
    if (known.empty()) {
        html << "<p>No erase count can be read.</p>\n";
        return html;
    }
    const auto [lowest, highest] = std::minmax_element(known.begin(), known.end());
    const std::string summary = "lowest " + std::to_string(*lowest) + ", highest " +
                                std::to_string(*highest) + ", mean " + mean_of(known);
    html << "<figure class=\"wear\" style=\"--bars:" << bars.size()
         << "\"><figcaption>Wear: erases of each, " << summary
         << "</figcaption>\n<svg viewBox=\"0 0 " << bars.size()
         << " 100\" preserveAspectRatio=\"none\" role=\"img\" aria-label=\"Erase counts: "
         << summary << "\">";
    for (size_t i = 0; i < bars.size(); ++i) {
        html << draw_bar(bars[i], i, *highest);
    }
    html << "</svg></figure>\n";
    return html;
}

Html draw_legend(const std::vector<LegendEntry> &entries) {
    Html html;
    html << "<ul class=\"legend\">";
    for (const LegendEntry &entry : entries) {
        html << "<li><i class=\"" << std::string(entry.swatch) << "\"></i>"
             << std::string(entry.text) << "</li>";
    }
    html << "</ul>\n";
    return html;
}

} // namespace dolm
