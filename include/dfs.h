// Storage dispatch: one door to the two flash file stores. A file number says which store holds a
// file; the store's result is folded to a few codes.
//
// File number, a 32-bit word:
//   bits 0-10   file id inside its store
//   bits 11-12  store selector: 0 AFS, 2 EFS; 1 and 3 are invalid
//   bits 13-27  zero for a well-formed file table; handed on to the store
//   bits 28-31  class nibble, not handed on
// pathToFileNumber (miniVfs.h) builds it from a path.
#ifndef DOLM_DFS_H
#define DOLM_DFS_H

#include <cstdint>

#include "AfsFtl.h"
#include "dolm_api.h"

DOLM_EXTERN_C_BEGIN

// Status of the operations below; AFS's own where one says so (Afs.h).
constexpr uint32_t DFS_OK = 0;
constexpr uint32_t DFS_NO_SUCH_FILE = 2;
constexpr uint32_t DFS_IO_ERROR = 5;
constexpr uint32_t DFS_OUT_OF_MEMORY = 12;
constexpr uint32_t DFS_INVALID_ARGUMENT = 22;
constexpr uint32_t DFS_FILE_TOO_LARGE = 27;
constexpr uint32_t DFS_NO_SPACE = 28;
constexpr uint32_t DFS_NO_CONTEXT = 0xFFFFFFFF;

// The one AFS store; null until dfs_init has run. Allocated once, kept for the life of the process.
// A start-up of the front end (qoqfs.h) leaves no store in it unless it mounts one itself.
extern DOLM_API afs_context *dfs_context;

// Part of the surface for other components; the library neither reads nor writes it.
extern DOLM_API uint8_t dfs_reset_needed;

// Mounts AFS in place on an image of size bytes, which stays the caller's and must stay valid and
// writable while the store is in use. What an earlier call mounted is released first.
// DFS_OK; DFS_NO_CONTEXT or DFS_OUT_OF_MEMORY without memory; otherwise the status of afs_init, the
// context then holding no mounted store.
DOLM_API uint32_t dfs_init(void *image, uint32_t size);

// DFS_OK; changes nothing.
DOLM_API uint32_t dfs_terminate(void);

// 0 always.
DOLM_API uint32_t dfs_is_fs_erased(void);

// Stores the size in bytes of a file of either store. DFS_OK, DFS_NO_SUCH_FILE (also for any number
// before the first dfs_init), DFS_INVALID_ARGUMENT (selector, file id, null pointer), DFS_IO_ERROR
// for everything else.
DOLM_API uint32_t dfs_getsize(uint32_t file, uint32_t *size_out);

// Reads up to *length bytes from offset into buffer and sets *length to what was read. DFS_OK,
// DFS_NO_SUCH_FILE (also for an EFS file while EFS is not mounted), DFS_INVALID_ARGUMENT,
// DFS_IO_ERROR for everything else. After a failure buffer is undefined, and *length is unchanged,
// or 0 if EFS was asked.
DOLM_API uint32_t dfs_read(uint32_t file, uint32_t offset, uint32_t *length, void *buffer);

// Writes length bytes at offset. flags go to AFS alone (AFS_WRITE_TRUNCATE); EFS takes offset 0
// only and replaces the whole file. DFS_OK, DFS_INVALID_ARGUMENT, DFS_FILE_TOO_LARGE, DFS_NO_SPACE,
// DFS_IO_ERROR for everything else. After a failure the old file stands, with the one exception of
// afs_writefile: AFS has the new file but could not free the old one.
DOLM_API uint32_t dfs_write(uint32_t file, uint32_t offset, uint32_t length, const void *data,
                            uint32_t flags);

// Deletes an AFS file; the class nibble must be clear. DFS_OK, DFS_NO_SUCH_FILE,
// DFS_INVALID_ARGUMENT (also for every other store), DFS_IO_ERROR for everything else.
DOLM_API uint32_t dfs_delete_file(uint32_t file);

// The AFS operation of the same name on dfs_context, with its results; file is not masked.
DOLM_API uint32_t dfs_mark_zombie_file(uint32_t file);
DOLM_API uint32_t dfs_force_full_reclaim(void);
DOLM_API uint32_t dfs_force_dirty_erase(void);
DOLM_API uint32_t dfs_get_idle_reclaim_enabled(void);
DOLM_API void dfs_set_idle_reclaim_enabled(void); // only ever switches on
DOLM_API uint32_t dfs_idle_reclaim(void);
DOLM_API uint32_t dfs_idle_reclaim_needed(void);

// Replaces AFS's page cache by 8 KiB of lines of page_size bytes (afs_setcache, with its results);
// DFS_INVALID_ARGUMENT for 0.
DOLM_API uint32_t dfs_set_page_size(uint32_t page_size);

DOLM_EXTERN_C_END

#endif
