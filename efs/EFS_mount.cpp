// The mount: finds the newest complete mapping on an image that may have lost power at any
// instant. It reads the BMs alone and writes nothing.
#include <array>

#include "common/at_unload.h"
#include "efs/efs_internal.h"
#include "efs/efs_use.h"

struct efs_ctx efs_ctx;

namespace {

using namespace dolm::efs;
using dolm::load_le32;

constexpr uint32_t read_attempts = 7;

// The arrays of efs_ctx in one piece; they live until the next mount.
void *mount_arrays = nullptr;

bool allocate_arrays() {
    const uint32_t counts = data_block_num() * uint32_t{sizeof(uint32_t)};
    const uint32_t valid = g_efs_valid_block_num;
    const uint32_t non_valid = g_efs_non_valid_block_num;
    auto *const memory = static_cast<uint8_t *>(std::calloc(1, counts + valid + 2 * non_valid));
    if (memory == nullptr) {
        return false;
    }
    mount_arrays = memory;
    efs_ctx.erase_counts = reinterpret_cast<uint32_t *>(memory);
    efs_ctx.block_status = memory + counts;
    efs_ctx.current_bme.valid_map = memory + counts + non_valid;
    efs_ctx.current_bme.non_valid_map = memory + counts + non_valid + valid;
    return true;
}

bool bm_belongs_to_geometry(const uint8_t *header) {
    return header[bm_header::bm_num] == g_efs_bm_num &&
           header[bm_header::valid_block_num] == g_efs_valid_block_num &&
           header[bm_header::non_valid_block_num] == g_efs_non_valid_block_num &&
           header[bm_header::layout_id] == g_efs_layout_id;
}

// Whether BM `index` counts, with its header in `header`. What cannot be read does not count.
bool read_good_bm_header(uint32_t index, uint8_t *header) {
    const auto blank = [header] {
        return is_erased(header, bm_header::size) || is_filled_with(0, header, bm_header::size);
    };
    const auto sealed = [header] {
        return EFS_crc32(0, header, bm_header::crc32) == load_le32(header + bm_header::crc32);
    };
    const uint32_t status =
        read_until(bm_address(index), bm_header::size, header, [&] { return blank() || sealed(); });
    return status == EFS_OK && !blank();
}

// Sets current_bm and bm_sequence.
uint32_t find_bm_in_force() {
    uint32_t best = 0;
    uint32_t best_sequence = 0;
    for (uint32_t i = 0; i < g_efs_bm_num; ++i) {
        uint8_t header[bm_header::size];
        if (!read_good_bm_header(i, header)) {
            continue;
        }
        if (!bm_belongs_to_geometry(header)) {
            return EFS_BAD_DATA;
        }
        const uint32_t sequence = load_le32(header + bm_header::sequence);
        if (sequence > best_sequence) {
            best = i;
            best_sequence = sequence;
        }
    }
    if (best_sequence == 0) {
        return EFS_BAD_DATA;
    }
    efs_ctx.current_bm = best;
    efs_ctx.bm_sequence = best_sequence;
    return EFS_OK;
}

bool bme_is_good(const uint8_t *entry) {
    return EFS_crc32(0, entry, bme_size() - 4) == load_le32(entry + bme_size() - 4);
}

// Offset of the last slot before the first erased one, or of the last slot with room. The first
// slot counts as used.
uint32_t last_used_slot(const uint8_t *bm) {
    uint32_t offset = first_bme;
    while (offset + 2 * bme_size() <= bme_limit &&
           !is_erased(bm + offset + bme_size(), bme_size())) {
        offset += bme_size();
    }
    return offset;
}

// Checks the entry that stands in page_buffer, then reads it anew until it is good. EFS_LOOK_AGAIN
// if a read shows the slot erased and `stop_if_erased` is set.
uint32_t verify_bme(uint32_t offset, bool stop_if_erased) {
    uint8_t *const entry = efs_ctx.page_buffer + offset;
    if (bme_is_good(entry)) {
        return EFS_OK;
    }
    bool erased = false;
    const uint32_t status =
        read_until(bm_address(efs_ctx.current_bm) + offset, bme_size(), entry, [&] {
            erased = stop_if_erased && is_erased(entry, bme_size());
            return erased || bme_is_good(entry);
        });
    return erased ? EFS_LOOK_AGAIN : status;
}

// One pass over the BM in force: finds its last good entry, which then stands in page_buffer at
// `offset`. EFS_LOOK_AGAIN asks for another pass.
uint32_t find_current_bme_once(uint32_t &offset) {
    uint32_t status =
        EFS_physical_read(bm_address(efs_ctx.current_bm), block_size, efs_ctx.page_buffer);
    if (status != EFS_OK) {
        return status;
    }
    offset = last_used_slot(efs_ctx.page_buffer);
    status = verify_bme(offset, true);
    if (status != EFS_BAD_DATA || offset == first_bme) {
        return status;
    }
    // The last entry is torn: the one before it is in force, and the torn slot is lost.
    offset -= bme_size();
    status = verify_bme(offset, false);
    if (status == EFS_OK) {
        efs_ctx.bm_switch_pending = 1;
    }
    return status;
}

uint32_t find_current_bme(uint32_t &offset) {
    for (uint32_t pass = 0; pass < efs_ctx.retry_count; ++pass) {
        const uint32_t status = find_current_bme_once(offset);
        if (status != EFS_LOOK_AGAIN) {
            return status;
        }
    }
    return EFS_BAD_DATA;
}

// The maps of an entry lie one behind the other; together they name every block once.
bool is_permutation_of_blocks(const uint8_t *maps) {
    std::array<bool, dolm::max_efs_data_blocks> seen{};
    for (uint32_t i = 0; i < data_block_num(); ++i) {
        if (maps[i] >= data_block_num() || seen[maps[i]]) {
            return false;
        }
        seen[maps[i]] = true;
    }
    return true;
}

uint32_t adopt_entry_in_page_buffer(uint32_t offset) {
    uint8_t *const entry = efs_ctx.page_buffer + offset;
    if (!is_permutation_of_blocks(entry)) {
        return EFS_BAD_DATA;
    }
    const uint8_t *const words = entry + data_block_num();
    adopt_mapping({.valid_map = entry,
                   .non_valid_map = entry + g_efs_valid_block_num,
                   .aux0 = load_le32(words),
                   .aux1 = load_le32(words + 4),
                   .crc32 = load_le32(words + 8)});
    efs_ctx.bme_offset = offset;
    return EFS_OK;
}

// Looks at the rest of the BM behind the entry in force, which stands in page_buffer. A cut leaves
// it erased. Behind anything else a later mount might not find an entry that is appended now.
uint32_t check_rest_of_bm() {
    if (efs_ctx.bm_switch_pending != 0) {
        return EFS_OK;
    }
    const uint32_t offset = efs_ctx.bme_offset + bme_size();
    const uint32_t length = block_size - offset;
    uint8_t *const rest = efs_ctx.page_buffer + offset;
    const auto erased = [rest, length] { return is_erased(rest, length); };
    if (erased()) {
        return EFS_OK;
    }
    const uint32_t status =
        read_until(bm_address(efs_ctx.current_bm) + offset, length, rest, erased);
    if (status != EFS_BAD_DATA) {
        return status;
    }
    efs_ctx.bm_switch_pending = 1;
    return EFS_OK;
}

uint32_t find_mapping() {
    if (const uint32_t status = find_bm_in_force(); status != EFS_OK) {
        return status;
    }
    uint32_t offset = 0;
    if (const uint32_t status = find_current_bme(offset); status != EFS_OK) {
        return status;
    }
    if (const uint32_t status = adopt_entry_in_page_buffer(offset); status != EFS_OK) {
        return status;
    }
    return check_rest_of_bm();
}

void drop_mounted_store() {
    std::free(mount_arrays);
    mount_arrays = nullptr;
    efs_ctx = {};
}

[[maybe_unused]] const dolm::at_unload<drop_mounted_store> store_release;

} // namespace

void dolm::efs::take_out_of_use() {
    efs_ctx.initialized = 0;
    hold_image(nullptr);
}

uint32_t EFS_init_tools(void *image) {
    if (image == nullptr) {
        return EFS_INVALID;
    }
    efs_image = static_cast<uint8_t *>(image);
    return EFS_init(0);
}

uint32_t EFS_init(uint8_t format) {
    drop_mounted_store();
    if (format == 0) {
        hold_image(efs_image); // which may be another than before, also where it is refused below
    }
    if (g_efs_autogen_data_loaded == 0) {
        return EFS_NOT_MOUNTED;
    }
    if (!geometry_fits()) {
        return EFS_BAD_DATA;
    }
    if (!allocate_arrays()) {
        return EFS_NO_MEMORY;
    }
    efs_ctx.retry_count = read_attempts;
    if (const uint32_t status = EFS_physical_init(format); status != EFS_OK) {
        return status;
    }
    if (format != 0) {
        if (const uint32_t status = EFS_do_format(); status != EFS_OK) {
            return status;
        }
    }
    if (const uint32_t status = find_mapping(); status != EFS_OK) {
        return status;
    }
    note_mounted_geometry();
    efs_ctx.initialized = 1;
    return EFS_OK;
}

uint8_t EFS_is_initialized() {
    return efs_ctx.initialized;
}
