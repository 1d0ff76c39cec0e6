// The file table that an image alone is read with: the one that was named, or that of the set which
// the image lies in. It has the geometry of an EFS image and the names of files.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "host/commands.h"
#include "host/inspect.h"
#include "host/manifest.h"
#include "host/set_files.h"

namespace dolm {

struct ImageTable {
    Bytes ftbl; // empty if there is none
    std::optional<uint32_t> sku;

    // Of the files of a store, by id; of all files, by number. Empty without a table.
    FileNames names_in(Store store) const;
    FileNames names_by_number() const;

    // Throws UsageError without a table and a SKU; file is the image's name.
    EfsLayout efs_layout(const std::string &file) const;
};

// set is null for a file that lies in none.
ImageTable find_table(const ImageOptions &options, const SetFolder *set);

// Reads a file, and with what; the set that it lies in is locked for as long as that takes.
struct ImageFile {
    std::string name; // of the file, without its folder
    Bytes bytes;
    ImageTable table;
};
ImageFile read_image_file(const ImageOptions &options);

// The images of the set whose folder the path is.
std::vector<ImageFile> read_set_images(const ImageOptions &options);

} // namespace dolm
