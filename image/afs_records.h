// The records of an AFS image as the readers see them: sizes, values and checksums.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "image/bytes.h"

namespace dolm::afs {

constexpr uint32_t eu_size = 8192;
constexpr uint32_t erase_block_size = 4096; // what one erase of the device takes
constexpr uint32_t max_eu_count = 255;
constexpr uint32_t page_size = 64;
constexpr uint32_t record_size = 66; // a page and its checksum

// EU header: magic, sequence, erase count, next spare, first page, checksum of these, state.
constexpr uint32_t header_size = 18;
constexpr uint32_t header_checked_size = 16;
constexpr uint32_t state_offset = 17;
constexpr uint32_t magic_written = 0xAA557887;
constexpr uint32_t magic_alternative = 0x82416801; // on the way from magic_written to zero
constexpr uint32_t magic_partial = 0xAA050887;     // the same
constexpr uint8_t state_uncommitted = 0xFF;

// Log EU: 121 entries of 16 bits, then 120 page records.
constexpr uint32_t log_slots = 120;
constexpr uint32_t log_records_offset = 260;
constexpr uint16_t entry_empty = 0xFFFF;
constexpr uint16_t entry_commit_mark = 0x7FFF;
constexpr uint16_t entry_uncommitted_bit = 0x8000;
constexpr uint16_t entry_page_mask = 0x3FFF; // the bits of an entry that stands for a page

// Data EU: 122 status bytes, then 122 page records.
constexpr uint32_t data_slots = 122;
constexpr uint32_t data_records_offset = 140;
constexpr uint8_t status_free = 0xFF;
constexpr uint8_t status_writing = 0x7F;
constexpr uint8_t status_complete = 0;

// File system: header in page 0, then one 16-bit entry for each file and each chunk.
constexpr uint32_t fs_magic = 0x724F6201;
constexpr uint32_t fs_header_size = 14;
constexpr uint32_t min_file_count = 65; // chunk ids start above the byte counts 1 to 64
constexpr uint16_t slot_zombie = 0xFFFE;
constexpr uint16_t slot_empty_file = 0xFFFF;

// Where a record begins in the image.
constexpr size_t header_at(uint32_t eu) {
    return size_t{eu} * eu_size;
}
constexpr size_t log_entry_at(uint32_t eu, uint32_t index) {
    return header_at(eu) + header_size + 2 * size_t{index};
}
constexpr size_t log_record_at(uint32_t eu, uint32_t slot) {
    return header_at(eu) + log_records_offset + size_t{slot} * record_size;
}
constexpr size_t status_at(uint32_t eu, uint32_t slot) {
    return header_at(eu) + header_size + slot;
}
constexpr size_t data_record_at(uint32_t eu, uint32_t slot) {
    return header_at(eu) + data_records_offset + size_t{slot} * record_size;
}

enum class HeaderState { invalid, pending, committed };

struct Header {
    HeaderState state = HeaderState::invalid;
    bool given_up = false;          // its magic was cleared, the rest stands
    bool erase_count_known = false; // it is valid or given up
};

// Of the first header_size bytes of an EU.
Header judge_header(std::span<const uint8_t> header);

// Links an entry of a log to the page number of the entry before it.
uint16_t link_of(uint16_t page);

// A page as it lies on the flash, with its checksum behind it.
using PageRecord = std::span<const uint8_t, record_size>;

inline PageRecord page_record(std::span<const uint8_t> bytes, size_t offset) {
    return bytes.subspan(offset).first<record_size>();
}

// Every page carries its own number in its checksum, so that one in the wrong place fails.
bool page_is_good(PageRecord record, uint32_t page);

// The page as it was if one wrong bit, in it or in its checksum, explains that the checksum fails.
std::optional<std::vector<uint8_t>> with_bit_put_right(PageRecord record, uint32_t page);

inline bool is_erased(std::span<const uint8_t> bytes) {
    return std::all_of(bytes.begin(), bytes.end(), [](uint8_t byte) { return byte == 0xFF; });
}

// The page below page_count whose number the checksum of a record carries, if there is one.
std::optional<uint16_t> page_of(PageRecord record, uint32_t page_count);

} // namespace dolm::afs
