#include "host/image_table.h"

#include "host/errors.h"
#include "host/table_entries.h"
#include "image/efs_layout.h"
#include "image/file_table.h"

namespace dolm {

namespace fs = std::filesystem;

FileNames ImageTable::names_in(Store store) const {
    return ftbl.empty() || !sku ? FileNames{} : names_in_store(ftbl, *sku, store);
}

FileNames ImageTable::names_by_number() const {
    FileNames names;
    for (const FtblRow &row : read_file_table(ftbl).rows) {
        for (const FtblEntry &entry : row.entries) {
            names.emplace(entry.number, entry.name);
        }
    }
    return names;
}

EfsLayout ImageTable::efs_layout(const std::string &file) const {
    if (ftbl.empty() || !sku) {
        throw UsageError(file + " is no AFS image; for an EFS image give its file table with "
                                "--ftbl and --sku");
    }
    return read_efs_layout(ftbl, *sku);
}

ImageTable find_table(const ImageOptions &options, const SetFolder *set) {
    ImageTable table;
    if (options.ftbl) {
        table.ftbl = read_file(*options.ftbl, max_table_size);
    } else if (set != nullptr && fs::exists(set->path() / "ftbl.bin")) {
        table.ftbl = read_file(set->path() / "ftbl.bin", max_table_size);
    }
    table.sku = options.sku;
    if (!table.sku && !options.ftbl && set != nullptr) {
        if (const auto settings = set->settings()) {
            table.sku = settings->sku;
        }
    }
    return table;
}

ImageFile read_image_file(const ImageOptions &options) {
    std::optional<SetFolder> set;
    const fs::path folder = options.path.parent_path().empty() ? "." : options.path.parent_path();
    if (options.path != "-" && holds_set(folder)) {
        set.emplace(folder, SetFolder::Use::read, options.lock_timeout);
    }
    return {options.path.filename().string(), read_file(options.path, max_table_size),
            find_table(options, set ? &*set : nullptr)};
}

std::vector<ImageFile> read_set_images(const ImageOptions &options) {
    const SetFolder set(options.path, SetFolder::Use::read, options.lock_timeout);
    const ImageTable table = find_table(options, &set);
    std::vector<ImageFile> images;
    for (const char *name : {"qfs.img", "efs.img"}) {
        if (fs::exists(set.path() / name)) {
            images.push_back({name, read_file(set.path() / name, max_table_size), table});
        }
    }
    return images;
}

} // namespace dolm
