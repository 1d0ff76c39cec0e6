#include "image/afs_image.h"

#include <algorithm>

#include "image/afs_reader.h"
#include "image/afs_records.h"

namespace dolm {

using namespace afs;

namespace {

// The header of the file system lies in a page of the log, and says how many pages the log can
// have. Until it is known, any page of the device may be in it.
void read_file_system(std::span<const uint8_t> bytes, AfsImage &image) {
    read_log(bytes, image, static_cast<uint32_t>(bytes.size() / page_size), true);
    std::vector<uint8_t> header_page = read_fs_header(bytes, image);
    if (!image.has_file_system) {
        return;
    }
    std::erase_if(image.damages,
                  [](const AfsDamage &found) { return found.rule == AfsDamage::Rule::log_entry; });
    read_log(bytes, image, image.data_va_start / page_size, false);
    read_slots(bytes, image, read_files(bytes, image, std::move(header_page)));
}

} // namespace

AfsImage read_afs_image(std::span<const uint8_t> bytes) {
    AfsImage image;
    if (read_erase_units(bytes, image)) {
        read_file_system(bytes, image);
    }
    check_order(image);
    return image;
}

AfsWear afs_wear(const AfsImage &image) {
    AfsWear wear;
    bool any = false;
    for (const AfsEu &eu : image.eus) {
        if (!eu.erase_count_known) {
            continue;
        }
        wear.lowest = any ? std::min(wear.lowest, eu.erase_count) : eu.erase_count;
        wear.highest = std::max(wear.highest, eu.erase_count);
        any = true;
    }
    return wear;
}

std::vector<std::string> check_invariants(const AfsImage &image) {
    std::vector<std::string> broken;
    for (const AfsDamage &damage : image.damages) {
        broken.push_back(damage.text);
    }
    return broken;
}

std::vector<std::string> check_invariants(std::span<const uint8_t> bytes) {
    return check_invariants(read_afs_image(bytes));
}

} // namespace dolm
