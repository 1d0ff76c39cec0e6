// Data blocks and file records: reading them verified, choosing and writing spares, erasing.
#include <algorithm>

#include "efs/efs_internal.h"

namespace dolm::efs {

uint32_t least_worn_slot(uint8_t status) {
    uint32_t choice = g_efs_non_valid_block_num;
    uint32_t lowest = UINT32_MAX;
    for (uint32_t slot = 0; slot < g_efs_non_valid_block_num; ++slot) {
        const uint32_t count = efs_ctx.erase_counts[efs_ctx.current_bme.non_valid_map[slot]];
        if (efs_ctx.block_status[slot] == status && count < lowest) {
            choice = slot;
            lowest = count;
        }
    }
    return choice;
}

uint16_t record_crc(const uint8_t *record, uint32_t logical, uint32_t payload_length) {
    const uint32_t crc = EFS_crc16(static_cast<uint16_t>(logical), record + file_record::size, 2);
    return static_cast<uint16_t>(
        EFS_crc16(static_cast<uint16_t>(crc), record + file_record::payload, payload_length));
}

void seal_record(uint8_t *record, uint32_t logical, uint32_t size, uint32_t payload_length) {
    store_le16(record + file_record::size, static_cast<uint16_t>(size));
    store_le16(record + file_record::crc16, record_crc(record, logical, payload_length));
}

} // namespace dolm::efs

namespace {

using namespace dolm::efs;
using dolm::load_le16;
using dolm::load_le32;
using dolm::store_le32;

bool header_is_good(const uint8_t *block) {
    return EFS_crc32(0, block, block_header::crc32) == load_le32(block + block_header::crc32);
}

bool footer_is_good(const uint8_t *block) {
    return EFS_crc32(0, block + data_area, data_area_size) == load_le32(block + footer);
}

// The checksum word goes first, so that an erase cut short at any point is recognisable.
uint32_t invalidate_header(uint32_t address) {
    const uint8_t zero[4] = {};
    const uint32_t status = EFS_physical_write(address + block_header::crc32, sizeof zero, zero);
    if (status != EFS_OK) {
        return status;
    }
    uint8_t *const word = efs_ctx.verify_buffer;
    return read_until(address + block_header::crc32, sizeof zero, word,
                      [word] { return load_le32(word) == 0; });
}

uint32_t erase_and_stamp(uint32_t block, uint32_t erase_count) {
    if (block >= data_block_num()) {
        return EFS_INVALID;
    }
    const uint32_t address = data_block_address(block);
    if (const uint32_t status = invalidate_header(address); status != EFS_OK) {
        return status;
    }
    if (const uint32_t status = EFS_physical_erase(address, block_size); status != EFS_OK) {
        return status;
    }
    uint8_t header[block_header::size] = {};
    store_le32(header + block_header::erase_count, erase_count + 1);
    store_le32(header + block_header::crc32, EFS_crc32(0, header, block_header::crc32));
    return write_to_erased(address, sizeof header, header);
}

// Decides on a record whose checksum failed every time: one that says no file in an otherwise sound
// block counts as no file.
uint32_t judge_bad_record(uint32_t block, uint32_t size) {
    if (size != no_file) {
        return EFS_BAD_DATA;
    }
    const uint32_t status = read_block(block);
    return status == EFS_OK ? EFS_NO_FILE : status;
}

uint32_t write_footer(uint32_t block, const void *data) {
    uint8_t crc[footer_size];
    store_le32(crc, EFS_crc32(0, data, data_area_size));
    return write_to_erased(data_block_address(block) + footer, sizeof crc, crc);
}

} // namespace

namespace dolm::efs {

uint32_t read_block_header(uint32_t block) {
    const uint8_t *const page = efs_ctx.page_buffer;
    return read_until(data_block_address(block), block_header::size, efs_ctx.page_buffer,
                      [page] { return header_is_good(page); });
}

uint32_t read_spare(uint32_t block) {
    const uint8_t *const page = efs_ctx.page_buffer;
    return read_until(data_block_address(block), block_size, efs_ctx.page_buffer,
                      [page] { return header_is_good(page); });
}

uint32_t read_block(uint32_t block) {
    const uint8_t *const page = efs_ctx.page_buffer;
    return read_until(data_block_address(block), block_size, efs_ctx.page_buffer,
                      [page] { return header_is_good(page) && footer_is_good(page); });
}

uint32_t write_data_block(uint32_t block, const void *data) {
    const uint32_t address = data_block_address(block) + data_area;
    const uint32_t status = write_to_erased(address, data_area_size, data);
    return status == EFS_OK ? write_footer(block, data) : status;
}

uint32_t swap_and_write_new_block(EFS_bme &bme, uint32_t logical, const void *data) {
    const uint32_t slot = least_worn_slot(EFS_BLOCK_FREE);
    if (slot == g_efs_non_valid_block_num) {
        return EFS_BAD_DATA;
    }
    const uint8_t new_block = bme.non_valid_map[slot];
    // Written or half written, committed or not: from here on the slot's block needs an erase.
    efs_ctx.block_status[slot] = EFS_BLOCK_DIRTY;
    --efs_ctx.free_block_count;
    if (new_block >= data_block_num()) {
        return EFS_INVALID; // in a map of the host's own
    }
    if (const uint32_t status = write_data_block(new_block, data); status != EFS_OK) {
        return status;
    }
    bme.non_valid_map[slot] = bme.valid_map[logical];
    bme.valid_map[logical] = new_block;
    return EFS_OK;
}

uint32_t erase_data_block(uint32_t block, uint32_t erase_count) {
    const uint32_t status = erase_and_stamp(block, erase_count);
    if (status != EFS_OK) {
        efs_ctx.scan_done = 0;
    }
    return status;
}

} // namespace dolm::efs

uint32_t EFS_read_and_verify_data_block_header_and_footer(uint32_t block, uint8_t check_footer,
                                                          uint8_t whole) {
    if (block >= data_block_num()) {
        return EFS_INVALID;
    }
    if (check_footer != 0 && whole == 0) {
        return EFS_BAD_DATA;
    }
    if (whole == 0) {
        return read_block_header(block);
    }
    return check_footer != 0 ? read_block(block) : read_spare(block);
}

uint32_t EFS_read_and_verify_file(uint8_t logical, uint16_t offset, uint8_t first,
                                  uint16_t length) {
    if (!is_mounted()) {
        return EFS_NOT_MOUNTED;
    }
    if (logical >= g_efs_valid_block_num || offset > record_room ||
        (first == 0 && length > record_room - offset)) {
        return EFS_INVALID;
    }
    const uint32_t block = efs_ctx.current_bme.valid_map[logical];
    const uint32_t address = data_block_address(block) + data_area + offset;
    uint8_t *const record = efs_ctx.page_buffer;
    uint32_t size = 0;
    for (uint32_t attempt = 0; attempt < efs_ctx.retry_count; ++attempt) {
        if (const uint32_t status = EFS_physical_read(address, file_record::payload, record);
            status != EFS_OK) {
            return status;
        }
        size = load_le16(record + file_record::size);
        uint32_t payload_length = length;
        if (first != 0) {
            payload_length = size == no_file ? 0 : std::min(size, record_room - offset);
        }
        if (payload_length != 0) {
            const uint32_t status = EFS_physical_read(
                address + file_record::payload, payload_length, record + file_record::payload);
            if (status != EFS_OK) {
                return status;
            }
        }
        if (record_crc(record, logical, payload_length) == load_le16(record + file_record::crc16)) {
            return EFS_OK;
        }
    }
    return judge_bad_record(block, size);
}

uint32_t EFS_select_free_page_for_write(uint32_t *slot_out) {
    if (slot_out == nullptr) {
        return EFS_INVALID;
    }
    if (!is_mounted()) {
        return EFS_NOT_MOUNTED;
    }
    const uint32_t slot = least_worn_slot(EFS_BLOCK_FREE);
    if (slot == g_efs_non_valid_block_num) {
        return EFS_BAD_DATA;
    }
    *slot_out = slot;
    return EFS_OK;
}

uint32_t EFS_write_data_block(uint32_t block, const void *data) {
    if (block >= data_block_num()) {
        return EFS_INVALID;
    }
    if (geometry_changed()) {
        return EFS_NOT_MOUNTED;
    }
    return data != nullptr ? write_data_block(block, data) : EFS_INVALID;
}

uint32_t EFS_write_data_footer(uint32_t block, const void *data) {
    if (block >= data_block_num() || data == nullptr) {
        return EFS_INVALID;
    }
    return geometry_changed() ? EFS_NOT_MOUNTED : write_footer(block, data);
}

uint32_t EFS_bme_swap_and_write_new_block(EFS_bme *bme, uint32_t logical, const void *data) {
    if (bme == nullptr || bme->valid_map == nullptr || bme->non_valid_map == nullptr ||
        data == nullptr || logical >= g_efs_valid_block_num) {
        return EFS_INVALID;
    }
    if (!is_mounted()) {
        return EFS_NOT_MOUNTED;
    }
    return swap_and_write_new_block(*bme, logical, data);
}

uint32_t EFS_erase_data_block(uint32_t block, uint32_t erase_count) {
    return geometry_changed() ? EFS_NOT_MOUNTED : erase_data_block(block, erase_count);
}
