// What the files of an AFS image hold and held, as far as the flash still has it: the metadata log
// is read from its oldest page to its newest, and every content that it ever gave a file is kept
// whose chunks still lie there. The image may be damaged anywhere.
//
// Each chunk and each page of metadata has a checksum with its own number in it. A chunk that was
// given to a file later, or may have been, is not taken for what it held before.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "image/afs_image.h"
#include "image/history_state.h"

namespace dolm {

// A content that a file had.
struct AfsVersion {
    std::vector<size_t> chunks_at;     // offsets of its chunks in the image, in file order
    uint32_t size = 0;                 // bytes
    std::optional<AfsPagePlace> since; // the page of metadata that brought it into force
};

struct AfsFileHistory {
    using State = HistoryState;

    uint32_t number = 0;
    State state = State::absent;
    std::string why;                  // it is not sound, in words
    bool has_current = false;         // the first version is what it holds now
    std::vector<AfsVersion> versions; // newest first; none that cannot be read
};

struct AfsHistory {
    uint32_t eu_count = 0; // without what is erased behind the store
    uint32_t file_count = 0;
    uint32_t chunk_count = 0;
    std::vector<AfsFileHistory> files; // by number; those of which a trace is left
    std::vector<std::string> doubts;   // why nothing on the image is sure to be the newest
};

// Nothing if the numbers of the file system cannot be found.
std::optional<AfsHistory> read_afs_history(std::span<const uint8_t> bytes);

std::vector<uint8_t> contents_of(std::span<const uint8_t> bytes, const AfsVersion &version);

} // namespace dolm
