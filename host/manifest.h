// The description of a set of inputs from which "build" makes one. docs/manifest.md tells what
// stands in its JSON form.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "host/content.h"
#include "image/bytes.h"
#include "image/file_table.h"
#include "proof/afs_build.h"

namespace dolm {

// The path of the file whose presence in flash makes the flash stores take part in start-up and
// termination.
inline constexpr std::string_view deploy_marker = "/home/mca/deploy";

inline constexpr size_t max_files = 65536; // whose entries for all SKUs fit a table file

// As the file table encodes them.
enum class Store : uint8_t { none = 0, afs = 1, efs = 2 };

// Where a file has its fixed place in EFS.
struct EfsPlacement {
    uint32_t block = 0;    // first logical block
    uint32_t offset = 0;   // of the first record, in the block's data area
    uint32_t max_size = 0; // of the file, trailer included
};

struct ManifestFile {
    std::string place; // JSON pointer to the description, for messages
    std::string name;
    uint32_t number = 0; // file number, the class nibble in the top four bits
    uint16_t attributes = 0;
    Store store = Store::none;
    uint16_t id = 0; // inside its store
    uint32_t max_size = 0;
    std::vector<uint32_t> skus; // that have the file
    std::optional<Content> base;
    std::optional<Content> override_value;
    std::optional<Content> flash; // in its store, without the trailer
    EfsPlacement efs;             // for a file of EFS
};

struct EfsGeometry {
    uint32_t bm_num = 2;
    uint32_t valid_blocks = 7; // logical ones
    uint32_t spare_blocks = 3;
    uint32_t files_num = 0; // file slots
    uint32_t wear_threshold = 100;
    uint32_t layout_id = 0;
};

struct Manifest {
    std::vector<uint32_t> skus;
    uint32_t default_sku = 0;
    std::optional<AfsLayout> afs;
    std::optional<EfsGeometry> efs;
    std::vector<ManifestFile> files;
};

// Reads a manifest and checks it (see manifest_check.h). File names in it are taken from folder.
// Throws Failure with one line for each problem, which names the place in the JSON text; source
// says where the text is from.
Manifest parse_manifest(std::string_view text, const std::string &source,
                        const std::filesystem::path &folder);
Manifest load_manifest(const std::filesystem::path &path);

// The manifest that is compiled in.
std::string_view sample_manifest_text();

} // namespace dolm
