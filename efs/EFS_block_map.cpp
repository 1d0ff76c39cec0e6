// The ring of block maps: appending an entry to the one in force, moving to the next one, and the
// wiping of all of them. A transaction has happened the moment its entry, or at a switch the new
// BM's header, has landed.
#include "efs/efs_internal.h"

namespace dolm::efs {

void lay_out_bme(const EFS_bme &bme, uint8_t *entry) {
    std::memcpy(entry, bme.valid_map, g_efs_valid_block_num);
    std::memcpy(entry + g_efs_valid_block_num, bme.non_valid_map, g_efs_non_valid_block_num);
    uint8_t *const words = entry + data_block_num();
    store_le32(words, bme.aux0);
    store_le32(words + 4, bme.aux1);
    store_le32(words + 8, bme.crc32);
}

void seal_bme(EFS_bme &bme, uint8_t *entry) {
    lay_out_bme(bme, entry);
    bme.crc32 = EFS_crc32(0, entry, bme_size() - 4);
    store_le32(entry + bme_size() - 4, bme.crc32);
}

void build_bm_header(uint32_t sequence, uint8_t *header) {
    store_le16(header + bm_header::version, bm_version);
    store_le16(header + bm_header::sku_id, g_efs_sku_id);
    store_le32(header + bm_header::sequence, sequence);
    header[bm_header::bm_num] = static_cast<uint8_t>(g_efs_bm_num);
    header[bm_header::valid_block_num] = static_cast<uint8_t>(g_efs_valid_block_num);
    header[bm_header::non_valid_block_num] = static_cast<uint8_t>(g_efs_non_valid_block_num);
    header[bm_header::layout_id] = g_efs_layout_id;
    store_le32(header + bm_header::crc32, EFS_crc32(0, header, bm_header::crc32));
}

void adopt_mapping(const EFS_bme &bme) {
    EFS_bme &current = efs_ctx.current_bme;
    // The caller may hand in the mapping in force itself.
    std::memmove(current.valid_map, bme.valid_map, g_efs_valid_block_num);
    std::memmove(current.non_valid_map, bme.non_valid_map, g_efs_non_valid_block_num);
    current.aux0 = bme.aux0;
    current.aux1 = bme.aux1;
    current.crc32 = bme.crc32;
}

} // namespace dolm::efs

namespace {

using namespace dolm::efs;

constexpr uint32_t rtfd_marker = 0x53464452; // "RDFS"

// Every number in the map stands for a block, so that what is indexed by it stays in bounds.
bool map_in_range(const uint8_t *map, uint32_t length) {
    for (uint32_t i = 0; i < length; ++i) {
        if (map[i] >= data_block_num()) {
            return false;
        }
    }
    return true;
}

bool is_usable(const EFS_bme *bme) {
    return bme != nullptr && bme->valid_map != nullptr && bme->non_valid_map != nullptr &&
           map_in_range(bme->valid_map, g_efs_valid_block_num) &&
           map_in_range(bme->non_valid_map, g_efs_non_valid_block_num);
}

uint32_t make_next_bm_erased(uint32_t next) {
    if (efs_ctx.next_bm_state == EFS_NEXT_BM_UNKNOWN) {
        if (const uint32_t status = find_next_bm_state(next); status != EFS_OK) {
            return status;
        }
    }
    if (efs_ctx.next_bm_state == EFS_NEXT_BM_NEEDS_ERASE) {
        return erase_bm(next);
    }
    return EFS_OK;
}

// The entry goes down before the header: a BM without a good header does not count, so the header
// alone is the act of switching.
uint32_t write_new_bm(uint32_t index, const EFS_bme &bme, uint8_t *entry) {
    lay_out_bme(bme, entry);
    const uint32_t status = write_to_erased(bm_address(index) + first_bme, bme_size(), entry);
    if (status != EFS_OK) {
        return status;
    }
    uint8_t header[bm_header::size];
    build_bm_header(efs_ctx.bm_sequence + 1, header);
    return write_to_erased(bm_address(index), sizeof header, header);
}

// A failure does no harm: the old BM loses by its lower sequence.
void retire_bm(uint32_t index) {
    const uint8_t zeros[bm_header::size] = {};
    write_verified(bm_address(index), sizeof zeros, zeros);
}

uint32_t switch_bm(const EFS_bme &bme) {
    if (g_efs_bm_num < 2) {
        return EFS_BAD_DATA; // the next BM would be the one in force
    }
    const byte_array entry = allocate_bytes(bme_size());
    if (!entry) {
        return EFS_NO_MEMORY;
    }
    if (efs_ctx.bm_sequence == UINT32_MAX) {
        return EFS_SEQUENCE_EXHAUSTED;
    }
    const uint32_t old = efs_ctx.current_bm;
    const uint32_t next = next_bm();
    if (const uint32_t status = make_next_bm_erased(next); status != EFS_OK) {
        return status;
    }
    efs_ctx.next_bm_state = EFS_NEXT_BM_UNKNOWN;
    if (const uint32_t status = write_new_bm(next, bme, entry.get()); status != EFS_OK) {
        return status;
    }
    efs_ctx.bme_offset = first_bme;
    ++efs_ctx.bm_sequence;
    efs_ctx.current_bm = next;
    adopt_mapping(bme);
    retire_bm(old);
    return EFS_OK;
}

uint32_t append_bme(const EFS_bme &bme, const uint8_t *entry) {
    const uint32_t offset = efs_ctx.bme_offset + bme_size();
    const uint32_t status =
        write_to_erased(bm_address(efs_ctx.current_bm) + offset, bme_size(), entry);
    if (status != EFS_OK) {
        efs_ctx.bm_switch_pending = 1; // the slot may be half written
        return status;
    }
    efs_ctx.bme_offset = offset;
    adopt_mapping(bme);
    return EFS_OK;
}

uint32_t erase_bms_of_unmounted_store() {
    uint32_t status = EFS_physical_init(0);
    for (uint32_t i = 0; i < g_efs_bm_num && status == EFS_OK; ++i) {
        status = EFS_physical_erase(bm_address(i), block_size);
    }
    return status;
}

// The BM in force goes last: until then the store still mounts.
uint32_t erase_bms_of_mounted_store() {
    uint32_t status = EFS_OK;
    for (uint32_t i = 0; i < g_efs_bm_num && status == EFS_OK; ++i) {
        if (i != efs_ctx.current_bm) {
            status = erase_bm(i);
        }
    }
    return status == EFS_OK ? erase_bm(efs_ctx.current_bm) : status;
}

} // namespace

namespace dolm::efs {

uint32_t find_next_bm_state(uint32_t index) {
    uint8_t *const page = efs_ctx.page_buffer;
    const uint32_t status = read_until(bm_address(index), block_size, page,
                                       [page] { return is_erased(page, block_size); });
    if (status != EFS_OK && status != EFS_BAD_DATA) {
        return status;
    }
    efs_ctx.next_bm_state = status == EFS_OK ? EFS_NEXT_BM_ERASED : EFS_NEXT_BM_NEEDS_ERASE;
    return EFS_OK;
}

uint32_t erase_bm(uint32_t index) {
    efs_ctx.next_bm_state = EFS_NEXT_BM_UNKNOWN;
    // An erase that is cut short must leave a header that fails, not one that may still pass.
    const uint8_t zero[4] = {};
    const uint32_t status =
        EFS_physical_write(bm_address(index) + bm_header::crc32, sizeof zero, zero);
    return status == EFS_OK ? EFS_physical_erase(bm_address(index), block_size) : status;
}

uint32_t commit_bme(EFS_bme &bme, uint32_t aux0, uint32_t aux1) {
    const byte_array entry = allocate_bytes(bme_size());
    if (!entry) {
        return EFS_NO_MEMORY;
    }
    bme.aux0 = aux0;
    bme.aux1 = aux1;
    seal_bme(bme, entry.get());
    const bool no_room = efs_ctx.bme_offset + 2 * bme_size() > bme_limit;
    if (!no_room && efs_ctx.bm_switch_pending == 0) {
        return append_bme(bme, entry.get());
    }
    const uint32_t status = switch_bm(bme);
    if (status == EFS_OK) {
        efs_ctx.bm_switch_pending = 0;
    }
    return status;
}

} // namespace dolm::efs

uint32_t EFS_switch_BM(const EFS_bme *bme) {
    if (!is_mounted()) {
        return EFS_NOT_MOUNTED;
    }
    return is_usable(bme) ? switch_bm(*bme) : EFS_INVALID;
}

uint32_t EFS_check_next_BM_state(uint32_t index) {
    if (geometry_changed()) {
        return EFS_NOT_MOUNTED;
    }
    if (index >= g_efs_bm_num) {
        return EFS_INVALID;
    }
    return find_next_bm_state(index);
}

uint32_t EFS_erase_next_BM(uint32_t index) {
    if (geometry_changed()) {
        return EFS_NOT_MOUNTED;
    }
    if (index >= g_efs_bm_num) {
        return EFS_INVALID;
    }
    return erase_bm(index);
}

uint32_t EFS_write_RTFD_marker() {
    if (geometry_changed()) {
        return EFS_NOT_MOUNTED;
    }
    if (const uint32_t status = EFS_physical_init(0); status != EFS_OK) {
        return status;
    }
    uint8_t marker[4];
    dolm::store_le32(marker, rtfd_marker);
    return EFS_physical_write(0, sizeof marker, marker);
}

uint32_t EFS_commit_BME(EFS_bme *bme, uint32_t aux0, uint32_t aux1) {
    if (!is_mounted()) {
        return EFS_NOT_MOUNTED;
    }
    return is_usable(bme) ? commit_bme(*bme, aux0, aux1) : EFS_INVALID;
}

uint32_t EFS_erase() {
    if (geometry_changed()) {
        return EFS_NOT_MOUNTED;
    }
    const uint32_t status =
        efs_ctx.initialized == 0 ? erase_bms_of_unmounted_store() : erase_bms_of_mounted_store();
    efs_ctx.initialized = 0;
    return status;
}
