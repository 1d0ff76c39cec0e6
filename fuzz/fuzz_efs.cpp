// EFS on damaged images and geometries: mount, read of all files, writes, deletes, idle work,
// remount.
//
// Input: u8 BMs | u8 logical blocks | u8 spare blocks | u8 cut of the power | u8 seed of the
// changes, 0 modulo 4 for checksums left as damaged | edits (damage.h) of the image's bytes.

#include <cstring>

#include "EFS.h"
#include "EFS_phy_win32.h"
#include "damage.h"
#include "efs_tools_utils.h"
#include "fuzz/require.h"
#include "proof/builders.h"
#include "proof/device.h"

namespace builders = dolm::proof::builders;

namespace {

using damage::Image;

constexpr uint32_t file_count = 6;
constexpr size_t head_size = 5;

// Files at the start, in the middle and at the very end of blocks, and one over three blocks.
void load_geometry(uint32_t bm_num, uint32_t valid, uint32_t non_valid) {
    builders::FileTable table;
    table.sku_rows = {{1, {}}};
    builders::Geometry geometry;
    geometry.bm_num = bm_num;
    geometry.valid_block_num = valid;
    geometry.non_valid_block_num = non_valid;
    geometry.files_num = file_count;
    geometry.wear_leveling_threshold = 3;
    geometry.records = {{0, 0, 0, 1000},
                        {1, 0, 2000, 500},
                        {2, 1, 4072, 5000},
                        {3, 2, 100, 10000},
                        {4, 5, 0, 65535}};
    table.geometry_rows = {geometry};
    const dolm::Bytes bytes = table.build();
    load_file_table(bytes.data(), 1, static_cast<uint32_t>(bytes.size()));
}

void change(uint32_t seed, uint32_t count) {
    static const std::vector<uint8_t> bytes(12000, 0xA5);
    for (uint32_t i = 0; i < count; ++i) {
        seed = seed * 1664525 + 1013904223;
        const uint32_t file = seed >> 8 & 7;
        const uint32_t length = (seed >> 12) % 11000 >> (seed >> 26 & 7);
        switch (seed >> 29) {
        case 0:
            EFS_delete(file);
            break;
        case 1:
            EFS_idle_reclaim();
            break;
        default:
            EFS_write(file, 0, length, bytes.data());
        }
    }
}

void read_all() {
    std::vector<uint8_t> bytes(65536);
    for (uint32_t file = 0; file < file_count; ++file) {
        uint32_t size = 0;
        EFS_get_file_size(file, &size);
        for (const uint32_t offset : {0u, 1u, size / 2, size}) {
            uint32_t length = static_cast<uint32_t>(bytes.size());
            const uint32_t rest = size == 0 ? 0 : size - offset; // an empty file takes any offset
            if (EFS_read(file, offset, &length, bytes.data()) == EFS_OK) {
                require(length == rest);
            }
        }
    }
}

// An image of the geometry in force after some changes and a cut of the power; empty if the
// geometry cannot be formatted.
Image make_base(uint8_t seed, uint8_t cut) {
    if (EFS_init(1) != EFS_OK) {
        return {};
    }
    change(seed, 10);
    if (cut != 0) {
        dolm::proof::DeviceDouble::instance().cut_after(cut);
        change(seed + 1u, 10);
        dolm::proof::DeviceDouble::instance().restore_power();
    }
    return {efs_image, efs_image + efs_size};
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < head_size) {
        return 0;
    }
    load_geometry(data[0] % 4, 1 + data[1] % 8, data[2] % 5);
    const uint8_t seed = data[4];
    Image image = make_base(seed, data[3]);
    if (image.empty()) {
        return 0;
    }
    const std::vector<damage::Edit> edits =
        damage::parse_edits({data + head_size, size - head_size});
    for (const damage::Edit &edit : edits) {
        damage::set_byte(image, edit);
    }
    if (!edits.empty() && seed % 4 != 0) {
        damage::repair_efs(image);
    }
    for (uint32_t round = 0; round < 2; ++round) {
        if (EFS_init_tools(image.data()) != EFS_OK) {
            require(!edits.empty()); // no cut of the power may cost the store
            break;
        }
        read_all();
        change(seed + round, 4);
    }
    return 0;
}
