// What still lies on an AFS image that may be damaged anywhere: the part that each erase unit (EU)
// plays, told by its content where its header does not tell it, and the pages of the log in the
// order in which they were written. Where a mount would give up over one unit, this goes on with
// the others.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <vector>

namespace dolm::afs {

struct Geometry {
    uint32_t file_count = 0;
    uint32_t chunk_count = 0;
    uint32_t data_va_start = 0; // bytes

    uint32_t page_count() const; // pages of metadata
    uint32_t rows() const;       // data EUs
};

// From a header of the file system that is found anywhere on the image, or else from where the data
// EUs say that they start, if that fits the usual number of files. Nothing if neither does.
struct FoundGeometry {
    Geometry geometry;
    bool is_stored = false; // in a header whose page has its checksum
};
std::optional<FoundGeometry> find_geometry(std::span<const uint8_t> bytes);

// What a data EU counts for.
struct DataUnit {
    uint32_t eu = 0;
    uint32_t sequence = 0;  // 0 if its header does not tell it
    bool is_certain = true; // false if it may be the spare with chunks of another time
};

constexpr uint32_t unknown_page = UINT32_MAX;

// One write of a metadata page.
struct LogPage {
    uint32_t page = 0; // unknown_page if what was written there is not known
    uint32_t eu = 0;
    uint32_t slot = 0;
    bool is_good = false;   // its checksum matches
    bool is_mended = false; // once a bit of it is put right
};

struct LogUnit {
    uint32_t eu = 0;
    std::optional<uint32_t> sequence; // nothing if its header does not tell it
    bool counts = true;               // false for the spare, whose pages are history
    bool is_full = false;             // there is no room behind its pages
    std::vector<LogPage> pages;       // in the order of writing
    std::vector<LogPage> behind;      // good ones in slots behind those, which no entry leads to
};

struct Remains {
    Geometry geometry;
    uint32_t eu_count = 0;                     // without what is erased behind the store
    std::vector<std::optional<DataUnit>> rows; // by first chunk / 122
    std::multimap<uint32_t, DataUnit> rivals;  // by row: other units that have its chunks too
    std::optional<DataUnit> spare_row;         // a spare that held the row before its unit did
    uint32_t spare_row_index = 0;
    std::vector<LogUnit> log;        // by sequence; those without one last
    bool is_log_whole = true;        // no unit is lost that may have been one of the log
    std::set<uint32_t> sequences;    // of all headers that can be read
    std::vector<std::string> doubts; // why what is newest may not be known
};

Remains read_remains(std::span<const uint8_t> bytes, const FoundGeometry &found);

} // namespace dolm::afs
