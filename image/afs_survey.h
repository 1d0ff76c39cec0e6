// What a mount of an AFS image does not look at, or passes by: writes that were cut, copies that
// nobody reads any more, and space that has to be erased and is not.
#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <vector>

#include "image/afs_image.h"

namespace dolm {

struct AfsTrace {
    enum class Kind : uint8_t {
        header,      // of an EU: says that it is not committed, and must be
        interrupted, // by a cut of power, and dealt with: no harm
        uncommitted, // the same; a page that lacks nothing but its commit mark
        rot,         // bytes that changed where nothing reads them
        log_entry,   // a committed log entry is not the one that was written
        lost_page,   // a good page, newer than the one in force, that the log does not reach
        not_erased   // space that a write will go to
    };

    Kind kind;
    size_t at; // offset in the image
    uint32_t eu;
    std::string what; // the part of the EU: "slot 3"
    std::string text;
};

// In the order of their places. The image is what read_afs_image made of the bytes.
std::vector<AfsTrace> survey_afs_image(std::span<const uint8_t> bytes, const AfsImage &image);

} // namespace dolm
