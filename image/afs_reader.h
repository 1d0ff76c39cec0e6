// The steps in which read_afs_image reads. Each adds to the image what it finds in the bytes, and
// needs what the steps before it found.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "image/afs_image.h"

namespace dolm::afs {

// The EUs, their headers and the part that each plays. False if the bytes have no number of EUs
// that a store can have; then there is nothing more to read.
bool read_erase_units(std::span<const uint8_t> bytes, AfsImage &image);

// The pages below page_count in the slots of the log, the newest copy of each, and the log's head.
// Provisional while page_count is only the most that there can be.
void read_log(std::span<const uint8_t> bytes, AfsImage &image, uint32_t page_count,
              bool provisional);

// Whether no entry is written from a slot of a log EU on.
bool log_is_erased_from(std::span<const uint8_t> bytes, uint32_t eu, uint32_t slot);

// The header of the file system; returns its page, and leaves has_file_system false if it is none.
std::vector<uint8_t> read_fs_header(std::span<const uint8_t> bytes, AfsImage &image);

struct DataArea {
    std::vector<std::optional<uint32_t>> eus;    // by first chunk / 122
    std::vector<std::optional<uint32_t>> owners; // by chunk, the file that it belongs to
};

// The files and what they have of the data area.
DataArea read_files(std::span<const uint8_t> bytes, AfsImage &image,
                    std::vector<uint8_t> header_page);

// The state of every slot of the data and log EUs.
void read_slots(std::span<const uint8_t> bytes, AfsImage &image, const DataArea &area);

// Judges what has to hold across the EUs.
void check_order(AfsImage &image);

} // namespace dolm::afs
