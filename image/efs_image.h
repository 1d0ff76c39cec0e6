// A reader of EFS images that shares no code and no header with the store, on purpose: so
// a mistake of the one is not the other's as well. It takes the bytes as they lie on the
// flash, interrupted operations included, and says what a mount and a scan would find: the block
// maps, the mapping in force, the part that each block plays, and the files with their contents.
// Nothing that the bytes say is trusted: what does not fit goes into a list of damages and the
// reader goes on with the rest as far as it can.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "image/efs_records.h"

namespace dolm {

// A file of the list that belongs to an image.
struct EfsPlace {
    uint32_t number = 0;   // slot in the file list
    uint32_t block = 0;    // first logical block
    uint32_t offset = 0;   // of its record in that block's data area
    uint32_t max_size = 0; // bytes
};

// What an image does not say itself.
struct EfsLayout {
    uint32_t bm_num = 2;
    uint32_t valid_blocks = 7;
    uint32_t spare_blocks = 3;
    uint32_t layout_id = 0;
    std::vector<EfsPlace> files;

    uint32_t data_blocks() const { return valid_blocks + spare_blocks; }
    uint32_t image_size() const { return (bm_num + data_blocks()) * efs::block_size; }
};

enum class EfsBmState : uint8_t {
    erased,  // no header; there may be entries that never came into force
    retired, // header zeroed after a switch
    broken,  // header that fails: torn, or the block was being erased
    good
};

struct EfsBm {
    EfsBmState state = EfsBmState::broken;
    uint32_t sequence = 0;  // of a good header
    uint32_t layout_id = 0; // of a good header
    uint32_t entries = 0;   // slots before the first erased one
};

enum class EfsBlockState : uint8_t {
    live,     // behind a logical block
    free,     // erased spare with a good header
    dirty,    // spare with stale data
    no_header // caught in an erase
};

struct EfsBlock {
    EfsBlockState state = EfsBlockState::no_header;
    uint32_t index = 0;       // logical block of a live block, slot of a spare
    uint32_t erase_count = 0; // of a good header
    bool footer_good = false; // of a live block
};

struct EfsFile {
    enum class Kind : uint8_t { absent, contents, damaged };

    EfsPlace place;
    Kind kind = Kind::damaged;
    std::vector<uint8_t> contents; // its size is the file's size
};

// A rule of the format that an image breaks, and where, as far as it can be placed.
struct EfsDamage {
    enum class Rule : uint8_t {
        size,     // of the image
        geometry, // of the BM: another than the layout's
        mapping,  // no BM, or no entry of the BM, that can be mounted
        entry,    // of the BM: its maps are no permutation
        erased,   // the rest of the BM is not
        block,    // physical: header or footer of a live one, or one spare too many without header
        record,   // of the file in the logical block: fails its checksum
        limit,    // of the file: it is longer than its place
        place     // of the file: it runs past the last logical block
    };

    Rule rule = Rule::size;
    std::string text;
    std::optional<uint32_t> bm = {};
    std::optional<uint32_t> entry = {};
    std::optional<uint32_t> block = {};
    std::optional<uint32_t> logical = {};
    std::optional<uint32_t> file = {};
};

struct EfsImage {
    std::vector<EfsBm> bms;

    // The rest is only filled in if there is a mapping.
    std::optional<uint32_t> bm_in_force;
    uint32_t entry_in_force = 0; // slot of the BM in force
    bool torn_entry = false;     // a torn entry lies behind it
    std::vector<uint32_t> valid_map;
    std::vector<uint32_t> spare_map;
    std::vector<EfsBlock> blocks; // by physical number
    std::vector<EfsFile> files;   // in the order of the layout's list

    // Every rule of the format that the image breaks. An image that was cut at any point of an
    // operation on its files breaks none.
    std::vector<EfsDamage> damages;
};

EfsImage read_efs_image(std::span<const uint8_t> bytes, const EfsLayout &layout);

// The damages, one sentence each.
std::vector<std::string> efs_damages(const EfsImage &image);

} // namespace dolm
