#include "host/flash_images.h"

#include <string>

#include "EFS.h"
#include "efs_tools_utils.h"
#include "host/errors.h"
#include "proof/afs_build.h"

namespace dolm {

namespace {

// Formats the image in place. The first mount finds nothing and only attaches it.
void format_efs(Bytes &image) {
    EFS_init_tools(image.data());
    require_done(EFS_do_format(), "the format of the EFS image");
    require_done(EFS_init_tools(image.data()), "the mount of the EFS image");
}

} // namespace

Bytes flash_content(const ManifestFile &file) {
    Bytes content = file.flash->bytes();
    if (file.trailer) {
        const Bytes trailer = file.trailer->bytes();
        content.insert(content.end(), trailer.begin(), trailer.end());
    } else {
        content.resize(content.size() + trailer_length(file.attributes), trailer_filler);
    }
    return content;
}

Bytes make_qfs_image(const Manifest &manifest) {
    if (!manifest.afs) {
        return {};
    }
    std::vector<AfsFileInput> inputs;
    for (const ManifestFile &file : manifest.files) {
        if (file.is_in_afs() && file.flash) {
            inputs.push_back({file.id, flash_content(file)});
        }
    }
    try {
        return build_afs_image(*manifest.afs, inputs);
    } catch (const AfsBuildError &error) {
        throw Failure(error.what());
    }
}

Bytes make_efs_image(const Manifest &manifest, const Bytes &ftbl) {
    const EfsSection *section = manifest.efs_image_section();
    if (section == nullptr) {
        return {};
    }
    const uint32_t sku =
        section->has_sku(manifest.default_sku) ? manifest.default_sku : section->skus.front();
    require_done(load_file_table(ftbl.data(), sku, static_cast<uint32_t>(ftbl.size())),
                 "load_file_table");
    Bytes image(EFS_get_efs_size(), 0xFF);
    format_efs(image);
    for (const ManifestFile &file : manifest.files) {
        if (file.is_in_efs() && file.flash) {
            Bytes content = flash_content(file);
            const auto size = static_cast<uint32_t>(content.size());
            content.push_back(0); // so that the data of an empty file is not null
            require_done(EFS_write(file.id, 0, size, content.data()), "the write of " + file.name);
        }
    }
    return image;
}

} // namespace dolm
