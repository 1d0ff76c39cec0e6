#include "damage.h"

#include <algorithm>

#include "AfsCrc.h"
#include "EFS.h"
#include "afs/ftl_format.h"
#include "efs/efs_format.h"
#include "efs_tools_utils.h"
#include "image/afs_image.h"

namespace damage {

std::vector<Edit> parse_edits(std::span<const uint8_t> input) {
    constexpr size_t most = 64;
    std::vector<Edit> edits;
    for (; input.size() >= edit_size && edits.size() < most; input = input.subspan(edit_size)) {
        const uint32_t position = dolm::load_le32(input.data()) >> 8;
        edits.push_back({input[0], position, input[4]});
    }
    return edits;
}

void set_byte(Image &image, const Edit &edit) {
    image[edit.position % image.size()] = edit.value;
}

void set_afs_metadata(Image &image, const Edit &edit) {
    const dolm::AfsImage store = dolm::read_afs_image(image);
    if (store.pages.empty()) {
        return;
    }
    const size_t va = edit.position % (store.pages.size() * AFS_PAGE_SIZE);
    const auto &place = store.pages[va / AFS_PAGE_SIZE];
    if (place) {
        image[place->eu * AFS_EU_SIZE + dolm::log_slot_offset(place->slot) + va % AFS_PAGE_SIZE] =
            edit.value;
    }
}

namespace {

void repair_page(uint8_t *slot, uint32_t page) {
    dolm::store_le16(slot + dolm::page_crc_offset, dolm::page_crc(slot, page));
}

void repair_eu_header(uint8_t *eu) {
    if (dolm::load_le32(eu) == dolm::eu_magic) {
        eu[dolm::eu_crc_offset] = static_cast<uint8_t>(crc8(eu, dolm::eu_crc_offset));
    }
}

} // namespace

void repair_afs(Image &image) {
    for (size_t at = 0; at + AFS_EU_SIZE <= image.size(); at += AFS_EU_SIZE) {
        repair_eu_header(&image[at]);
    }
    const dolm::AfsImage store = dolm::read_afs_image(image);
    for (uint32_t page = 0; page < store.pages.size(); ++page) {
        if (const auto &place = store.pages[page]) {
            repair_page(&image[place->eu * AFS_EU_SIZE + dolm::log_slot_offset(place->slot)], page);
        }
    }
    for (size_t eu = 0; eu < store.eus.size(); ++eu) {
        if (store.eus[eu].role != dolm::AfsRole::data) {
            continue;
        }
        for (uint32_t slot = 0; slot < AFS_DATA_EU_PAGES; ++slot) {
            repair_page(&image[eu * AFS_EU_SIZE + dolm::data_slot_offset(slot)],
                        store.eus[eu].va_base + slot);
        }
    }
}

namespace {

namespace format = dolm::efs;

// The CRC behind size bytes.
void repair_crc32(uint8_t *bytes, uint32_t size) {
    dolm::store_le32(bytes + size, EFS_crc32(0, bytes, size));
}

void repair_block_map(uint8_t *bm) {
    const uint32_t entry_size =
        g_efs_valid_block_num + g_efs_non_valid_block_num + format::bme_overhead;
    if (dolm::load_le16(bm) == format::bm_version) {
        repair_crc32(bm, format::bm_header::crc32);
    }
    for (uint32_t at = format::first_bme; at + entry_size <= format::bme_limit; at += entry_size) {
        if (dolm::load_le32(bm + at) != 0xFFFFFFFF) {
            repair_crc32(bm + at, entry_size - sizeof(uint32_t));
        }
    }
}

void repair_first_record(Image &image, const EFS_file_entry &file) {
    if (!file.present || file.block >= g_efs_valid_block_num || file.offset > format::record_room) {
        return;
    }
    const uint32_t block = g_efs_bm_num + efs_ctx.current_bme.valid_map[file.block];
    uint8_t *area = &image[block * size_t{format::block_size} + format::data_area];
    uint8_t *record = area + file.offset;
    const uint32_t size = dolm::load_le16(record);
    const uint32_t covered =
        size == format::no_file ? 0 : std::min(size, format::record_room - file.offset);
    const uint16_t crc = static_cast<uint16_t>(EFS_crc16(file.block, record, 2));
    dolm::store_le16(
        record + format::file_record::crc16,
        static_cast<uint16_t>(EFS_crc16(crc, record + format::file_record::payload, covered)));
}

} // namespace

void repair_efs(Image &image) {
    if (image.size() < EFS_get_efs_size()) {
        return;
    }
    const auto repair_blocks = [&image] {
        const size_t blocks = image.size() / format::block_size;
        for (size_t i = g_efs_bm_num; i < blocks; ++i) {
            uint8_t *block = &image[i * format::block_size];
            if (dolm::load_le32(block + format::footer) != 0xFFFFFFFF) {
                repair_crc32(block + format::data_area, format::data_area_size);
            }
            if (dolm::load_le32(block + format::block_header::crc32) != 0) {
                repair_crc32(block, format::block_header::crc32);
            }
        }
    };
    for (uint32_t i = 0; i < g_efs_bm_num; ++i) {
        repair_block_map(&image[i * size_t{format::block_size}]);
    }
    repair_blocks();
    if (EFS_init_tools(image.data()) == EFS_OK) {
        for (uint32_t i = 0; i < g_efs_files_num; ++i) {
            repair_first_record(image, EFS_files[i]);
        }
        repair_blocks();
    }
}

} // namespace damage
