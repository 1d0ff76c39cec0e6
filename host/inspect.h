// Showing flash images.
#pragma once

#include <iosfwd>
#include <map>
#include <string>

#include "host/output.h"
#include "image/afs_image.h"
#include "image/efs_image.h"

namespace dolm {

// Names of a store's files by their numbers, as far as a file table gives them.
using FileNames = std::map<uint32_t, std::string>;

inline std::string name_of(const FileNames &names, uint32_t number) {
    const auto found = names.find(number);
    return found == names.end() ? "" : found->second;
}

void print_afs(std::ostream &out, const AfsImage &image, size_t size, const FileNames &names);
Json afs_to_json(const AfsImage &image, const FileNames &names);

void print_efs(std::ostream &out, const EfsImage &image, const EfsLayout &layout,
               const FileNames &names);
Json efs_to_json(const EfsImage &image, const EfsLayout &layout, const FileNames &names);

} // namespace dolm
