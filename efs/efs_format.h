// The bytes of an EFS image. All integers are little-endian, all offsets and sizes are bytes.
//
//   image         BM 0 .. BM (bm_num - 1), then physical data blocks 0 .. V + N - 1
//   BM            header (16), then BMEs (E each) one behind the other, then 0xFF
//   BME           valid map (V), non-valid map (N), aux0 (4), aux1 (4), crc32 (4)
//   data block    header (16), data area (4076), footer (4)
//
// A BM counts if its header passes its checksum and is neither all 0xFF (erased) nor all zero
// (retired; the checksum of zeros is zero). Of the BMs that count the one with the highest sequence
// is in force, and of its BMEs the last one that passes its checksum, but at most one step back
// from the last that is not erased.
#pragma once

#include <cstdint>

#include "common/little_endian.h"
#include "fcs/file_table.h"

namespace dolm::efs {

inline constexpr uint32_t block_size = 4096; // the erase unit

// ---- BM header ----

namespace bm_header {
inline constexpr uint32_t version = 0;              // u16, 1
inline constexpr uint32_t sku_id = 2;               // u16, not compared at the mount
inline constexpr uint32_t sequence = 4;             // u32, 1 at format, one more at each switch
inline constexpr uint32_t bm_num = 8;               // u8
inline constexpr uint32_t valid_block_num = 9;      // u8
inline constexpr uint32_t non_valid_block_num = 10; // u8
inline constexpr uint32_t layout_id = 11;           // u8
inline constexpr uint32_t crc32 = 12;               // u32 over bytes 0-11; zeroed before an erase
inline constexpr uint32_t size = 16;
} // namespace bm_header

inline constexpr uint16_t bm_version = 1;

// ---- BMEs ----

inline constexpr uint32_t first_bme = bm_header::size; // offset of the first slot of a BM
inline constexpr uint32_t bme_overhead = 12;           // aux0, aux1 and crc32 behind the maps
inline constexpr uint32_t bme_limit = 4095;            // a slot must end at or before this offset

// The largest entry still leaves room for two, so every BM has a slot behind its first.
static_assert(first_bme + 2 * (max_efs_data_blocks + bme_overhead) <= bme_limit);

// ---- Data blocks ----

namespace block_header {
inline constexpr uint32_t erase_count = 0; // u32, 1 after format; bytes 4-11 are zero
inline constexpr uint32_t crc32 = 12;      // u32 over bytes 0-11; zeroed before an erase
inline constexpr uint32_t size = 16;
} // namespace block_header

inline constexpr uint32_t data_area = block_header::size; // offset in the block
inline constexpr uint32_t data_area_size = 4076;
inline constexpr uint32_t footer = data_area + data_area_size; // u32: crc32 of the data area
inline constexpr uint32_t footer_size = 4;
static_assert(footer + footer_size == block_size);

// ---- File records, inside a data area ----
//
// A file's first record lies at its offset in its first block; where it goes on, a record lies at
// offset 0 of each further block. A record is good if its crc16, seeded with the logical block
// number, matches over the size field and the payload. The payload's length is not stored: it
// follows from the file's length, and is 0 for a file that does not exist.

namespace file_record {
inline constexpr uint32_t size = 0;  // u16: file length, or no_file; no_file in further records
inline constexpr uint32_t crc16 = 2; // u16
inline constexpr uint32_t payload = 4;
} // namespace file_record

inline constexpr uint32_t no_file = 0xFFFF;
// Payload bytes of a record at offset 0. A record at offset f has f fewer, so f is at most this.
inline constexpr uint32_t record_room = data_area_size - file_record::payload;

} // namespace dolm::efs
