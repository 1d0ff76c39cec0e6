// A fresh image from the file list. The header of BM 0 is the last thing written: until it has
// landed the image has no BM and does not mount.
#include "efs/efs_internal.h"
#include "fcs/file_table.h"

namespace {

using namespace dolm::efs;

constexpr uint32_t first_sequence = 1;

uint32_t erase_all_blocks() {
    for (uint32_t i = 0; i < g_efs_bm_num; ++i) {
        if (const uint32_t status = EFS_physical_erase(bm_address(i), block_size);
            status != EFS_OK) {
            return status;
        }
    }
    for (uint32_t block = 0; block < data_block_num(); ++block) {
        if (const uint32_t status = erase_data_block(block, 0); status != EFS_OK) {
            return status;
        }
    }
    return EFS_OK;
}

// Logical block i starts on physical block i, with an empty record for each file that begins in it.
uint32_t write_empty_records(uint32_t logical) {
    uint8_t *const data = efs_ctx.page_buffer;
    std::memset(data, 0xFF, block_size);
    for (uint32_t file = 0; file < dolm::efs_file_slots(); ++file) {
        const EFS_file_entry &entry = EFS_files[file];
        if (entry.present == 0 || entry.block != logical) {
            continue;
        }
        if (entry.offset > record_room) {
            return EFS_BAD_FILE_OFFSET;
        }
        seal_record(data + entry.offset, logical, no_file, 0);
    }
    return write_data_block(logical, data);
}

void map_blocks_in_order(EFS_bme &bme) {
    for (uint32_t i = 0; i < g_efs_valid_block_num; ++i) {
        bme.valid_map[i] = static_cast<uint8_t>(i);
    }
    for (uint32_t slot = 0; slot < g_efs_non_valid_block_num; ++slot) {
        bme.non_valid_map[slot] = static_cast<uint8_t>(g_efs_valid_block_num + slot);
    }
}

uint32_t write_first_bm(EFS_bme &bme, uint8_t *entry) {
    seal_bme(bme, entry);
    const uint32_t status = write_to_erased(first_bme, bme_size(), entry);
    if (status != EFS_OK) {
        return status;
    }
    uint8_t header[bm_header::size];
    build_bm_header(first_sequence, header);
    return write_to_erased(0, sizeof header, header);
}

} // namespace

uint32_t EFS_do_format() {
    if (geometry_changed() || g_efs_autogen_data_loaded == 0) {
        return EFS_NOT_MOUNTED;
    }
    if (!geometry_fits() || g_efs_bm_num == 0) {
        return EFS_BAD_DATA;
    }
    working_bme bme;
    const byte_array entry = allocate_bytes(bme_size());
    if (!bme || !entry) {
        return EFS_NO_MEMORY;
    }
    if (const uint32_t status = erase_all_blocks(); status != EFS_OK) {
        return status;
    }
    for (uint32_t logical = 0; logical < g_efs_valid_block_num; ++logical) {
        if (const uint32_t status = write_empty_records(logical); status != EFS_OK) {
            return status;
        }
    }
    map_blocks_in_order(*bme);
    return write_first_bm(*bme, entry.get());
}
