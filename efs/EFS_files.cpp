// The four file operations. A file is a slot of EFS_files; nothing on flash names it.
#include <algorithm>

#include "efs/efs_internal.h"
#include "fcs/file_table.h"

namespace {

using namespace dolm::efs;
using dolm::load_le16;

// Null for a slot that is too high, not present, or placed where no record fits.
const EFS_file_entry *find_file(uint32_t file) {
    if (file >= dolm::efs_file_slots()) {
        return nullptr;
    }
    const EFS_file_entry *const entry = &EFS_files[file];
    return entry->present != 0 && entry->offset <= record_room ? entry : nullptr;
}

// Reads the first record to page_buffer and stores the file's length.
uint32_t read_first_record(const EFS_file_entry &entry, uint32_t &size) {
    const uint32_t status = EFS_read_and_verify_file(entry.block, entry.offset, 1, 0);
    if (status != EFS_OK) {
        return status;
    }
    size = load_le16(efs_ctx.page_buffer + file_record::size);
    if (size == no_file) {
        return EFS_NO_FILE;
    }
    return size > entry.max_size ? EFS_BAD_DATA : EFS_OK;
}

// Delivers the bytes from `offset` on that do not lie in the first record. Seen from the start of
// the file's first block, byte p of the file is byte p + entry.offset of a row of records with
// record_room payload bytes each.
uint32_t read_further_records(const EFS_file_entry &entry, uint32_t size, uint32_t offset,
                              uint32_t length, uint8_t *buffer) {
    while (length > 0) {
        const uint32_t index = (offset + entry.offset) / record_room;
        const uint32_t skip = (offset + entry.offset) % record_room;
        const uint32_t logical = entry.block + index;
        if (logical >= g_efs_valid_block_num) {
            return EFS_BAD_DATA;
        }
        const uint32_t record_length =
            std::min(size + entry.offset - index * record_room, record_room);
        const uint32_t status = EFS_read_and_verify_file(static_cast<uint8_t>(logical), 0, 0,
                                                         static_cast<uint16_t>(record_length));
        if (status != EFS_OK) {
            return status;
        }
        const uint32_t part = std::min(record_room - skip, length);
        std::memcpy(buffer, efs_ctx.page_buffer + file_record::payload + skip, part);
        buffer += part;
        offset += part;
        length -= part;
    }
    return EFS_OK;
}

uint32_t read_file(uint32_t file, uint32_t offset, uint32_t &wanted, uint8_t *buffer) {
    const EFS_file_entry *const entry = find_file(file);
    if (entry == nullptr || buffer == nullptr || wanted > UINT32_MAX - offset) {
        return EFS_INVALID;
    }
    uint32_t size = 0;
    if (const uint32_t status = read_first_record(*entry, size); status != EFS_OK) {
        return status;
    }
    if (size == 0) {
        wanted = 0;
        return EFS_OK;
    }
    if (offset > size) {
        return EFS_OUT_OF_RANGE;
    }
    wanted = std::min(wanted, size - offset);
    const uint32_t first_room = record_room - entry->offset;
    uint32_t part = 0;
    if (offset < first_room) {
        part = std::min(first_room - offset, wanted);
        std::memcpy(buffer, efs_ctx.page_buffer + file_record::payload + offset, part);
    }
    return read_further_records(*entry, size, offset + part, wanted - part, buffer + part);
}

// Reads the block behind `logical` in `bme` to page_buffer, verified whole.
uint32_t read_block_to_change(const EFS_bme &bme, uint32_t logical) {
    if (logical >= g_efs_valid_block_num) {
        return EFS_INVALID;
    }
    return read_block(bme.valid_map[logical]);
}

uint8_t *record_in_page_buffer(uint32_t offset) {
    return efs_ctx.page_buffer + data_area + offset;
}

uint32_t write_changed_block(EFS_bme &bme, uint32_t logical) {
    return swap_and_write_new_block(bme, logical, efs_ctx.page_buffer + data_area);
}

// Writes the file's records to spares, block by block, with the swaps in `bme` alone.
uint32_t write_records(const EFS_file_entry &entry, uint32_t length, const uint8_t *data,
                       EFS_bme &bme) {
    uint32_t logical = entry.block;
    uint32_t offset = entry.offset;
    uint32_t size_field = length;
    uint32_t left = length;
    do {
        if (const uint32_t status = read_block_to_change(bme, logical); status != EFS_OK) {
            return status;
        }
        uint8_t *const record = record_in_page_buffer(offset);
        const uint32_t chunk = std::min(left, record_room - offset);
        std::memcpy(record + file_record::payload, data, chunk);
        seal_record(record, logical, size_field, chunk);
        if (const uint32_t status = write_changed_block(bme, logical); status != EFS_OK) {
            return status;
        }
        data += chunk;
        left -= chunk;
        ++logical;
        offset = 0;
        size_field = no_file;
    } while (left > 0);
    return EFS_OK;
}

uint32_t mark_absent(const EFS_file_entry &entry, EFS_bme &bme) {
    const uint32_t logical = entry.block;
    if (const uint32_t status = read_block_to_change(bme, logical); status != EFS_OK) {
        return status;
    }
    uint8_t *const record = record_in_page_buffer(entry.offset);
    if (load_le16(record + file_record::size) == no_file) {
        return EFS_NO_FILE;
    }
    seal_record(record, logical, no_file, 0);
    return write_changed_block(bme, logical);
}

// Blocks that the write of `length` bytes makes sure of. The head of the first record counts as
// payload, so it may be one more than are written.
uint32_t blocks_for(const EFS_file_entry &entry, uint32_t length) {
    const uint32_t bytes = entry.offset + file_record::payload + length;
    return (bytes + record_room - 1) / record_room;
}

uint32_t make_free_blocks(uint32_t needed) {
    if (needed > g_efs_non_valid_block_num) {
        return EFS_NO_SPACE;
    }
    for (uint32_t free = efs_ctx.free_block_count; free < needed; ++free) {
        if (const uint32_t status = erase_dirty_block(); status != EFS_OK) {
            return status;
        }
    }
    return EFS_OK;
}

} // namespace

uint32_t EFS_get_file_size(uint32_t file, uint32_t *size_out) {
    if (!is_mounted()) {
        return EFS_NOT_MOUNTED;
    }
    const EFS_file_entry *const entry = find_file(file);
    if (entry == nullptr || size_out == nullptr) {
        return EFS_INVALID;
    }
    uint32_t size = 0;
    const uint32_t status = read_first_record(*entry, size);
    if (status == EFS_OK) {
        *size_out = size;
    }
    return status;
}

uint32_t EFS_read(uint32_t file, uint32_t offset, uint32_t *length, void *buffer) {
    uint32_t status = EFS_INVALID;
    if (!is_mounted()) {
        status = EFS_NOT_MOUNTED;
    } else if (length != nullptr) {
        status = read_file(file, offset, *length, static_cast<uint8_t *>(buffer));
    }
    if (status != EFS_OK && length != nullptr) {
        *length = 0;
    }
    return status;
}

uint32_t EFS_write(uint32_t file, uint32_t offset, uint32_t length, const void *data) {
    if (!is_mounted()) {
        return EFS_NOT_MOUNTED;
    }
    working_bme bme;
    if (!bme) {
        return EFS_NO_MEMORY;
    }
    const EFS_file_entry *const entry = find_file(file);
    if (entry == nullptr || offset != 0 || data == nullptr) {
        return EFS_INVALID;
    }
    if (const uint32_t status = prepare_for_change(); status != EFS_OK) {
        return status;
    }
    // A length that reads as "no file" cannot be stored.
    if (length > entry->max_size || length == no_file) {
        return EFS_OUT_OF_RANGE;
    }
    if (const uint32_t status = make_free_blocks(blocks_for(*entry, length)); status != EFS_OK) {
        return status;
    }
    bme.copy_mapping_in_force();
    const uint32_t status = write_records(*entry, length, static_cast<const uint8_t *>(data), *bme);
    return status == EFS_OK ? commit_bme(*bme, 0, 0) : status;
}

uint32_t EFS_delete(uint32_t file) {
    if (!is_mounted()) {
        return EFS_NOT_MOUNTED;
    }
    working_bme bme;
    if (!bme) {
        return EFS_NO_MEMORY;
    }
    const EFS_file_entry *const entry = find_file(file);
    if (entry == nullptr) {
        return EFS_INVALID;
    }
    if (const uint32_t status = prepare_for_change(); status != EFS_OK) {
        return status;
    }
    if (const uint32_t status = make_free_blocks(1); status != EFS_OK) {
        return status;
    }
    bme.copy_mapping_in_force();
    const uint32_t status = mark_absent(*entry, *bme);
    return status == EFS_OK ? commit_bme(*bme, 0, 0) : status;
}
