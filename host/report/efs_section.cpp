// The EFS image on the page of a report.
#include <algorithm>

#include "host/inspect.h"
#include "host/report/charts.h"
#include "host/report/page.h"
#include "image/efs_records.h"

namespace dolm {

namespace {

std::string erases(const EfsBlock &block) {
    return block.state == EfsBlockState::no_header ? "erases not known"
                                                   : counted(block.erase_count, "erase");
}

Tile tile_of_bm(const EfsImage &image, const EfsLayout &layout, size_t index) {
    const EfsBm &bm = image.bms[index];
    const bool in_force = image.bm_in_force == index;
    const uint32_t room = efs::entries_in_bm(layout.data_blocks());
    Tile tile;
    tile.name = "BM " + std::to_string(index);
    tile.role = "map";
    tile.note = in_force ? "in force" : to_string(bm.state);
    tile.details = tile.name + ", " + to_string(bm.state) + ": " + std::to_string(bm.entries) +
                   " of " + std::to_string(room) + " entries written" +
                   (in_force ? "; entry " + std::to_string(image.entry_in_force) + " is in force"
                             : std::string());
    tile.damaged = bm.state == EfsBmState::broken;
    tile.columns = 16;
    tile.cells.assign(room, Cell::free);
    std::fill_n(tile.cells.begin(), bm.entries, Cell::dead);
    if (in_force) {
        tile.cells[image.entry_in_force] = Cell::live;
    }
    return tile;
}

std::vector<Cell> cells_of_area(const std::string &area) {
    std::vector<Cell> cells;
    for (const char sign : area) {
        cells.push_back(sign == '#' ? Cell::live : sign == '-' ? Cell::reserved : Cell::unused);
    }
    return cells;
}

Tile tile_of_block(const EfsBlock &block, size_t number, const std::vector<std::string> &areas) {
    const bool live = block.state == EfsBlockState::live;
    const std::string role = live ? "logical" : "spare";
    Tile tile;
    tile.name = std::to_string(number);
    tile.role = role;
    tile.note = (live ? "logical " + std::to_string(block.index) : to_string(block.state)) + ", " +
                erases(block);
    tile.damaged = live ? !block.footer_good : block.state == EfsBlockState::no_header;
    tile.details = "block " + std::to_string(number) + ", " + role + " " +
                   std::to_string(block.index) + ", " + to_string(block.state) + ", " +
                   erases(block) + (live && tile.damaged ? "; fails its checksum" : "");
    tile.columns = 8;
    if (live) {
        tile.cells = cells_of_area(areas.at(block.index));
    } else {
        tile.cells.assign(32, block.state == EfsBlockState::free ? Cell::free : Cell::dead);
    }
    return tile;
}

Html wear_of(const EfsImage &image) {
    std::vector<Bar> bars;
    for (size_t i = 0; i < image.blocks.size(); ++i) {
        const EfsBlock &block = image.blocks[i];
        const bool known = block.state != EfsBlockState::no_header;
        bars.push_back({"block " + std::to_string(i) + ", " + to_string(block.state),
                        block.state == EfsBlockState::live ? "logical" : "spare",
                        known ? std::optional(block.erase_count) : std::nullopt});
    }
    return draw_wear(bars);
}

std::vector<Tile> tiles_of(const EfsImage &image, const EfsLayout &layout) {
    const std::vector<std::string> areas = draw_areas(image);
    std::vector<Tile> tiles;
    for (size_t i = 0; i < image.bms.size(); ++i) {
        tiles.push_back(tile_of_bm(image, layout, i));
    }
    for (size_t i = 0; i < image.blocks.size(); ++i) {
        tiles.push_back(tile_of_block(image.blocks[i], i, areas));
    }
    return tiles;
}

} // namespace

Html efs_section(const SetView &view) {
    Html html;
    html << "<section id=\"efs\">\n<h2>EFS image</h2>\n";
    if (!view.layout || view.efs.bms.empty()) {
        html << "<p>The set has none, or none that can be read.</p>\n</section>\n";
        return html;
    }
    const EfsLayout &layout = *view.layout;
    html << "<p>" << counted(layout.bm_num, "block map") << " (BM), " << layout.valid_blocks
         << " logical and " << layout.spare_blocks << " spare blocks of 4096 bytes; "
         << counted(view.efs.files.size(), "file") << ".";
    if (!view.efs.bm_in_force) {
        html << " No block map is in force, so that nothing says which block is which.";
    }
    html << "</p>\n"
         << draw_legend({{"live", "file, or the map in force"},
                         {"reserved", "kept for a file"},
                         {"dead", "stale"},
                         {"free", "erased"},
                         {"unused", "belongs to no file"},
                         {"role-map", "BM"},
                         {"role-logical", "logical block"},
                         {"role-spare", "spare block"}})
         << draw(tiles_of(view.efs, layout)) << wear_of(view.efs) << "</section>\n";
    return html;
}

} // namespace dolm
