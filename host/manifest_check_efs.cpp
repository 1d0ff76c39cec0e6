#include "host/manifest_check_efs.h"

#include <algorithm>
#include <optional>
#include <utility>
#include <vector>

#include "image/efs_records.h"

namespace dolm {

namespace {

constexpr uint32_t max_efs_file = efs::no_file - 1; // that length means that there is no file

// Who has a place in the list of EFS files.
struct EfsClaim {
    std::string place;  // JSON pointer to the place
    std::string holder; // JSON pointer to whom it belongs
    std::string name;
    uint32_t id;
    EfsPlacement placement;
    std::optional<uint32_t> content; // bytes that are to be written there
};

std::vector<EfsClaim> efs_claims(const Manifest &manifest, const EfsSection &section) {
    std::vector<EfsClaim> claims;
    for (const ManifestFile &file : manifest.files) {
        if (section.lists(file)) {
            claims.push_back({file.place + "/efs", file.place, quoted(file.name), file.id,
                              *file.efs,
                              file.flash ? std::optional(flash_size(file)) : std::nullopt});
        }
    }
    for (size_t i = 0; i < section.places.size(); ++i) {
        const EfsSlot &slot = section.places[i];
        const std::string place = section.place + "/places/" + std::to_string(i);
        claims.push_back(
            {place, place, "file " + std::to_string(slot.id), slot.id, slot.placement, {}});
    }
    return claims;
}

// The stretches of data areas that the records of an EFS file may take: (block, begin, end). The
// first record may stand anywhere, those that go on with the file stand at offset 0.
struct Stretch {
    uint32_t block;
    uint32_t begin;
    uint32_t end;
    const EfsClaim *claim;
};

void add_stretches(const EfsClaim &claim, std::vector<Stretch> &stretches) {
    uint32_t offset = claim.placement.offset;
    uint32_t rest = claim.placement.max_size;
    uint32_t block = claim.placement.block;
    while (true) {
        const uint32_t payload = std::min(rest, efs::record_room - offset);
        stretches.push_back({block, offset, offset + efs::record_head_size + payload, &claim});
        rest -= payload;
        if (rest == 0) {
            return;
        }
        offset = 0;
        ++block;
    }
}

// In which a content ends.
uint32_t last_block(const EfsPlacement &placement, uint32_t size) {
    const uint32_t bytes = placement.offset + size;
    return placement.block + (bytes == 0 ? 0 : (bytes - 1) / efs::record_room);
}

// The store rounds up with the record's head counted against the payload.
uint32_t blocks_to_write(const EfsPlacement &placement, uint32_t size) {
    return (size + efs::record_room + efs::record_head_size - 1 + placement.offset) /
           efs::record_room;
}

void check_efs_claim(const EfsGeometry &geometry, const EfsClaim &claim, Problems &problems) {
    const EfsPlacement &placement = claim.placement;
    if (claim.id >= geometry.files_num) {
        problems.add(claim.holder + "/id", "EFS has " + std::to_string(geometry.files_num) +
                                               " file slots, the last is " +
                                               std::to_string(geometry.files_num - 1));
    }
    const std::string too_long = "a file of EFS has at most " + bytes(max_efs_file);
    if (placement.max_size > max_efs_file + 1) {
        problems.add(claim.place + "/max_size", too_long);
        return;
    }
    if (placement.max_size > max_efs_file) {
        problems.doubt(claim.place + "/max_size", too_long);
    }
    std::vector<Stretch> stretches;
    add_stretches(claim, stretches);
    if (const uint32_t last = stretches.back().block; last >= geometry.valid_blocks) {
        const std::string text = "the file runs to logical block " + std::to_string(last) +
                                 ", the last is " + std::to_string(geometry.valid_blocks - 1);
        if (claim.content && last_block(placement, *claim.content) >= geometry.valid_blocks) {
            problems.add(claim.place, text);
        } else {
            problems.doubt(claim.place, text);
        }
    }
    const uint32_t needed = blocks_to_write(placement, placement.max_size);
    if (needed > geometry.spare_blocks) {
        const std::string text = "a write of " + bytes(placement.max_size) + " needs " +
                                 std::to_string(needed) + " spare blocks, there are " +
                                 std::to_string(geometry.spare_blocks);
        if (blocks_to_write(placement, claim.content.value_or(0)) > geometry.spare_blocks) {
            problems.add(claim.place, text);
        } else {
            problems.doubt(claim.place, text);
        }
    }
    if (claim.content > placement.max_size) {
        problems.add(claim.holder + "/flash", "the content has " + bytes(*claim.content) +
                                                  " with its trailer, over the limit of " +
                                                  bytes(placement.max_size));
    }
}

void check_efs_overlaps(const std::vector<EfsClaim> &claims, Problems &problems) {
    std::vector<Stretch> stretches;
    for (const EfsClaim &claim : claims) {
        if (claim.placement.max_size <= max_efs_file) {
            add_stretches(claim, stretches);
        }
    }
    std::stable_sort(stretches.begin(), stretches.end(), [](const Stretch &a, const Stretch &b) {
        return std::pair(a.block, a.begin) < std::pair(b.block, b.begin);
    });
    // The stretch that reaches furthest so far in the block.
    const Stretch *furthest = nullptr;
    for (const Stretch &stretch : stretches) {
        if (furthest == nullptr || furthest->block != stretch.block) {
            furthest = &stretch;
            continue;
        }
        if (stretch.begin < furthest->end) {
            problems.doubt(stretch.claim->place,
                           "in logical block " + std::to_string(stretch.block) +
                               " its record overlaps that of " + furthest->claim->name +
                               ", which may reach to offset " + std::to_string(furthest->end));
        }
        if (stretch.end > furthest->end) {
            furthest = &stretch;
        }
    }
}

} // namespace

void check_efs_section(const Manifest &manifest, const EfsSection &section, Problems &problems) {
    const uint32_t blocks = section.geometry.valid_blocks + section.geometry.spare_blocks;
    if (blocks < 2 || blocks > 256) {
        problems.add(section.place, "valid and non_valid together make 2 to 256 blocks");
    }
    for (size_t i = 0; i < section.skus.size(); ++i) {
        const uint32_t sku = section.skus[i];
        const auto first = std::find_if(manifest.efs.begin(), manifest.efs.end(),
                                        [&](const EfsSection &any) { return any.has_sku(sku); });
        if (&*first != &section) {
            problems.add(section.place + "/skus",
                         "SKU " + std::to_string(sku) + " has a section already");
        }
    }
    if (section.skus.empty()) {
        problems.add(section.place + "/skus", "at least one SKU is needed");
    }
    const std::vector<EfsClaim> claims = efs_claims(manifest, section);
    check_efs_overlaps(claims, problems);
    for (const EfsClaim &claim : claims) {
        check_efs_claim(section.geometry, claim, problems);
    }
}

void check_efs_content(const Manifest &manifest, const ManifestFile &file, Problems &problems) {
    const EfsSection *section = manifest.efs_image_section();
    if (section == nullptr) {
        problems.add(file.place + "/flash", "the manifest has no 'efs' section with an image");
        return;
    }
    const bool has_place = section->lists(file) ||
                           std::any_of(section->places.begin(), section->places.end(),
                                       [&](const EfsSlot &slot) { return slot.id == file.id; });
    if (!has_place) {
        problems.add(file.place + "/flash", "the content needs a place in EFS");
    }
}

} // namespace dolm
