// What the source files of the store share: addresses, the mapping helpers and the operations that
// are internal to the library.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "EFS.h"
#include "common/little_endian.h"
#include "efs/efs_format.h"

extern "C" {

// Reads a block into page_buffer from its start, 16 bytes or, with `whole`, all 4096, until its
// header and, with `check_footer` (needs `whole`), its footer pass. 0, 22, 41 or a physical code.
uint32_t EFS_read_and_verify_data_block_header_and_footer(uint32_t block, uint8_t check_footer,
                                                          uint8_t whole);

// Reads the record at data-area offset `offset` of a logical block, through the mapping in force,
// to the start of page_buffer until it passes its checksum. `length` is the payload of a record
// that is not the file's `first`. 0, 1, 2 if it says no file in a sound block, 22, 41 or a physical
// code.
uint32_t EFS_read_and_verify_file(uint8_t logical, uint16_t offset, uint8_t first, uint16_t length);

} // extern "C"

namespace dolm::efs {

// ---- Geometry ----

inline uint32_t data_block_num() {
    return g_efs_valid_block_num + g_efs_non_valid_block_num;
}

inline uint32_t bme_size() {
    return data_block_num() + bme_overhead;
}

inline uint32_t bm_address(uint32_t index) {
    return index * block_size;
}

inline uint32_t data_block_address(uint32_t block) {
    return (g_efs_bm_num + block) * block_size;
}

inline uint32_t next_bm() {
    return (efs_ctx.current_bm + 1) % g_efs_bm_num;
}

// For a host that sets the geometry variables itself.
inline bool geometry_fits() {
    return block_counts_fit(g_efs_bm_num, g_efs_valid_block_num, g_efs_non_valid_block_num);
}

// Whether a store is mounted whose arrays and image no longer fit the geometry variables.
bool geometry_changed();

// Whether the mapping in force and the arrays of efs_ctx can be used.
inline bool is_mounted() {
    return efs_ctx.initialized != 0 && !geometry_changed();
}

// ---- Image ----

// Makes `image` the one that the device functions work on, with the size that the geometry asks
// for, or what an image of the library's own has of it. Null: no image, size 0.
void hold_image(uint8_t *image);

// ---- Memory ----

struct free_deleter {
    void operator()(void *memory) const { std::free(memory); }
};
using byte_array = std::unique_ptr<uint8_t[], free_deleter>;

// Zeroed, null without memory; no count is too small.
inline byte_array allocate_bytes(uint32_t count) {
    return byte_array(static_cast<uint8_t *>(std::calloc(count + size_t{1}, 1)));
}

// ---- Bytes ----

inline bool is_filled_with(uint8_t value, const uint8_t *bytes, uint32_t length) {
    return bytes[0] == value && std::memcmp(bytes, bytes + 1, length - 1) == 0;
}

inline bool is_erased(const uint8_t *bytes, uint32_t length) {
    return is_filled_with(0xFF, bytes, length);
}

// Reads into `to` until good() accepts what stands there, at most retry_count times. A device that
// reads differently from one time to the next gets all its chances. 0, 41 or a physical code.
template <typename Good>
uint32_t read_until(uint32_t address, uint32_t length, uint8_t *to, Good good) {
    for (uint32_t attempt = 0; attempt < efs_ctx.retry_count; ++attempt) {
        if (const uint32_t status = EFS_physical_read(address, length, to); status != EFS_OK) {
            return status;
        }
        if (good()) {
            return EFS_OK;
        }
    }
    return EFS_BAD_DATA;
}

// ---- Mappings ----

// The bytes of `bme` as they lie on flash, E of them.
void lay_out_bme(const EFS_bme &bme, uint8_t *entry);

// The same with the checksum worked out first, for `bme` too.
void seal_bme(EFS_bme &bme, uint8_t *entry);

// The 16 bytes of a BM header of the geometry in force.
void build_bm_header(uint32_t sequence, uint8_t *header);

// Copies `bme` into the mapping in force.
void adopt_mapping(const EFS_bme &bme);

// A transaction's own mapping. Its maps are zero until it copies the mapping in force.
class working_bme {
  public:
    working_bme() : maps_(allocate_bytes(data_block_num())) {
        bme_.valid_map = maps_.get();
        bme_.non_valid_map = maps_ ? maps_.get() + g_efs_valid_block_num : nullptr;
    }
    explicit operator bool() const { return maps_ != nullptr; }
    EFS_bme *get() { return &bme_; }
    EFS_bme *operator->() { return &bme_; }

    void copy_mapping_in_force() {
        const EFS_bme &current = efs_ctx.current_bme;
        std::memcpy(bme_.valid_map, current.valid_map, g_efs_valid_block_num);
        std::memcpy(bme_.non_valid_map, current.non_valid_map, g_efs_non_valid_block_num);
        bme_.aux0 = current.aux0;
        bme_.aux1 = current.aux1;
        bme_.crc32 = current.crc32;
    }

  private:
    byte_array maps_;
    EFS_bme bme_{};
};

// ---- Blocks and records ----

// The slot of that status whose block has the lowest erase count, the lowest slot on equal counts,
// or N if there is none. A block worn out to 0xFFFFFFFF is never taken.
uint32_t least_worn_slot(uint8_t status);

// Fills in the size field and the checksum of a record whose payload stands already.
void seal_record(uint8_t *record, uint32_t logical, uint32_t size, uint32_t payload_length);

// The checksum that a record should carry, from its size field and payload.
uint16_t record_crc(const uint8_t *record, uint32_t logical, uint32_t payload_length);

// What comes before every change: the scan, if it is due, and a step of wear levelling.
uint32_t prepare_for_change();

} // namespace dolm::efs
