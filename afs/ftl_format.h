// The flash of an AFS store, byte by byte. All integers are little-endian.
//
// The store is cut into EUs of 8192 bytes, two erase blocks each. Every EU but one, the spare, has
// a header; va_base in the header tells a log EU (0) from a data EU.
#pragma once

#include <cstdint>

#include "AfsCrc.h"
#include "AfsFtl.h"
#include "common/crc.h"
#include "common/little_endian.h"

namespace dolm {

// ---- EU header, at offset 0 of an EU.
inline constexpr uint32_t eu_magic_offset = 0;         // u32
inline constexpr uint32_t eu_sequence_offset = 4;      // u32, never 0
inline constexpr uint32_t eu_erase_count_offset = 8;   // u32, never 0
inline constexpr uint32_t eu_next_spare_offset = 12;   // u16, EU that is the spare once this counts
inline constexpr uint32_t eu_va_base_offset = 14;      // u16
inline constexpr uint32_t eu_crc_offset = 16;          // u8, crc8 of bytes 0 to 15 with eu_magic
inline constexpr uint32_t eu_state_offset = 17;        // u8
inline constexpr uint32_t eu_header_written_size = 17; // a header goes out without its state byte
inline constexpr uint32_t eu_header_size = 18;

// Only eu_magic is ever written. The others are states that it can pass through on its way to 0
// when the clearing of the field is cut off; an EU that shows one has not been given up yet.
inline constexpr uint32_t eu_magic = 0xAA557887;
inline constexpr uint32_t eu_magic_alt = 0x82416801;
inline constexpr uint32_t eu_magic_partial = 0xAA050887;

// The header is committed if eu_state has any other value than this.
inline constexpr uint8_t eu_state_pending = 0xFF;
inline constexpr uint8_t eu_state_committed = 0;

struct afs_eu_header {
    uint32_t magic;
    uint32_t sequence;
    uint32_t erase_count;
    uint16_t next_spare;
    uint16_t va_base;
};

inline afs_eu_header load_eu_header(const uint8_t *bytes) {
    return {load_le32(bytes + eu_magic_offset), load_le32(bytes + eu_sequence_offset),
            load_le32(bytes + eu_erase_count_offset), load_le16(bytes + eu_next_spare_offset),
            load_le16(bytes + eu_va_base_offset)};
}

// Stores the 17 bytes that are written at first, the checksum included.
inline void store_eu_header(uint8_t *bytes, const afs_eu_header &header) {
    store_le32(bytes + eu_magic_offset, header.magic);
    store_le32(bytes + eu_sequence_offset, header.sequence);
    store_le32(bytes + eu_erase_count_offset, header.erase_count);
    store_le16(bytes + eu_next_spare_offset, header.next_spare);
    store_le16(bytes + eu_va_base_offset, header.va_base);
    bytes[eu_crc_offset] = static_cast<uint8_t>(crc8(bytes, eu_crc_offset));
}

// A header is valid if and only if its sequence and its erase count are not 0, its magic is one of
// the three, and its checksum matches: for eu_magic as it stands, for eu_magic_alt as it stands or
// with eu_magic in its place, for eu_magic_partial only with eu_magic in its place.
bool eu_header_is_valid(const uint8_t *bytes);

// An EU without a valid header is the spare. Its erase count can be believed if the magic was
// cleared as a whole and the rest still fits what stood there.
bool spare_erase_count_is_good(const uint8_t *bytes);

// ---- A page in its slot: 64 bytes of data and crc16 of them, with the page number as the tail. A
// page in the wrong place fails its checksum.
inline constexpr uint32_t page_crc_offset = AFS_PAGE_SIZE;
inline constexpr uint32_t page_slot_size = AFS_PAGE_SIZE + 2;

inline uint16_t page_crc(const uint8_t *data, uint32_t page) {
    return crc16_page(data, static_cast<uint16_t>(page));
}

inline bool page_slot_is_good(const uint8_t *slot, uint32_t page) {
    return load_le16(slot + page_crc_offset) == page_crc(slot, page);
}

// ---- Body of a log EU: 121 log entries of 16 bits, then 120 page slots.
//
// Entry i belongs to slot i; the last entry has no slot. An entry is 0xFFFF (erased), 0x7FFF (the
// commit mark alone: its slot is the first free one), or a page entry below 0x4000: the page number
// XOR crc14 of the page number of the committed entry before it in the same EU, 0 at the start.
// Entry i is committed if and only if bit 15 of entry i + 1 is clear. A committed entry that is no
// page entry was passed over by a run of entries that landed in part; the log ends before it.
inline constexpr uint32_t log_map_offset = 18;
inline constexpr uint32_t log_entry_size = 2;
inline constexpr uint32_t log_entry_count = AFS_FTL_EU_PAGES + 1;
inline constexpr uint32_t log_map_size = log_entry_count * log_entry_size;
inline constexpr uint32_t log_slots_offset = log_map_offset + log_map_size;
inline constexpr uint16_t log_entry_erased = 0xFFFF;
inline constexpr uint16_t log_entry_commit_mark = 0x7FFF;
inline constexpr uint16_t log_entry_open_bit = 0x8000; // set in the next entry: not committed
inline constexpr uint16_t log_page_entry_bits = 0x3FFF;
inline constexpr uint8_t log_commit_byte = 0x7F; // written to the high byte of an entry

static_assert(log_slots_offset == 260);
static_assert(log_slots_offset + AFS_FTL_EU_PAGES * page_slot_size == 8180);

constexpr uint32_t log_entry_offset(uint32_t slot) {
    return log_map_offset + slot * log_entry_size;
}

// Where the byte goes that commits everything before an entry.
constexpr uint32_t log_commit_offset(uint32_t entry) {
    return log_entry_offset(entry) + 1;
}

constexpr uint32_t log_slot_offset(uint32_t slot) {
    return log_slots_offset + slot * page_slot_size;
}

// Turns a page number into its log entry and back.
inline uint16_t log_chain(uint16_t last_page, uint32_t page_or_entry) {
    const uint16_t low = crc14_step(crc14_mask, static_cast<uint8_t>(last_page));
    return static_cast<uint16_t>(crc14_step(low, static_cast<uint8_t>(last_page >> 8)) ^
                                 page_or_entry);
}

// ---- Body of a data EU: 122 status bytes, then 122 page slots, full to the last byte.
//
// Slot s holds page va_base + s if and only if its status byte is 0 and the page is in use.
inline constexpr uint32_t data_status_offset = 18;
inline constexpr uint32_t data_slots_offset = data_status_offset + AFS_DATA_EU_PAGES;
inline constexpr uint8_t slot_free = 0xFF;
inline constexpr uint8_t slot_being_written = 0x7F;
inline constexpr uint8_t slot_complete = 0;

static_assert(data_slots_offset + AFS_DATA_EU_PAGES * page_slot_size == AFS_EU_SIZE);

constexpr uint32_t data_slot_offset(uint32_t slot) {
    return data_slots_offset + slot * page_slot_size;
}

} // namespace dolm
