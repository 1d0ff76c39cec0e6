// The description of a set of inputs from which "build" makes one. docs/manifest.md tells what
// stands in its JSON form.
#pragma once

#include <algorithm>
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

    bool operator==(const EfsPlacement &) const = default;
};

struct ManifestFile {
    std::string place = {}; // JSON pointer to the description, for messages
    std::string name = {};
    uint32_t number = 0; // file number, the class nibble in the top four bits
    uint16_t attributes = 0;
    Store store = Store::none;
    uint16_t id = 0; // inside its store
    uint32_t max_size = 0;
    std::vector<uint32_t> skus = {}; // that have the file; what no table has may still have values
    std::optional<Content> base = {};
    uint16_t base_opaque = 0; // of the record in "orvel.cfg"
    std::optional<Content> override_value = {};
    uint16_t override_opaque = 0;         // of the record in "vync.cfg"
    std::optional<Content> flash = {};    // in its store, without the trailer
    std::optional<Content> trailer = {};  // its bytes, if not the usual ones
    std::optional<EfsPlacement> efs = {}; // for a file of EFS
    std::string comment = {};

    bool has_sku(uint32_t sku) const {
        return std::find(skus.begin(), skus.end(), sku) != skus.end();
    }
    // Where a look-up of the file goes: without a store, an id leads to AFS too.
    bool is_in_afs() const { return store == Store::afs || (store == Store::none && id != 0); }
    bool is_in_efs() const { return store == Store::efs; }
    bool is_in_flash() const { return flash && (is_in_afs() || is_in_efs()); }
};

struct EfsGeometry {
    uint32_t bm_num = 2;
    uint32_t valid_blocks = 7; // logical ones
    uint32_t spare_blocks = 3;
    uint32_t files_num = 0; // file slots
    uint32_t wear_threshold = 100;
    uint32_t layout_id = 0;

    bool operator==(const EfsGeometry &) const = default;
};

// A place in the list of EFS files that no file of the manifest has.
struct EfsSlot {
    uint16_t id = 0;
    EfsPlacement placement = {};

    bool operator==(const EfsSlot &) const = default;
};

// Geometry and file list of EFS for some SKUs. The list has the files of any of them, those of no
// SKU, and further places.
struct EfsSection {
    std::string place = {}; // JSON pointer, for messages
    std::vector<uint32_t> skus = {};
    EfsGeometry geometry = {};
    bool has_image = true;
    std::vector<EfsSlot> places = {};

    bool has_sku(uint32_t sku) const {
        return std::find(skus.begin(), skus.end(), sku) != skus.end();
    }
    bool lists(const ManifestFile &file) const;
};

struct Manifest {
    std::vector<uint32_t> skus;
    uint32_t default_sku = 0;
    bool as_found = false; // describes a set that is there, whatever one may think of it
    std::optional<AfsLayout> afs;
    std::vector<EfsSection> efs;
    std::vector<ManifestFile> files;

    // The section that the EFS image is made by: that of the default SKU, else the first with an
    // image; null if there is none.
    const EfsSection *efs_image_section() const;
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
