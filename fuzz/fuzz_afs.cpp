// AFS on damaged images: mount, size and read of all files, some changes, idle work, remount.
//
// Input: u8 base image | u8 seed of the changes, 0 modulo 4 for checksums left as damaged | edits
// (damage.h). Target bit 0 of an edit: 0 any byte of the image, 1 a byte of the metadata. An input
// of an image's size is taken as the image.

#include <algorithm>

#include "Afs.h"
#include "damage.h"
#include "fuzz/require.h"
#include "image/afs_image.h"
#include "proof/afs_build.h"
#include "proof/device.h"

namespace {

using damage::Image;

constexpr uint32_t file_count = 70;
constexpr dolm::AfsLayout layout = {.device_size = 49152, .data_eus = 3, .file_count = file_count};

// A few changes of every kind, chosen by the seed.
void change(afs_context *context, uint32_t seed, uint32_t count) {
    std::vector<uint8_t> bytes(3000, static_cast<uint8_t>(seed));
    for (uint32_t i = 0; i < count; ++i) {
        seed = seed * 1664525 + 1013904223;
        const auto file = static_cast<int32_t>(seed >> 8 & 7);
        const uint32_t offset = seed >> 11 & 0x3FF;
        const uint32_t length = seed >> 13 & 0x7FF;
        switch (seed >> 28) {
        case 0:
            afs_deletefile(context, file);
            break;
        case 1:
            afs_mark_zombie_file(context, static_cast<uint32_t>(file));
            break;
        case 2:
            afs_idle_reclaim(context);
            break;
        case 3:
            afs_force_full_reclaim(context);
            break;
        case 4:
            afs_force_dirty_erase(context);
            break;
        default:
            afs_writefile(context, file, offset, length, bytes.data(), seed & AFS_WRITE_TRUNCATE);
        }
    }
}

void read_all(afs_context *context) {
    std::vector<uint8_t> bytes(AFS_MAX_FILE_SIZE);
    for (int32_t file = 0; file < context->file_count; ++file) {
        uint32_t size = 0;
        uint32_t length = AFS_MAX_FILE_SIZE;
        const uint32_t status = afs_getfilesize(context, file, &size);
        if (status == 0 && afs_readfile(context, file, 0, &length, bytes.data()) == 0) {
            require(length <= bytes.size());
        }
    }
}

Image after_changes(Image image, uint32_t seed, uint32_t count, uint64_t events) {
    dolm::AfsMount mount(image);
    dolm::proof::DeviceDouble::instance().cut_after(events);
    change(mount.context(), seed, count);
    dolm::proof::DeviceDouble::instance().restore_power();
    return image;
}

// Fresh, populated, worn, and interrupted at each device write of a stretch of changes.
std::vector<Image> make_bases() {
    constexpr uint32_t interrupted = 200;
    std::vector<Image> bases = {dolm::format_afs_image(layout)};
    bases.push_back(after_changes(bases.back(), 1, 20, UINT64_MAX));
    bases.push_back(after_changes(bases.back(), 2, 2000, UINT64_MAX));
    const Image worn = bases.back();
    for (uint64_t events = 1; events <= interrupted; ++events) {
        bases.push_back(after_changes(worn, 3, 40, events));
    }
    return bases;
}

void run(Image &image, uint8_t seed, bool is_damaged) {
    for (uint32_t round = 0; round < 2; ++round) {
        dolm::AfsMount mount(image);
        if (mount.status() != 0) {
            require(is_damaged);
            return;
        }
        read_all(mount.context());
        change(mount.context(), seed + round, 6);
        if (!is_damaged) {
            require(dolm::check_invariants(image).empty());
        }
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const std::vector<Image> bases = make_bases();
    if (size < 2) {
        return 0;
    }
    if (size >= bases[0].size()) {
        Image image(data, data + size);
        run(image, data[0], true);
        return 0;
    }
    Image image = bases[data[0] % bases.size()];
    const std::vector<damage::Edit> edits = damage::parse_edits({data + 2, size - 2});
    for (const damage::Edit &edit : edits) {
        (edit.target % 2 == 0 ? damage::set_byte : damage::set_afs_metadata)(image, edit);
    }
    if (!edits.empty() && data[1] % 4 != 0) {
        damage::repair_afs(image);
    }
    run(image, data[1], !edits.empty());
    return 0;
}
