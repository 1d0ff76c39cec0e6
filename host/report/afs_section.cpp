// The AFS image on the page of a report.
#include "host/inspect.h"
#include "host/report/charts.h"
#include "host/report/page.h"
#include "image/afs_records.h"

namespace dolm {

namespace {

Cell cell_of(AfsSlot slot) {
    switch (slot) {
    case AfsSlot::live:
        return Cell::live;
    case AfsSlot::dead:
        return Cell::dead;
    case AfsSlot::free:
        return Cell::free;
    case AfsSlot::outside:
        break;
    }
    return Cell::unused;
}

std::string erases(const AfsEu &eu) {
    return eu.erase_count_known ? counted(eu.erase_count, "erase") : "erases not known";
}

std::string details_of(const AfsEu &eu, size_t index) {
    std::string text =
        "EU " + std::to_string(index) + ", " + to_string(eu.role) + ", " + erases(eu);
    if (!eu.slots.empty()) {
        text += ", sequence " + std::to_string(eu.sequence) + ": " + std::to_string(eu.live) +
                " pages live, " + std::to_string(eu.dead) + " dead, " + std::to_string(eu.free) +
                " free";
    }
    return text + (eu.pending ? "; its header is not committed" : "");
}

Tile tile_of(const AfsEu &eu, size_t index) {
    Tile tile;
    tile.name = std::to_string(index);
    tile.role = to_string(eu.role);
    tile.note = erases(eu);
    tile.details = details_of(eu, index);
    tile.damaged = eu.role == AfsRole::damaged || eu.pending;
    for (const AfsSlot slot : eu.slots) {
        tile.cells.push_back(cell_of(slot));
    }
    if (eu.role == AfsRole::spare) {
        tile.cells.assign(afs::data_slots, Cell::free);
    }
    return tile;
}

Html fill_of(const AfsImage &image) {
    Html html;
    html << "<p>" << counted(image.eu_count, "EU") << " of " << afs::eu_size << " bytes. ";
    if (image.has_file_system) {
        html << counted(image.files.size(), "file") << " in " << image.file_count << " slots; "
             << image.used_chunks << " of " << image.chunk_count << " chunks of 64 bytes are used, "
             << image.free_chunks << " are erased.";
    } else {
        html << "No file system can be read.";
    }
    html << "</p>\n";
    return html;
}

Html wear_of(const AfsImage &image) {
    std::vector<Bar> bars;
    for (size_t i = 0; i < image.eus.size(); ++i) {
        const AfsEu &eu = image.eus[i];
        const std::string role = to_string(eu.role);
        bars.push_back({"EU " + std::to_string(i) + ", " + role, role,
                        eu.erase_count_known ? std::optional(eu.erase_count) : std::nullopt});
    }
    return draw_wear(bars);
}

} // namespace

Html afs_section(const SetView &view) {
    Html html;
    html << "<section id=\"afs\">\n<h2>AFS image</h2>\n";
    if (view.afs.eus.empty()) {
        html << "<p>The set has none, or none that can be read.</p>\n</section>\n";
        return html;
    }
    std::vector<Tile> tiles;
    for (size_t i = 0; i < view.afs.eus.size(); ++i) {
        tiles.push_back(tile_of(view.afs.eus[i], i));
    }
    html << fill_of(view.afs)
         << draw_legend({{"live", "page in use"},
                         {"dead", "page given up"},
                         {"free", "erased"},
                         {"unused", "outside of the data area"},
                         {"unknown", "not known"},
                         {"role-log", "log EU"},
                         {"role-data", "data EU"},
                         {"role-spare", "spare EU"}})
         << draw(tiles) << wear_of(view.afs) << "</section>\n";
    return html;
}

} // namespace dolm
