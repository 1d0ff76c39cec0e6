// EFS: a transactional store for a fixed list of files on 4096-byte blocks.
//
// A file has a fixed place in logical blocks. What moves is the physical block behind a logical
// one: a change writes the new content of each logical block that it touches to a spare block and
// then appends one block-map entry (BME) with the whole new mapping. Until that entry has landed
// the old mapping, and so every old file, is in force.
//
// V, N and E stand for g_efs_valid_block_num, g_efs_non_valid_block_num and V + N + 12, the size
// of a BME. A physical code is a failure of the device functions (EFS_phy_win32.h), EFS_INVALID as
// long as no other device stands in their place. No function may be called while another is under
// way.
//
// Every function that works on a mounted store returns EFS_NOT_MOUNTED if the store is not
// mounted, and also if the geometry variables have changed since the mount.
#ifndef DOLM_EFS_H
#define DOLM_EFS_H

#include <stdint.h>

#include "EFS_phy_win32.h"
#include "dolm_api.h"
#include "efs_tools_utils.h"

// Results of the EFS functions.
constexpr uint32_t EFS_OK = 0;
constexpr uint32_t EFS_NOT_MOUNTED = 1;        // not mounted, no geometry loaded, or no image
constexpr uint32_t EFS_NO_FILE = 2;            // the file's record says that it does not exist
constexpr uint32_t EFS_SEQUENCE_EXHAUSTED = 5; // the BM sequence cannot grow any more
constexpr uint32_t EFS_LOOK_AGAIN = 11;        // inside the mount only: read the BM again
constexpr uint32_t EFS_NO_MEMORY = 12;         // an allocation failed
constexpr uint32_t EFS_INVALID = 22;           // invalid argument or address
constexpr uint32_t EFS_NO_SPACE = 28;          // more spare blocks needed than there are
constexpr uint32_t EFS_OUT_OF_RANGE = 34;      // a length or offset outside the file's limits
constexpr uint32_t EFS_BAD_DATA = 41;          // data failed verification, or no usable BM
constexpr uint32_t EFS_BAD_FILE_OFFSET = 99;   // at format: a file's offset exceeds 4072

// Values of efs_ctx.next_bm_state.
constexpr uint8_t EFS_NEXT_BM_UNKNOWN = 0;
constexpr uint8_t EFS_NEXT_BM_ERASED = 1;
constexpr uint8_t EFS_NEXT_BM_NEEDS_ERASE = 2;

// Values in efs_ctx.block_status.
constexpr uint8_t EFS_BLOCK_DIRTY = 1; // stale data or a failed write: erase before use
constexpr uint8_t EFS_BLOCK_FREE = 2;  // erased, with a good header

// A block map in memory.
struct EFS_bme {
    uint8_t *valid_map;     // V physical block numbers, one for each logical block
    uint8_t *non_valid_map; // N physical block numbers, one for each slot of the spare pool
    uint32_t aux0;          // carried, never interpreted
    uint32_t aux1;
    uint32_t crc32; // over the entry as it lies on flash
};

// The state of the one store. Zeroed at each mount.
struct efs_ctx {
    uint8_t initialized;         // 1 after a successful mount
    uint8_t page_buffer[4096];   // working copy of a block, or of a file record at its start
    uint8_t verify_buffer[4096]; // target of read-backs and erased-state checks
    uint32_t retry_count;        // read attempts of every verifying loop: 7 from the mount on
    uint8_t bm_switch_pending;   // 1: the next commit must go to a new BM
    uint32_t current_bm;         // index of the BM in force
    uint32_t bm_sequence;        // its sequence number
    uint8_t next_bm_state;       // EFS_NEXT_BM_*: what is known of the next BM of the ring
    uint32_t *erase_counts;      // V + N entries by physical block, good while scan_done is 1
    uint32_t bme_offset;         // bytes into the BM in force: the last committed BME
    struct EFS_bme current_bme;  // the mapping in force
    uint32_t free_block_count;   // number of slots with status EFS_BLOCK_FREE
    uint8_t *block_status;       // N entries by non-valid slot, good while scan_done is 1
    uint8_t scan_done;           // 1 once erase_counts and block_status are good
};

DOLM_EXTERN_C_BEGIN

// The library owns the arrays inside; they are replaced at the next mount.
extern DOLM_API struct efs_ctx efs_ctx;

// ---- Checksums ----

// Byte table of the reflected CRC-32 polynomial 0xEDB88320.
extern DOLM_API const uint32_t gCrc32_table[256];
// Byte table of the CCITT polynomial 0x1021, most significant bit first.
extern DOLM_API const uint16_t gCrc16_table[256];

// Continue a checksum from `seed` over `length` bytes; no inversion before or after. A length of 0
// or null data gives the seed. The 16-bit one comes in the low half of the result.
DOLM_API uint32_t EFS_crc16(uint16_t seed, const void *data, uint32_t length);
DOLM_API uint32_t EFS_crc32(uint32_t seed, const void *data, uint32_t length);

// ---- Mount and format ----

// Mounts the host's image in place. `image` must hold EFS_get_efs_size() bytes and stay valid while
// the store is in use; the library never frees it. Nothing is written. Results as EFS_init(0), and
// EFS_INVALID for a null image.
DOLM_API uint32_t EFS_init_tools(void *image);

// Mounts the store on efs_image; with `format` not 0, on a new, freshly formatted image of the
// library's own. A store that was mounted is dropped first, with its arrays.
//   EFS_OK          mounted
//   EFS_NOT_MOUNTED no geometry loaded, or no image
//   EFS_NO_MEMORY
//   EFS_BAD_DATA    no usable BM or BME, an image of another geometry, or geometry variables that
//                   no image can have (each count at most 255, V + N from 2 to 256)
//   or a physical code; with format also what EFS_do_format gives
// After a failure the store is not mounted; without format the image is untouched, and it is held
// with the size of EFS_get_efs_size().
DOLM_API uint32_t EFS_init(uint8_t format);

// Formats the image: every block erased, erase counts 1, an empty record for each file of the list.
// A mount must follow. EFS_init must have been called before, whatever its result.
//   EFS_OK
//   EFS_NOT_MOUNTED      no geometry is loaded, or it has changed under a mounted store
//   EFS_NO_MEMORY
//   EFS_BAD_DATA         a write failed its verification, or no image can have this geometry
//   EFS_BAD_FILE_OFFSET  a file's offset exceeds 4072
//   or a physical code. A failed format leaves no BM header, so the image does not mount.
DOLM_API uint32_t EFS_do_format(void);

// Finds the erase count of every block and the state of every spare, and repairs the one spare that
// may have been caught in an erase. EFS_write, EFS_delete and EFS_idle_reclaim call it when needed.
// EFS_OK, EFS_BAD_DATA for a valid block or more than one spare without a good header, or a
// physical code; scan_done is set only by success.
DOLM_API uint32_t EFS_scan_for_Data_Blocks_status_and_EC(void);

// Bytes of an image of the geometry in force now: all blocks times 4096.
DOLM_API uint32_t EFS_get_efs_size(void);

// efs_ctx.initialized.
DOLM_API uint8_t EFS_is_initialized(void);

// ---- Files: `file` is a slot of EFS_files ----
//
// All four return EFS_NOT_MOUNTED, and EFS_INVALID for a slot that is too high, not present or
// placed beyond offset 4072, or for a null pointer. EFS_BAD_DATA is data that failed its checksums
// in all read attempts. Any of them may also return a physical code.

// Stores the file's length in bytes in *size_out.
// EFS_OK, EFS_NO_FILE, or EFS_BAD_DATA, also for a length above max_size.
DOLM_API uint32_t EFS_get_file_size(uint32_t file, uint32_t *size_out);

// Reads *length bytes from byte `offset` on into `buffer`; *length becomes the number delivered,
// which is less where the file ends, and 0 after every failure. Writes nothing to the image.
// EFS_OK, EFS_NO_FILE, EFS_INVALID also if offset + *length overflows, EFS_OUT_OF_RANGE if `offset`
// is beyond the end, or EFS_BAD_DATA, also for a file that runs past the last block.
DOLM_API uint32_t EFS_read(uint32_t file, uint32_t offset, uint32_t *length, void *buffer);

// Replaces the whole content of the file by `length` bytes of `data`. `offset` must be 0.
//   EFS_OK                 done: the new content is in force
//   EFS_SEQUENCE_EXHAUSTED the store would have to switch BM and cannot
//   EFS_NO_MEMORY
//   EFS_INVALID            also for a file that runs past the last logical block
//   EFS_NO_SPACE           the file takes more blocks than the store has spares
//   EFS_OUT_OF_RANGE       `length` is above max_size, or 0xFFFF
//   EFS_BAD_DATA           also if a write fails its verification
// After a failure the old content is in force, whole; spares may have been spent or erased.
DOLM_API uint32_t EFS_write(uint32_t file, uint32_t offset, uint32_t length, const void *data);

// Makes the file absent. EFS_OK, EFS_NO_FILE if it is so already, EFS_NO_SPACE without any spare,
// or EFS_SEQUENCE_EXHAUSTED, EFS_NO_MEMORY, EFS_INVALID or EFS_BAD_DATA as for a write. After a
// failure the file is in force as before.
DOLM_API uint32_t EFS_delete(uint32_t file);

// ---- Wear levelling and idle work ----

// If the most worn spare is ahead of the least worn valid block by g_efs_wear_leveling_threshold or
// more, moves that block's data onto that spare: at most one move. Needs scan_done. aux0 and aux1
// go to EFS_commit_BME. EFS_OK also if there was nothing to do; otherwise its results.
DOLM_API uint32_t EFS_wear_leveling(uint32_t aux0, uint32_t aux1);

// Erases the least worn dirty spare. Needs scan_done. EFS_OK, EFS_BAD_DATA, also if none can be
// erased, or a physical code.
DOLM_API uint32_t EFS_erase_dirty_block(void);

// One bounded step of housekeeping, for a host with nothing else to do: makes the next BM ready
// once the one in force is well filled; otherwise a wear-levelling move and the erase of a dirty
// spare, where called for. EFS_OK, or the results of the scan, of EFS_wear_leveling and of
// EFS_erase_dirty_block.
DOLM_API uint32_t EFS_idle_reclaim(void);

// ---- Block maps: the ring of BMs ----

// Moves the store to the next BM, with `bme` (maps, aux words and crc32 final) as its first entry.
//   EFS_OK
//   EFS_SEQUENCE_EXHAUSTED
//   EFS_NO_MEMORY
//   EFS_INVALID  a null pointer, or a map entry that is no block
//   EFS_BAD_DATA a write failed its verification, or there is only one BM
//   or a physical code. After a failure the old BM stays in force.
DOLM_API uint32_t EFS_switch_BM(const struct EFS_bme *bme);

// Reads BM `index` and sets efs_ctx.next_bm_state to erased or to needs-erasing.
// EFS_OK, EFS_NOT_MOUNTED if the geometry changed under a mounted store, EFS_INVALID if there is no
// such BM, or a physical code; the state then stays.
DOLM_API uint32_t EFS_check_next_BM_state(uint32_t index);

// Invalidates the header of BM `index` and erases it; next_bm_state becomes unknown.
// EFS_OK, EFS_NOT_MOUNTED if the geometry changed under a mounted store, EFS_INVALID if there is no
// such BM (nothing changes), or a physical code.
DOLM_API uint32_t EFS_erase_next_BM(uint32_t index);

// Writes the marker "RDFS" over the first four bytes of the image, so that BM 0 does not count at
// the next mount. EFS_OK, EFS_NOT_MOUNTED without an image or if the geometry changed under a
// mounted store, or a physical code.
DOLM_API uint32_t EFS_write_RTFD_marker(void);

// Makes `bme` the mapping in force: appends it to the BM in force, or switches BM where it has no
// room or its next slot cannot be trusted. Stores aux0, aux1 and the checksum in `bme`.
// Results as for EFS_switch_BM. After a failure the old mapping is in force.
DOLM_API uint32_t EFS_commit_BME(struct EFS_bme *bme, uint32_t aux0, uint32_t aux1);

// Wipes the BMs, and so the whole store; data blocks stay. The store is not mounted afterwards.
// EFS_OK, EFS_NOT_MOUNTED without an image or if the geometry changed under a mounted store, or a
// physical code.
DOLM_API uint32_t EFS_erase(void);

// ---- Data blocks: `block` is a physical block number, `data` the 4076 bytes of a data area ----
//
// These return EFS_NOT_MOUNTED if the geometry changed under a mounted store, EFS_INVALID for a
// block beyond the last one or a null pointer, EFS_BAD_DATA if what was written does not read back
// or its target was not erased, or a physical code.

// The one way of writing to flash: with `check_erased` the target must read as erased; then one
// write of `length` bytes (at most 4096, else EFS_BAD_DATA) at image offset `address`, read back
// until it equals `data`.
DOLM_API uint32_t EFS_write_with_read_check(uint32_t address, uint32_t length, const void *data,
                                            uint8_t check_erased);

// Stores the free slot with the least worn block in *slot_out; needs scan_done. EFS_OK,
// EFS_NOT_MOUNTED also if nothing is mounted, EFS_INVALID for null, EFS_BAD_DATA if there is none.
DOLM_API uint32_t EFS_select_free_page_for_write(uint32_t *slot_out);

// Writes data area and footer of an erased block.
DOLM_API uint32_t EFS_write_data_block(uint32_t block, const void *data);
// Writes the footer alone: the checksum of `data`.
DOLM_API uint32_t EFS_write_data_footer(uint32_t block, const void *data);

// Writes `data` to the least worn free block and, in `bme` alone, swaps that block with the one
// behind `logical`. The spent slot counts as dirty, whatever the result; needs scan_done.
// Also EFS_INVALID for a `logical` that is too high and EFS_NOT_MOUNTED if nothing is mounted;
// `bme` then stays as it was.
DOLM_API uint32_t EFS_bme_swap_and_write_new_block(struct EFS_bme *bme, uint32_t logical,
                                                   const void *data);

// Erases the block and gives it a header with `erase_count` + 1; efs_ctx keeps its counts and
// states, which are the caller's to bring up to date. A failure clears scan_done.
DOLM_API uint32_t EFS_erase_data_block(uint32_t block, uint32_t erase_count);

DOLM_EXTERN_C_END

#endif
