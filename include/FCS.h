// Configuration store: the record of one file. docs/formats.md tells the bytes of a store.
#ifndef FCS_H
#define FCS_H

#include <cstddef>
#include <cstdint>

#include "dolm_api.h"
#include "efs_tools_utils.h"

#pragma pack(push, 1)

// Record of one file of a store. The same 12 little-endian bytes serve in a serialised store and
// in front of a file's payload in memory.
struct _cfg_file_entry_t {
    fileno_t fileno; // key into the file table
    uint32_t offset; // where the payload starts in the serialised store, in bytes
    uint16_t size;   // payload length in bytes
    uint16_t opaque; // kept and written back unchanged
};

#pragma pack(pop)

static_assert(sizeof(_cfg_file_entry_t) == 12);
static_assert(offsetof(_cfg_file_entry_t, fileno) == 0);
static_assert(offsetof(_cfg_file_entry_t, offset) == 4);
static_assert(offsetof(_cfg_file_entry_t, size) == 8);
static_assert(offsetof(_cfg_file_entry_t, opaque) == 10);

#endif
