// AFS: a store of numbered files on a flash image. A file is a slot in an array of 16-bit entries,
// the FAT, and a chain through that array of 64-byte chunks. A chunk on the flash is never changed:
// a write puts the new contents into new chunks and switches the file over with one last FAT entry,
// so that a power cut at any moment leaves the old file or the new one.
//
// A cid numbers an entry of the FAT: below file_count a file, from there on a chunk.
//
// Results are AFS_RC_ numbers (AfsFtl.h). Every operation answers AFS_RC_INVALID for a null
// context, for one that holds no mounted store (also where the translation layer below it was
// mounted again and failed), and for a null pointer where bytes or a value would go; the two that
// give a truth value then answer 0, those that give nothing do nothing. "From below" stands for a
// result of the page cache or the flash translation layer, most often AFS_RC_IO.
//
// One store per context, one operation at a time in the whole process.
#ifndef DOLM_AFS_H
#define DOLM_AFS_H

#include <cstdint>

#include "AfsCache.h"
#include "AfsFtl.h"
#include "dolm_api.h"

// Flags of afs_init. Bit 0x2 must be clear. AFS_FLAG_ATTACH_DEVICE, also one of them, is passed on
// to afs_physical_ftl_init (AfsFtl.h).
constexpr uint32_t AFS_FLAG_FILE_SIZES = 0x1;          // keep file_sizes
constexpr uint32_t AFS_FLAG_FTL = 0x4;                 // must be set
constexpr uint32_t AFS_FLAG_NO_CHUNK_MAP = 0x8;        // read only: no chunk map
constexpr uint32_t AFS_FLAG_CREATE_FS = 0x10;          // no header found: write one
constexpr uint32_t AFS_FLAG_MOUNT_FTL = 0x20;          // else the context's mounted FTL is used
constexpr uint32_t AFS_FLAG_ZERO_CONTEXT = 0x40;       // forget what the context holds
constexpr uint32_t AFS_FLAG_PRELOAD_CACHE = 0x80;      // fill the cache at the end
constexpr uint32_t AFS_FLAG_FORCE_FORMAT = 0x100;      // format in any case, and create
constexpr uint32_t AFS_FLAG_FORMAT_IF_BAD = 0x40000;   // format, without erase, what is bad
constexpr uint32_t AFS_FLAG_ERASE_ON_FORMAT = 0x80000; // the same, with erase

// Flag of afs_writefile: the file ends where the write ends.
constexpr uint32_t AFS_WRITE_TRUNCATE = 0x1;

constexpr uint32_t AFS_MAX_FILE_SIZE = 262144;    // bytes
constexpr uint32_t AFS_NO_FILE_SIZE = 0xFFFFFFFF; // entry of file_sizes without a file
constexpr uint32_t AFS_FILE_BUFFER_SIZE = 4096;   // bytes at afs_context::file_buffer

// Bounds of the arguments of afs_init and afs_setcache.
constexpr uint32_t AFS_MIN_CACHE_LINES = 2;
constexpr uint32_t AFS_MAX_CACHE_LINES = 1000;
constexpr uint32_t AFS_MIN_FILE_COUNT = 65; // below, byte counts and cids would collide
constexpr uint32_t AFS_MAX_FILE_COUNT = 2048;
constexpr uint32_t AFS_MIN_DEVICE_SIZE = 32768;
constexpr uint32_t AFS_MAX_DEVICE_SIZE = 2097152;

DOLM_EXTERN_C_BEGIN

// ---- Mount.

// Mounts the store in `size` bytes (32768 to 2097152) at `device_offset` of the image. The caller
// has cleared the context before its first use, owns it and the image, and gives it a file_buffer
// of AFS_FILE_BUFFER_SIZE bytes for reads. Pages of the cache have `page_size` bytes (a multiple of
// 64 up to 65535; only 64 fits the pages of the flash translation layer), `cache_lines` of them (2
// to 1000). The image may be null if it is attached already. A store that has a header defines its
// own file count and sizes; `file_count` (65 to 2048) and the version values (8 and 12 bits) only
// go into a header that is created.
//   AFS_RC_OK        mounted
//   AFS_RC_IO        no store, or a damaged one: mount failed without a format flag, no header
//                    without a flag to create one, a header with impossible numbers, a bad FAT
//                    entry or a loop in a chain, a live chunk that is not complete on the flash
//   AFS_RC_NO_MEMORY no memory
//   AFS_RC_INVALID   an argument or the flags are wrong, or no FTL to go on with
// or from below. After a failure the context holds no mounted store, and afs_free_context releases
// what was allocated. Without a format or create flag nothing is written but the cleared slots of
// zombies, and those only when the cache replaces or flushes their page.
DOLM_API uint32_t afs_init(afs_context *context, void *image, uint32_t page_size,
                           uint32_t cache_lines, uint32_t file_count, uint32_t device_offset,
                           uint32_t size, uint32_t flags, uint8_t version_low,
                           uint32_t version_high);

// Replaces the cache, after writing what is dirty; bounds as for afs_init. Only a page_size of 64
// works over the flash translation layer: of a longer line it fills the first 64 bytes, the others
// read as zeros and are never written. AFS_RC_OK; AFS_RC_INVALID; or what cache_init gives: after
// AFS_RC_NO_MEMORY the store is no longer mounted, otherwise the old cache stays.
DOLM_API uint32_t afs_setcache(afs_context *context, int32_t page_size, int32_t cache_lines);

// Releases all that the context owns; what is dirty in the cache is lost. The context itself,
// file_buffer and image stay the caller's.
DOLM_API void afs_free_context(afs_context *context);

// ---- Chunks and chains.

// Hands out a free chunk, as its cid. Results as of afs_physical_ftl_allocate_page: AFS_RC_OK;
// AFS_RC_FLUSH_FIRST, call cache_flush and then this again; AFS_RC_NO_SPACE; from below;
// AFS_RC_BAD_STATE without a chunk map.
DOLM_API uint32_t afs_allocate_chunk(afs_context *context, uint16_t *cid);

// Takes note of a chunk (0 to chunk_count, without file_count) that is free. When the chunks given
// leave a page of the FAT, that page is given up if it covers only free chunks. chunk_count closes
// a row of chunks.
DOLM_API void afs_trim_fat_page_if_needed(afs_context *context, uint16_t chunk);

// Reads the FAT entry of a cid into `value`, also if the result is then AFS_RC_IO: the entry is not
// valid there, or more chunks were looked up since the last file slot than the store has, so that
// the chain is a loop. AFS_RC_OK; AFS_RC_IO, also for a cid past the FAT, with `value` unchanged;
// from below.
DOLM_API uint32_t afs_get_next_cid(afs_context *context, uint16_t cid, uint16_t *value);

// Frees up to `count` chunks, beginning with the cid `first`; 64 or less is no chunk and ends the
// row. The others come from `cids` (count - 1 entries), or if that is null from the chain on the
// flash. With `invalidate` the cache is dropped first. Writes nothing: FAT entries stay as they are
// and no chain reaches them. AFS_RC_OK; AFS_RC_IO for a cid that is no chunk; from below, with the
// rest not freed; AFS_RC_BAD_STATE without a chunk map.
DOLM_API uint32_t afs_release_resources(afs_context *context, uint16_t first, uint32_t count,
                                        const uint16_t *cids, bool invalidate);

// ---- Files. `file` is the number of a slot, below file_count; any other gives AFS_RC_INVALID.

// AFS_RC_OK and the size in bytes; AFS_RC_NO_FILE for no such file; from below.
DOLM_API uint32_t afs_getfilesize(afs_context *context, int32_t file, uint32_t *size);

// Reads up to `*length` bytes (below 2 GiB) from `offset` on and sets `*length` to what the file
// holds of them, 0 behind its end. AFS_RC_OK; AFS_RC_NO_FILE for no such file; from below, with
// `*length` unchanged and the buffer undefined.
DOLM_API uint32_t afs_readfile(afs_context *context, int32_t file, uint32_t offset,
                               uint32_t *length, void *buffer);

// Writes `length` bytes at `offset`, creates the file if it does not exist, and fills a gap behind
// its old end with zeros. With AFS_WRITE_TRUNCATE the file ends at offset + length; otherwise the
// rest of it stays. A length of 0 without that flag only creates.
//   AFS_RC_OK        written, and on the flash
//   AFS_RC_IO        damaged chain, or a device failure
//   AFS_RC_NO_MEMORY no memory
//   AFS_RC_TOO_LARGE offset, length or their sum is above AFS_MAX_FILE_SIZE
//   AFS_RC_NO_SPACE  no room
//   AFS_RC_BAD_STATE the store has no chunk map
// or from below. After any failure the old file stands, with one exception: a failure to free the
// old chunks is reported although the new file is complete; they are free after the next mount.
DOLM_API uint32_t afs_writefile(afs_context *context, int32_t file, uint32_t offset,
                                uint32_t length, const void *data, uint32_t flags);

// Deletes a file, an empty one or a zombie. AFS_RC_OK; AFS_RC_NO_FILE for no such file;
// AFS_RC_BAD_STATE without a chunk map; from below: the file stands, or it is gone and some of its
// chunks are only free after the next mount.
DOLM_API uint32_t afs_deletefile(afs_context *context, int32_t file);

// Marks a free number on the flash, so that the slot is in use although no file exists: a zombie.
// Reads and sizes see no file, a write or a delete ends it, and so does the next mount. AFS_RC_OK;
// AFS_RC_BAD_STATE if the slot is not free or there is no chunk map; from below, with nothing
// marked.
DOLM_API uint32_t afs_mark_zombie_file(afs_context *context, uint32_t file);

// Releases file_sizes; sizes are then found in the chains.
DOLM_API void afs_free_file_size_table(afs_context *context);

// ---- Maintenance.

// Does one reclaim that is worth it in idle time: afs_physical_ftl_idle_reclaim.
DOLM_API uint32_t afs_idle_reclaim(afs_context *context);

// 1 if there is such a reclaim to do, else 0.
DOLM_API uint32_t afs_idle_reclaim_needed(afs_context *context);

// A mark for the host, without effect on any operation: 1 once it was set. It can't be cleared.
DOLM_API uint32_t afs_get_idle_reclaim_enabled(afs_context *context);
DOLM_API void afs_set_idle_reclaim_enabled(afs_context *context);

// One step of a reclaim of all data EUs: afs_physical_ftl_force_full_reclaim. AFS_RC_AGAIN: call
// again.
DOLM_API uint32_t afs_force_full_reclaim(afs_context *context);

// Overwrites dead data with zeros: afs_physical_ftl_force_dirty_erase.
DOLM_API uint32_t afs_force_dirty_erase(afs_context *context);

DOLM_EXTERN_C_END

#endif
