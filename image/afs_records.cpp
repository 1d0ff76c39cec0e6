#include "image/afs_records.h"

#include <algorithm>
#include <array>

#include "image/crc16.h"

namespace dolm::afs {

namespace {

constexpr auto crc8_table = [] {
    std::array<uint8_t, 256> table{};
    for (uint32_t i = 0; i < 256; ++i) {
        uint32_t reg = i;
        for (int bit = 0; bit < 8; ++bit) {
            reg = reg << 1 ^ ((reg & 0x80) != 0 ? 0x07 : 0);
        }
        table[i] = static_cast<uint8_t>(reg);
    }
    return table;
}();

uint8_t header_crc(std::span<const uint8_t> data) {
    uint8_t crc = 1;
    for (const uint8_t byte : data) {
        crc = crc8_table[crc ^ byte];
    }
    return crc;
}

// A page number as the checksums take it.
std::array<uint8_t, 2> le_bytes(uint32_t page) {
    return {static_cast<uint8_t>(page), static_cast<uint8_t>(page >> 8)};
}

bool crc_matches_with(std::span<const uint8_t> header, uint32_t magic) {
    std::array<uint8_t, header_checked_size> copy{};
    std::copy_n(header.begin(), copy.size(), copy.begin());
    for (unsigned i = 0; i < 4; ++i) {
        copy[i] = static_cast<uint8_t>(magic >> (8 * i));
    }
    return header_crc(copy) == header[header_checked_size];
}

bool magic_and_crc_are_good(std::span<const uint8_t> header) {
    switch (get_le32(header, 0)) {
    case magic_written:
        return crc_matches_with(header, magic_written);
    case magic_alternative:
        return crc_matches_with(header, magic_alternative) ||
               crc_matches_with(header, magic_written);
    case magic_partial:
        return crc_matches_with(header, magic_written);
    default:
        return false;
    }
}

} // namespace

Header judge_header(std::span<const uint8_t> header) {
    const uint32_t sequence = get_le32(header, 4);
    const uint32_t erase_count = get_le32(header, 8);
    if (sequence != 0 && erase_count != 0 && magic_and_crc_are_good(header)) {
        const bool pending = header[state_offset] == state_uncommitted;
        return {pending ? HeaderState::pending : HeaderState::committed, false, true};
    }
    const bool given_up = get_le32(header, 0) == 0 && (crc_matches_with(header, magic_written) ||
                                                       crc_matches_with(header, magic_alternative));
    return {HeaderState::invalid, given_up, given_up};
}

uint16_t link_of(uint16_t page) {
    uint16_t reg = entry_page_mask;
    for (const uint8_t byte : le_bytes(page)) {
        reg = crc16(reg, {&byte, 1}) & entry_page_mask;
    }
    return reg;
}

bool page_is_good(PageRecord record, uint32_t page) {
    return crc16(crc16(0xFFFF, record.first<page_size>()), le_bytes(page)) ==
           get_le16(record, page_size);
}

std::optional<std::vector<uint8_t>> with_bit_put_right(PageRecord record, uint32_t page) {
    std::vector<uint8_t> mended(record.begin(), record.end());
    for (size_t bit = 0; bit < size_t{record_size} * 8; ++bit) {
        const auto mask = static_cast<uint8_t>(1 << bit % 8);
        mended[bit / 8] ^= mask;
        if (page_is_good(PageRecord(mended), page)) {
            return mended;
        }
        mended[bit / 8] ^= mask;
    }
    return std::nullopt;
}

std::optional<uint16_t> page_of(PageRecord record, uint32_t page_count) {
    const uint16_t crc = crc16(0xFFFF, record.first<page_size>());
    const uint16_t wanted = get_le16(record, page_size);
    for (uint32_t page = 0; page < page_count; ++page) {
        if (crc16(crc, le_bytes(page)) == wanted) {
            return static_cast<uint16_t>(page);
        }
    }
    return std::nullopt;
}

} // namespace dolm::afs
