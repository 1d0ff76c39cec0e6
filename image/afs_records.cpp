#include "image/afs_records.h"

#include <algorithm>
#include <array>
#include <span>

namespace dolm::afs {

namespace {

template <typename T, T polynomial>
constexpr std::array<T, 256> make_crc_table() {
    constexpr unsigned top_bit = sizeof(T) * 8 - 1;
    std::array<T, 256> table{};
    for (unsigned i = 0; i < 256; ++i) {
        unsigned reg = i << (top_bit - 7);
        for (int bit = 0; bit < 8; ++bit) {
            reg = (reg << 1) ^ ((reg >> top_bit & 1) != 0 ? polynomial : 0U);
        }
        table[i] = static_cast<T>(reg);
    }
    return table;
}

constexpr auto crc8_table = make_crc_table<uint8_t, 0x07>();
constexpr auto crc16_table = make_crc_table<uint16_t, 0x1021>();

uint8_t header_crc(std::span<const uint8_t> data) {
    uint8_t crc = 1;
    for (const uint8_t byte : data) {
        crc = crc8_table[crc ^ byte];
    }
    return crc;
}

uint16_t crc16_step(uint16_t crc, uint8_t byte) {
    return static_cast<uint16_t>(crc << 8 ^ crc16_table[(crc >> 8 ^ byte) & 0xFF]);
}

bool crc_matches_with(const uint8_t *header, uint32_t magic) {
    std::array<uint8_t, header_checked_size> copy{};
    std::copy_n(header, copy.size(), copy.begin());
    for (unsigned i = 0; i < 4; ++i) {
        copy[i] = static_cast<uint8_t>(magic >> (8 * i));
    }
    return header_crc(copy) == header[header_checked_size];
}

bool magic_and_crc_are_good(const uint8_t *header) {
    switch (le32(header)) {
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

uint16_t le16(const uint8_t *bytes) {
    return static_cast<uint16_t>(bytes[0] | bytes[1] << 8);
}

uint32_t le32(const uint8_t *bytes) {
    return le16(bytes) | static_cast<uint32_t>(le16(bytes + 2)) << 16;
}

Header judge_header(const uint8_t *header) {
    const uint32_t sequence = le32(header + 4);
    const uint32_t erase_count = le32(header + 8);
    if (sequence != 0 && erase_count != 0 && magic_and_crc_are_good(header)) {
        const bool pending = header[state_offset] == state_uncommitted;
        return {pending ? HeaderState::pending : HeaderState::committed, false, true};
    }
    const bool given_up = le32(header) == 0 && (crc_matches_with(header, magic_written) ||
                                                crc_matches_with(header, magic_alternative));
    return {HeaderState::invalid, given_up, given_up};
}

uint16_t link_of(uint16_t page) {
    uint16_t reg = 0x3FFF;
    reg = crc16_step(reg, static_cast<uint8_t>(page)) & 0x3FFF;
    return crc16_step(reg, static_cast<uint8_t>(page >> 8)) & 0x3FFF;
}

namespace {

uint16_t crc_of_page(const uint8_t *record) {
    uint16_t crc = 0xFFFF;
    for (uint32_t i = 0; i < page_size; ++i) {
        crc = crc16_step(crc, record[i]);
    }
    return crc;
}

uint16_t with_number(uint16_t crc, uint32_t page) {
    crc = crc16_step(crc, static_cast<uint8_t>(page));
    return crc16_step(crc, static_cast<uint8_t>(page >> 8));
}

} // namespace

bool page_is_good(const uint8_t *record, uint32_t page) {
    return with_number(crc_of_page(record), page) == le16(record + page_size);
}

std::optional<uint16_t> page_of(const uint8_t *record, uint32_t page_count) {
    const uint16_t crc = crc_of_page(record);
    const uint16_t wanted = le16(record + page_size);
    for (uint32_t page = 0; page < page_count; ++page) {
        if (with_number(crc, page) == wanted) {
            return static_cast<uint16_t>(page);
        }
    }
    return std::nullopt;
}

} // namespace dolm::afs
