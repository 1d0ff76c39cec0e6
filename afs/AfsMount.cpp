// Opening and closing a store.
#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "Afs.h"
#include "AfsPhysical.h"
#include "afs/fat_access.h"
#include "afs/ftl_access.h"

using namespace dolm;

namespace {

// Page numbers have 16 bits on the flash.
constexpr uint32_t max_va_size = 65536 * AFS_PAGE_SIZE;

// A chunk costs its 64 bytes and its FAT entry.
constexpr uint32_t va_per_chunk = AFS_PAGE_SIZE + 2;

bool has_flag(uint32_t flags, uint32_t flag) {
    return (flags & flag) != 0;
}

bool valid_cache_size(uint32_t page_size, uint32_t lines) {
    return page_size >= AFS_PAGE_SIZE && page_size <= UINT16_MAX &&
           page_size % AFS_PAGE_SIZE == 0 && lines >= AFS_MIN_CACHE_LINES &&
           lines <= AFS_MAX_CACHE_LINES;
}

afs_fs_header load_header(const uint8_t *bytes) {
    return {load_le32(bytes + 4), load_le32(bytes + 8), load_le16(bytes + 12)};
}

void store_header(uint8_t *bytes, const afs_fs_header &header) {
    store_le32(bytes, fs_header_magic);
    store_le32(bytes + 4, header.fs_version);
    store_le32(bytes + 8, header.total_va_size);
    store_le16(bytes + 12, header.file_count);
}

void release_tables(afs_context *context) {
    std::free(context->chunk_map);
    std::free(context->file_sizes);
    std::free(context->cache_lines);
    std::free(context->cache_data);
    context->chunk_map = nullptr;
    context->file_sizes = nullptr;
    context->cache_lines = nullptr;
    context->cache_data = nullptr;
}

// The real geometry stands in page 0, which can't be found without one. With the whole device
// counted as log pages it can: no data EU is looked for.
void set_provisional_geometry(afs_context *context, uint32_t size) {
    context->total_va_size = size;
    context->data_va_start = size;
    context->chunk_count = static_cast<uint16_t>(size / AFS_PAGE_SIZE);
}

// The geometry that a header stands for. False if its numbers can't be those of a store: slots that
// byte counts would collide with, no room for the FAT, pages or cids past 16 bits.
bool set_geometry(afs_context *context, const afs_fs_header &header) {
    const uint32_t slots_end = fat_va(header.file_count);
    if (header.file_count < AFS_MIN_FILE_COUNT || header.total_va_size > max_va_size ||
        header.total_va_size < slots_end) {
        return false;
    }
    const uint32_t chunk_count = (header.total_va_size - slots_end) / va_per_chunk;
    const uint32_t fat_end = fat_va(header.file_count + chunk_count);
    const uint32_t data_va_start = (fat_end + AFS_PAGE_SIZE - 1) & ~(AFS_PAGE_SIZE - 1);
    if (data_va_start > header.total_va_size || header.file_count + chunk_count > fat_zombie) {
        return false;
    }
    context->total_va_size = header.total_va_size;
    context->chunk_count = static_cast<uint16_t>(chunk_count);
    context->data_va_start = data_va_start;
    return true;
}

uint32_t mount_ftl(afs_context *context, uint32_t flags) {
    const uint32_t attach = flags & AFS_FLAG_ATTACH_DEVICE;
    uint32_t status =
        afs_physical_ftl_init(context, context->device_size, AFS_FTL_ALLOCATE_TABLES | attach);
    if (status == AFS_RC_OK && !has_flag(flags, AFS_FLAG_FORCE_FORMAT)) {
        return AFS_RC_OK;
    }
    if (!has_flag(flags, AFS_FLAG_FORMAT_IF_BAD | AFS_FLAG_ERASE_ON_FORMAT)) {
        return AFS_RC_IO;
    }
    if (status == AFS_RC_NO_MEMORY) {
        return status;
    }
    status = afs_physical_ftl_format(context, has_flag(flags, AFS_FLAG_ERASE_ON_FORMAT) ? 1 : 0);
    if (status != AFS_RC_OK) {
        return status;
    }
    return afs_physical_ftl_init(context, context->device_size, 0);
}

// Takes over the store that the header in page 0 describes, or creates one there.
uint32_t open_file_system(afs_context *context, uint32_t flags, const afs_fs_header &new_header) {
    uint8_t *page = nullptr;
    uint32_t status = cached_bytes(context, 0, page);
    if (status != AFS_RC_OK) {
        return status;
    }
    context->next_free_chunk = 0;
    afs_fs_header header = new_header;
    if (load_le32(page) == fs_header_magic) {
        header = load_header(page);
        if (!set_geometry(context, header)) {
            return AFS_RC_IO;
        }
        status = afs_physical_ftl_init(context, context->device_size, AFS_FTL_ALLOCATE_TABLES);
    } else if (has_flag(flags, AFS_FLAG_CREATE_FS | AFS_FLAG_FORCE_FORMAT)) {
        // The provisional geometry stays until the next mount.
        std::memset(page, 0, context->page_size);
        store_header(page, header);
        cache_line_written(context, page);
        status = cache_flush(context);
    } else {
        status = AFS_RC_IO;
    }
    if (status == AFS_RC_OK) {
        context->file_count = header.file_count;
        context->fs_version = header.fs_version;
    }
    return status;
}

uint32_t allocate_tables(afs_context *context, uint32_t flags) {
    if (has_flag(flags, AFS_FLAG_FILE_SIZES)) {
        const size_t size = context->file_count * sizeof(uint32_t);
        context->file_sizes = static_cast<uint32_t *>(std::malloc(size));
        if (context->file_sizes == nullptr) {
            return AFS_RC_NO_MEMORY;
        }
        std::memset(context->file_sizes, 0xFF, size);
    }
    if (context->no_chunk_map == 0) {
        const size_t words = context->chunk_count / 32u + 1; // bit chunk_count exists as well
        context->chunk_map = static_cast<uint32_t *>(std::calloc(words, sizeof(uint32_t)));
        if (context->chunk_map == nullptr) {
            return AFS_RC_NO_MEMORY;
        }
    }
    return AFS_RC_OK;
}

// Marks the chunks of a chain as allocated and finds the size of the file.
uint32_t scan_chain(afs_context *context, uint16_t first, uint32_t &size) {
    uint32_t *const map = context->chunk_map;
    const uint32_t file_count = context->file_count;
    const auto mark = [=](uint16_t cid) {
        if (map != nullptr) {
            const uint32_t chunk = cid - file_count;
            map[chunk / 32] |= uint32_t{1} << chunk % 32;
        }
    };
    chain_place place = {.previous = 0, .chunk = first, .entry = 0};
    uint32_t steps = 0;
    const uint32_t status = fat_reader(context).follow(UINT32_MAX, place, steps, mark);
    size = steps * AFS_PAGE_SIZE + bytes_in_chunk(place.entry);
    return status;
}

uint32_t scan_file(afs_context *context, uint16_t file) {
    uint16_t slot = 0;
    uint32_t status = next_cid(context, file, slot);
    if (status != AFS_RC_OK || slot == fat_free) {
        return status;
    }
    if (slot == fat_zombie) {
        return set_fat_entry(context, file, fat_free); // reaches the flash with the next flush
    }
    uint32_t size = 0;
    status = is_chunk(slot) ? scan_chain(context, slot, size) : AFS_RC_OK;
    if (status == AFS_RC_OK && context->file_sizes != nullptr) {
        context->file_sizes[file] = size;
    }
    return status;
}

uint32_t scan_files(afs_context *context) {
    for (uint32_t file = 0; file < context->file_count; ++file) {
        if (const uint32_t status = scan_file(context, static_cast<uint16_t>(file));
            status != AFS_RC_OK) {
            return status;
        }
    }
    return AFS_RC_OK;
}

// Trims leave no trace on the flash, so that each mount trims again.
void trim_free_fat_pages(afs_context *context) {
    const uint32_t end = context->chunk_count + 1u; // the bit behind the last chunk is clear
    const uint32_t entries_per_page = context->page_size / 2u;
    const uint32_t first_entry = fat_va(context->file_count) / 2 % entries_per_page;
    uint32_t chunk = find_chunk(context, 0, end, false);
    while (chunk < end) {
        note_free_chunk(context, chunk);
        // The others whose entries lie in the same page would change nothing.
        const uint32_t next_page =
            chunk + entries_per_page - (first_entry + chunk) % entries_per_page;
        chunk = find_chunk(context, next_page, end, false);
    }
}

uint32_t find_live_chunks(afs_context *context) {
    uint32_t status = AFS_RC_OK;
    if (context->chunk_map != nullptr || context->file_sizes != nullptr) {
        status = scan_files(context);
    }
    if (status != AFS_RC_OK || context->chunk_map == nullptr) {
        return status;
    }
    context->ftl_allocator = 1;
    status = afs_physical_ftl_set_allocation_map(context);
    if (status == AFS_RC_OK) {
        trim_free_fat_pages(context);
    }
    return status;
}

uint32_t open_store(afs_context *context, uint32_t cache_lines, uint32_t flags,
                    const afs_fs_header &new_header) {
    uint32_t status = AFS_RC_OK;
    if (has_flag(flags, AFS_FLAG_MOUNT_FTL)) {
        status = mount_ftl(context, flags);
    } else if (context->ftl == nullptr) {
        status = AFS_RC_INVALID;
    }
    if (status == AFS_RC_OK) {
        status = cache_init(context, context->page_size, static_cast<uint16_t>(cache_lines));
    }
    if (status == AFS_RC_OK) {
        status = open_file_system(context, flags, new_header);
    }
    if (status == AFS_RC_OK) {
        status = allocate_tables(context, flags);
    }
    if (status == AFS_RC_OK) {
        status = find_live_chunks(context);
    }
    return status;
}

} // namespace

uint32_t afs_init(afs_context *context, void *image, uint32_t page_size, uint32_t cache_lines,
                  uint32_t file_count, uint32_t device_offset, uint32_t size, uint32_t flags,
                  uint8_t version_low, uint32_t version_high) {
    if (context == nullptr || !valid_cache_size(page_size, cache_lines) ||
        (image == nullptr && has_flag(flags, AFS_FLAG_ATTACH_DEVICE)) ||
        file_count < AFS_MIN_FILE_COUNT || file_count > AFS_MAX_FILE_COUNT ||
        size < AFS_MIN_DEVICE_SIZE || size > AFS_MAX_DEVICE_SIZE) {
        return AFS_RC_INVALID;
    }
    if (has_flag(flags, AFS_FLAG_ZERO_CONTEXT)) {
        *context = {};
    }
    // The cache of an earlier mount belongs to its geometry, perhaps to another image.
    release_tables(context);
    context->file_count = 0;
    context->last_fat_page = 0;
    context->page_size = static_cast<uint16_t>(page_size);
    context->ops = &afs_physical_spi_handler;
    context->image = image;
    context->ftl_allocator = 0;
    context->physical_kind = 0;
    context->no_chunk_map = has_flag(flags, AFS_FLAG_NO_CHUNK_MAP) ? 1 : 0;
    if ((flags & (0x2 | AFS_FLAG_FTL)) != AFS_FLAG_FTL) {
        return AFS_RC_INVALID;
    }
    context->device_offset = device_offset;
    context->device_size = size;
    set_provisional_geometry(context, size);

    const uint32_t version = version_low | (version_high & 0xFFF) << 8;
    const uint32_t status = open_store(context, cache_lines, flags,
                                       {.fs_version = version,
                                        .total_va_size = size,
                                        .file_count = static_cast<uint16_t>(file_count)});
    if (status != AFS_RC_OK) {
        context->file_count = 0;
        return status;
    }
    if (has_flag(flags, AFS_FLAG_PRELOAD_CACHE)) {
        void *line = nullptr;
        for (uint32_t page = 0; page < cache_lines; ++page) {
            cache_ptr(context, static_cast<uint16_t>(page), &line); // as far as there are pages
        }
    }
    return AFS_RC_OK;
}

uint32_t afs_setcache(afs_context *context, int32_t page_size, int32_t cache_lines) {
    const auto new_page_size = static_cast<uint32_t>(page_size);
    const auto lines = static_cast<uint32_t>(cache_lines);
    if (!is_mounted(context) || !valid_cache_size(new_page_size, lines)) {
        return AFS_RC_INVALID;
    }
    const uint32_t status = cache_init(context, new_page_size, static_cast<uint16_t>(lines));
    if (status == AFS_RC_OK) {
        context->page_size = static_cast<uint16_t>(new_page_size);
    }
    return status;
}

void afs_free_context(afs_context *context) {
    if (context != nullptr) {
        release_tables(context);
        release_ftl_state(context);
    }
}
