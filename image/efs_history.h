// What the files of an EFS image hold and held, as far as the flash still has it: in the blocks of
// the map in force, in blocks that older maps name and that were not used again, and in spares that
// no map names any more. The image may be damaged anywhere.
//
// Every map, and every record with the number of its logical block, has a checksum.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "image/efs_image.h"
#include "image/history_state.h"

namespace dolm {

// An entry of a block map.
struct EfsMapPlace {
    uint32_t bm = 0;
    uint32_t entry = 0;
};

// A content that a file had.
struct EfsVersion {
    std::vector<uint8_t> contents;
    uint32_t block = 0;               // physical, of its first record
    size_t at = 0;                    // offset of that record in the image
    std::optional<EfsMapPlace> since; // the oldest map with it; nothing if none names its block
};

struct EfsFileHistory {
    using State = HistoryState;

    EfsPlace place;
    State state = State::absent;
    std::string why;                  // it is not sound, in words
    bool has_current = false;         // the first version is what it holds now
    std::vector<EfsVersion> versions; // newest first; none that cannot be read
};

struct EfsHistory {
    std::vector<EfsFileHistory> files; // in the order of the layout's list
    std::vector<std::string> doubts;   // why nothing on the image is sure to be the newest
};

EfsHistory read_efs_history(std::span<const uint8_t> bytes, const EfsLayout &layout);

} // namespace dolm
