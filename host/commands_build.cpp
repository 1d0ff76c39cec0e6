#include "host/commands.h"
#include "host/errors.h"
#include "host/flash_images.h"
#include "host/manifest.h"
#include "host/output.h"
#include "host/set_files.h"
#include "host/tables.h"

namespace dolm {

namespace {

void print_built(const BuildOptions &options, const Manifest &manifest) {
    if (tells_json()) {
        print_json({{"set", options.folder.string()},
                    {"files", manifest.files.size()},
                    {"skus", manifest.skus},
                    {"default_sku", manifest.default_sku}});
    } else {
        print_line(options.folder.string() + ": " + std::to_string(manifest.files.size()) +
                   " files, " + std::to_string(manifest.skus.size()) + " SKUs, default SKU " +
                   std::to_string(manifest.default_sku));
    }
    flush_output();
}

} // namespace

void build_set(const BuildOptions &options) {
    refuse_other_set(options.folder, options.replace);
    const Manifest manifest =
        options.manifest ? load_manifest(*options.manifest)
                         : parse_manifest(sample_manifest_text(), "the built-in manifest", {});
    SetFiles set;
    set.sku = manifest.default_sku;
    set.ftbl = make_ftbl(manifest);
    set.orvel_cfg = make_orvel_cfg(manifest);
    set.vync_cfg = make_vync_cfg(manifest);
    set.qfs_image = make_qfs_image(manifest);
    set.efs_image = make_efs_image(manifest, set.ftbl);
    const SetFolder folder(options.folder, SetFolder::Use::change, options.lock_timeout);
    refuse_other_set(options.folder, options.replace); // others may have made one meanwhile
    folder.save(set, [&] { print_built(options, manifest); });
}

} // namespace dolm
