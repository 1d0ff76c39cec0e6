// Shared by the source files of the store: addresses, the mapping helpers and the operations that
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
// header and, with `check_footer` (needs `whole`), its footer pass. EFS_OK, EFS_INVALID,
// EFS_BAD_DATA or a physical code. The store itself calls one of the three below instead.
uint32_t EFS_read_and_verify_data_block_header_and_footer(uint32_t block, uint8_t check_footer,
                                                          uint8_t whole);

// Reads the record at data-area offset `offset` of a logical block, through the mapping in force,
// to the start of page_buffer until it passes its checksum. `length` is the payload of a record
// that is not the file's `first`. EFS_OK, EFS_NOT_MOUNTED, EFS_NO_FILE if it says so in a sound
// block, EFS_INVALID, EFS_BAD_DATA or a physical code.
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

// In 32 bits, whatever the variables are.
inline uint32_t image_size() {
    return data_block_address(data_block_num());
}

inline uint32_t next_bm() {
    return (efs_ctx.current_bm + 1) % g_efs_bm_num;
}

// For a host that sets the geometry variables itself.
inline bool geometry_fits() {
    return efs_block_counts_fit(g_efs_bm_num, g_efs_valid_block_num, g_efs_non_valid_block_num);
}

// Whether a store is mounted whose arrays and image no longer fit the geometry variables. The mount
// notes for which ones they were made.
bool geometry_changed();
void note_mounted_geometry();

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
// reads differently from one time to the next gets all its chances. EFS_OK, EFS_BAD_DATA or a
// physical code.
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

// ---- Writing ----
//
// From here on the functions behind the exported ones of the same sense (EFS.h), which have checked
// arguments and state. The results are those told there, less the ones of these checks.

// One write of `length` bytes (1 to 4096), read back until it equals `data`.
uint32_t write_verified(uint32_t address, uint32_t length, const void *data);

// The same where the target must read as erased before.
uint32_t write_to_erased(uint32_t address, uint32_t length, const void *data);

// ---- Mappings ----

// The bytes of `bme` as they lie on flash, E of them.
void lay_out_bme(const EFS_bme &bme, uint8_t *entry);

// The same with the checksum worked out first, for `bme` too.
void seal_bme(EFS_bme &bme, uint8_t *entry);

// The 16 bytes of a BM header of the geometry in force.
void build_bm_header(uint32_t sequence, uint8_t *header);

// Copies `bme` into the mapping in force.
void adopt_mapping(const EFS_bme &bme);

// Makes `bme` the mapping in force: EFS_commit_BME.
uint32_t commit_bme(EFS_bme &bme, uint32_t aux0, uint32_t aux1);

// Finds next_bm_state by a look at BM `index`: EFS_check_next_BM_state.
uint32_t find_next_bm_state(uint32_t index);

// Invalidates the header of BM `index`, then erases it: EFS_erase_next_BM.
uint32_t erase_bm(uint32_t index);

// A transaction's own mapping. Its maps are zero until it copies the mapping in force.
class working_bme {
  public:
    working_bme() : maps_(allocate_bytes(data_block_num())) {
        bme_.valid_map = maps_.get();
        bme_.non_valid_map = maps_ ? maps_.get() + g_efs_valid_block_num : nullptr;
    }
    explicit operator bool() const { return maps_ != nullptr; }
    EFS_bme &operator*() { return bme_; }
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

// Read a block to page_buffer until it passes: its header alone; all of it, with the header
// checked; all of it, with header and footer checked. EFS_OK, EFS_BAD_DATA or a physical code.
uint32_t read_block_header(uint32_t block);
uint32_t read_spare(uint32_t block);
uint32_t read_block(uint32_t block);

// Write to an erased block: EFS_write_data_block, EFS_bme_swap_and_write_new_block.
uint32_t write_data_block(uint32_t block, const void *data);
uint32_t swap_and_write_new_block(EFS_bme &bme, uint32_t logical, const void *data);

// Erase a block, with its new header: EFS_erase_data_block, EFS_erase_dirty_block.
uint32_t erase_data_block(uint32_t block, uint32_t erase_count);
uint32_t erase_dirty_block();

// EFS_scan_for_Data_Blocks_status_and_EC and EFS_wear_leveling.
uint32_t scan_data_blocks();
uint32_t level_wear(uint32_t aux0, uint32_t aux1);

// The slot of that status whose block has the lowest erase count, the lowest slot on equal counts,
// or N if there is none. A block worn out to 0xFFFFFFFF is never taken.
uint32_t least_worn_slot(uint8_t status);

// Fills in the size field and the checksum of a record whose payload stands already.
void seal_record(uint8_t *record, uint32_t logical, uint32_t size, uint32_t payload_length);

// The checksum that a record should carry, from its size field and payload.
uint16_t record_crc(const uint8_t *record, uint32_t logical, uint32_t payload_length);

// Comes before every change: the scan, if it is due, and a step of wear levelling.
uint32_t prepare_for_change();

} // namespace dolm::efs
