// Paths in front of the storage dispatch (dfs.h). The file table must be loaded.
#ifndef DOLM_MINI_VFS_H
#define DOLM_MINI_VFS_H

#include <cstdint>

#include "dolm_api.h"

DOLM_EXTERN_C_BEGIN

// Builds the file number of a path, which must be the full name in the file table. 0; 1 for a null
// number_out; 2 if the file table does not know the path.
DOLM_API uint32_t pathToFileNumber(const char *path, uint32_t *number_out);

// Reads up to length bytes from offset of the file of that path into buffer. 0; 2 if the file table
// does not know the path; 6 for every failed read. How much was read is not told.
DOLM_API uint32_t readVfs(const char *path, uint32_t offset, void *buffer, uint32_t length);

// dfs_init: 0, or 1 if that failed.
DOLM_API uint32_t mini_vfs_init(void *image, uint32_t size);

DOLM_EXTERN_C_END

#endif
