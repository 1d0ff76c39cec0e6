// What the maps and charts of a report are drawn with, as SVG that the style sheet of the page
// colours.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "host/report/html.h"

namespace dolm {

// A part of a unit or block of flash.
enum class Cell : uint8_t {
    free,     // erased
    live,     // what a reader of the store gets
    dead,     // written and no longer read
    reserved, // kept for a file that may grow
    unused    // belongs to nothing
};

// A unit or block of flash, drawn as a grid of its cells in rows.
struct Tile {
    std::string name;     // "7"
    std::string role;     // "data"; the style sheet knows it as role-data
    std::string note;     // below the grid, such as "3 erases"
    std::string details;  // in full, in words
    bool damaged = false; // marked as such
    size_t columns = 16;
    std::vector<Cell> cells; // none if nothing is known of them
};

Html draw(const std::vector<Tile> &tiles);

struct Bar {
    std::string name; // "EU 7, data"
    std::string role;
    std::optional<uint32_t> value; // nothing if it is not known
};

// Bars of erase counts side by side, with the least, the most and the mean in words.
Html draw_wear(const std::vector<Bar> &bars);

struct LegendEntry {
    const char *swatch; // class of the style sheet
    const char *text;
};

Html draw_legend(const std::vector<LegendEntry> &entries);

} // namespace dolm
