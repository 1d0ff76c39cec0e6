// The flash translation layer of AFS: a flat virtual address space (VA) of 64-byte pages over a
// device of 8192-byte erase units (EU).
//
// Pages below data_va_start are kept in a log: each write appends a copy and commits it with one
// byte. Pages from data_va_start up to total_va_size are data pages: each has one fixed slot in one
// EU, written once between two reclaims of that EU. One EU is always the spare, the only one that
// is ever erased. A mount rebuilds everything from the flash and writes nothing.
//
// Every operation answers AFS_RC_INVALID for a null context, for one that holds no mounted store,
// and for a null pointer where bytes or a value would go; those that return no status say what they
// give.
#ifndef DOLM_AFS_FTL_H
#define DOLM_AFS_FTL_H

#include <cstdint>

#include "dolm_api.h"

// Status numbers of all AFS operations.
constexpr uint32_t AFS_RC_OK = 0;
constexpr uint32_t AFS_RC_NO_FILE = 2;
constexpr uint32_t AFS_RC_IO = 5; // input or output failure, or damaged data
constexpr uint32_t AFS_RC_AGAIN = 11;
constexpr uint32_t AFS_RC_NO_MEMORY = 12;
constexpr uint32_t AFS_RC_INVALID = 22;
constexpr uint32_t AFS_RC_TOO_LARGE = 27;
constexpr uint32_t AFS_RC_NO_SPACE = 28;
constexpr uint32_t AFS_RC_BAD_STATE = 99;
constexpr uint32_t AFS_RC_NOT_RECLAIMED = 0x9797; // reclaim done and valid, nothing gained
constexpr uint32_t AFS_RC_FLUSH_FIRST = 0xFFFD;   // flush the cache, then allocate again

// Flags of afs_physical_ftl_init.
constexpr uint32_t AFS_FTL_ALLOCATE_TABLES = 0x10000;
constexpr uint32_t AFS_FLAG_ATTACH_DEVICE = 0x20000;

// Geometry that every store shares.
constexpr uint32_t AFS_PAGE_SIZE = 64;
constexpr uint32_t AFS_EU_SIZE = 8192;
constexpr uint32_t AFS_FTL_EU_PAGES = 120;  // page slots of a log EU
constexpr uint32_t AFS_DATA_EU_PAGES = 122; // page slots of a data EU
constexpr uint32_t AFS_DATA_EU_BYTES = AFS_DATA_EU_PAGES * AFS_PAGE_SIZE;
constexpr uint32_t AFS_MAX_EU_COUNT = 255;

// "No EU" and "no chunk" in 32-bit fields and results.
constexpr uint32_t AFS_FTL_NONE = 0xFFFFFFFF;

// Kinds of EU in a reclaim.
constexpr uint32_t AFS_FTL_KIND_LOG = 0;
constexpr uint32_t AFS_FTL_KIND_DATA = 1;
constexpr uint32_t AFS_FTL_KIND_ANY = 2; // whatever the idle check finds

// Modes of a reclaim: only move the log head or the allocator to an EU with room, or the real one.
constexpr uint32_t AFS_FTL_MODE_MOVE = 0;
constexpr uint32_t AFS_FTL_MODE_RECLAIM = 1;

DOLM_EXTERN_C_BEGIN

struct afs_physical_ops;

// One EU, as the mount found it and as the operations keep it.
struct afs_eu_info {
    uint32_t sequence;    // of its header; 0 once the EU was given up since the mount
    uint32_t erase_count; // of its header
    uint16_t va_base;     // 0: log EU or spare; else the page number of a data EU's first page
    uint8_t dirty_pages;  // slots without a live page, free ones included; 0 for the spare
    uint8_t free_pages;   // data EU: erased slots; log EU: 1 while blank, else 0
};

// Where the newest copy of a log page lies. Both bytes are 0xFF if the page has no copy.
struct afs_page_loc {
    uint8_t eu;
    uint8_t slot;
};

// The state of a mounted FTL. Allocated by afs_physical_ftl_init, released by afs_free_context.
struct afs_ftl_state {
    uint32_t sequence;     // highest sequence in use
    uint32_t write_eu;     // log EU that is written to; AFS_FTL_NONE while nothing is mounted
    uint32_t write_slot;   // its next slot; 120 means full (see also head_closed)
    uint32_t alloc_cursor; // next chunk that the allocator tries, or AFS_FTL_NONE
    uint32_t alloc_end;    // chunk at which its range ends
    afs_eu_info *eu_table; // eu_count rows in use, room for AFS_MAX_EU_COUNT
    afs_page_loc *page_map;
    uint32_t page_count;     // entries of page_map: the pages below data_va_start at the mount
    uint32_t uncommitted_eu; // EU that the mount rolled forward and whose header is still to be
                             // committed by the next real reclaim, or AFS_FTL_NONE
    uint16_t spare_eu;
    uint16_t last_page;         // page of the newest log entry, the link for the next one; 0 at the
                                // start of an EU (see also chain_starts)
    uint8_t alloc_checks_flash; // 1: a clear chunk bit alone does not make a slot free
    uint8_t reclaim_armed;      // 1: the caller was told to flush, the allocator may reclaim
    uint8_t eu_count;
    uint8_t ftl_eu_count; // EUs before the first data EU in a fresh format
    uint8_t reclaim_cursor;
    uint8_t needs_mount;   // 1: a reclaim failed half-way and left the tables ahead of the flash;
                           // writes and reclaims give AFS_RC_IO until the next mount
    uint8_t head_closed;   // 1: write_eu takes no more pages, even if write_slot is below 120
    uint8_t chain_starts;  // 1: write_eu holds no committed entry, so that its next one is linked
                           // to 0, whatever last_page says
    uint8_t barren_ranges; // ranges that the allocator was given since it last handed out a chunk
    uint8_t data_eus[256]; // the EU found last for each row of 122 chunks, modulo 256; only hints
};

// Control record of one line of the page cache.
struct afs_cache_line {
    uint16_t flags_and_link; // bit 0 valid, bit 1 dirty, bits 2 to 15 index of the next line
    uint16_t page;           // VA / page size
};

// The record that the file layer, the cache and the FTL share. The caller allocates and clears it
// and owns file_buffer and image; the arrays belong to the context (afs_free_context).
struct afs_context {
    uint32_t data_va_start;   // first VA of the data area, in bytes
    uint32_t next_free_chunk; // set to 0 by afs_init; nothing reads it
    uint32_t device_offset;   // of the store on the device, in bytes
    uint32_t device_size;     // of the store, in bytes
    uint32_t total_va_size;   // end of the VA space, in bytes
    uint32_t fs_version;
    uint32_t last_fat_page;
    afs_ftl_state *ftl;
    const afs_physical_ops *ops;
    uint32_t *chunk_map; // bit i of word i / 32 is chunk i, set if allocated; null: no map
    afs_cache_line *cache_lines;
    uint16_t cache_head;
    uint32_t *file_sizes;
    uint8_t *cache_data;
    uint8_t *file_buffer; // 4096 bytes
    uint16_t chunk_count; // chunk_map has this many bits, and one more that stays clear
    uint16_t page_size;
    uint16_t cache_line_count;
    uint16_t file_count;
    uint8_t physical_kind; // 0, the FTL over the SPI device; set by afs_init, nothing reads it
    uint8_t ftl_allocator;
    uint8_t no_chunk_map;
    uint8_t idle_reclaim_enabled;
    void *image;
};

// ---- Mount and format. The caller has set data_va_start, total_va_size, device_offset and
// device_size (bytes), and image if the device is to be attached.

// Mounts device_size bytes of flash: reads all EU headers and logs, and settles an interrupted
// reclaim in memory. AFS_FTL_ALLOCATE_TABLES gives the context a new state (an old one is
// released), otherwise the tables of the last mount are used again; AFS_FLAG_ATTACH_DEVICE attaches
// image. AFS_RC_OK; AFS_RC_IO for a failed read or flash that holds no consistent store;
// AFS_RC_NO_MEMORY without memory; AFS_RC_INVALID without tables to use again, or with tables made
// for fewer log pages. After AFS_RC_IO the store counts as not mounted, but can be formatted.
DOLM_API uint32_t afs_physical_ftl_init(afs_context *context, uint32_t device_size, uint32_t flags);

// Writes the headers of an empty store: log EUs, data EUs in VA order, spare. erase_first erases
// every EU before, otherwise headers are written over what is there. Uses the EU counts of the last
// afs_physical_ftl_init, successful or not, and leaves the tables as they are: mount again.
// AFS_RC_OK, also if the device has not even one EU; AFS_RC_IO for a failed device operation or
// more data EUs than fit; AFS_RC_INVALID without tables.
DOLM_API uint32_t afs_physical_ftl_format(afs_context *context, uint8_t erase_first);

// Takes the log of one EU into page_map and the dirty counts; current also sets write_slot and
// head_closed. AFS_RC_OK; AFS_RC_IO if the log cannot be read, or names a page past the map
// elsewhere than where a torn run of entries shows its end.
DOLM_API uint32_t ftl_process_pages(afs_context *context, uint32_t eu, uint8_t current);

// ---- Pages. A VA is a byte address, rounded down to its page.

// Reads one page. Pages never written, and data pages whose chunk is free, read as zeros.
// AFS_RC_OK; AFS_RC_IO if the page cannot be read whole in 7 reads or no EU holds it: buffer is
// then unchanged.
DOLM_API uint32_t afs_physical_ftl_read_page(afs_context *context, uint32_t va, uint32_t length,
                                             void *buffer, uint32_t device_offset);

// Writes one page: a log page any number of times, a data page only into an erased slot. AFS_RC_OK;
// AFS_RC_IO for a failed device operation, a slot in use, a VA without a place; or what
// reclaim_eu_wrapper gives when the log is full. After a failure the old copy of a log page still
// counts.
DOLM_API uint32_t afs_physical_ftl_write_page(afs_context *context, uint32_t va, uint32_t length,
                                              const void *data, uint32_t device_offset);

// Forgets a page until the next mount; writes nothing. Always AFS_RC_OK on a mounted store.
DOLM_API uint32_t afs_physical_ftl_trim_page(afs_context *context, uint32_t va, uint32_t length,
                                             uint32_t device_offset);

// Reads count consecutive data pages from va on, over at most two EUs. buffer has room for count
// times 66 bytes, of which the first count times 64 are the result. If the first chunk is free,
// nothing is read and all of them are zeros. AFS_RC_OK or AFS_RC_IO; after AFS_RC_IO buffer is
// undefined.
DOLM_API uint32_t afs_physical_ftl_read_data_pages(afs_context *context, void *buffer, uint32_t va,
                                                   uint32_t count);

// The same within one data EU, without a look at the chunk map. AFS_RC_OK or AFS_RC_IO.
DOLM_API uint32_t read_ftl_data_pages(afs_context *context, uint32_t eu, uint32_t first_slot,
                                      uint32_t count, uint32_t first_page, void *buffer);

// Hands out a free chunk, as its cid (file_count + chunk). Its bit stays clear until its page is
// written. AFS_RC_OK; AFS_RC_FLUSH_FIRST if the caller has to flush the cache and call again, since
// the next call may reclaim; AFS_RC_NO_SPACE if nothing is left, also if as many EUs in turn as
// hold data gave nothing, which a device does that erases nothing; AFS_RC_IO; AFS_RC_BAD_STATE
// without a chunk map; or what reclaim_eu_wrapper gives.
DOLM_API uint32_t afs_physical_ftl_allocate_page(afs_context *context, uint16_t *cid);

// Counts the data EUs and places the allocator, once chunk_map holds what the files use. AFS_RC_OK;
// AFS_RC_IO for a failed read, a live chunk whose page is not complete, or a data EU outside the
// data area; AFS_RC_BAD_STATE without a chunk map.
DOLM_API uint32_t afs_physical_ftl_set_allocation_map(afs_context *context);

// Bytes of data VA space that a device of the context's device_size can offer; 0 for a null
// context. metadata_size is not used.
DOLM_API uint32_t afs_physical_ftl_get_data_vas(afs_context *context, uint32_t metadata_size);

// ---- Reclaim. The chunk map must be complete and the cache flushed: a data page whose chunk bit
// is clear is taken for dead.

// Makes room of a kind (AFS_FTL_KIND_LOG or AFS_FTL_KIND_DATA). AFS_RC_OK; AFS_RC_NO_SPACE if
// nothing can be gained; AFS_RC_IO; AFS_RC_NO_MEMORY; AFS_RC_NOT_RECLAIMED.
DOLM_API uint32_t reclaim_eu_wrapper(afs_context *context, uint32_t kind);

// The EU to reclaim, and in mode how (AFS_FTL_MODE_...). wear 1 lets the wear rule fire; idle 1
// asks the idle check, which replaces kind. AFS_FTL_NONE if there is none, the context holds no
// store or mode is null. Changes nothing.
DOLM_API uint32_t choose_eu_to_reclaim(afs_context *context, uint32_t kind, uint32_t wear,
                                       uint32_t *mode, uint8_t idle);

// Reclaims one EU in a mode. AFS_RC_OK; AFS_RC_NOT_RECLAIMED if it was full of live pages;
// AFS_RC_NO_SPACE for the spare or no EU, with nothing touched; AFS_RC_NO_MEMORY without memory,
// with nothing touched; AFS_RC_IO for a failed device operation or page (see needs_mount);
// AFS_RC_BAD_STATE for a data EU without a chunk map.
DOLM_API uint32_t reclaim_eu(afs_context *context, uint32_t eu, int32_t mode);

// Gives the role of source_eu to target_eu on the flash and in the tables; source becomes the
// spare. The addresses are those of the EUs on the device. AFS_RC_OK or AFS_RC_IO.
DOLM_API uint32_t reclaim_eu_write_eu_header(afs_context *context, uint32_t target_eu,
                                             uint32_t source_eu, uint32_t target_address,
                                             uint32_t source_address);

// Copies up to 62 data pages to the same slots of another EU, each page checked, and marks them
// complete there. The buffers have 4096 bytes each; addresses are those of EUs on the device.
// AFS_RC_OK or AFS_RC_IO.
DOLM_API uint32_t ftl_copy_pages(afs_context *context, uint32_t source_address,
                                 uint32_t target_address, uint32_t first_slot, uint32_t count,
                                 void *first_buffer, void *second_buffer, uint32_t first_page);

// 1 if idle time could be used for a reclaim, else 0. eu (AFS_FTL_NONE: any) and kind are only set
// with 1. 0 also where there is no store or a pointer is null.
DOLM_API uint32_t afs_physical_ftl_idle_reclaim_needed(afs_context *context, uint32_t *eu,
                                                       uint32_t *kind);

// Does one such reclaim. AFS_RC_OK, also if there is nothing to do, or what reclaim_eu gives.
DOLM_API uint32_t afs_physical_ftl_idle_reclaim(afs_context *context);

// Reclaims the next data EU of a walk through all of them. AFS_RC_AGAIN: call again; AFS_RC_OK: the
// walk is through; else a failure of reclaim_eu, and the walk stays where it is.
DOLM_API uint32_t afs_physical_ftl_force_full_reclaim(afs_context *context);

// Overwrites dead data pages and the spare's slots with zeros. AFS_RC_OK or AFS_RC_IO.
DOLM_API uint32_t afs_physical_ftl_force_dirty_erase(afs_context *context);

// Rewrites EU 0 and EU 1, so that the spare ends up on EU 1. AFS_RC_OK or a failure of reclaim_eu.
DOLM_API uint32_t afs_physical_ftl_end_reserved_files_mode(afs_context *context);

DOLM_EXTERN_C_END

#endif
