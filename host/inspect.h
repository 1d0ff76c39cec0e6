// Showing what lies in the members of a set.
#pragma once

#include <iosfwd>
#include <map>
#include <string>
#include <vector>

#include "host/inspect_part.h"
#include "host/output.h"
#include "image/afs_image.h"
#include "image/efs_image.h"
#include "image/fcs_store.h"
#include "image/file_table.h"

namespace dolm {

// Names of a store's files by their numbers, as far as a file table gives them.
using FileNames = std::map<uint32_t, std::string>;

inline std::string name_of(const FileNames &names, uint32_t number) {
    const auto found = names.find(number);
    return found == names.end() ? "" : found->second;
}

const char *to_string(AfsRole role);
const char *to_string(EfsBmState state);
const char *to_string(EfsBlockState state);

// A line for each logical block, 128 bytes a sign: what its files take (#), what they may take (-),
// and what no file uses (.).
std::vector<std::string> draw_areas(const EfsImage &image);

void print_afs(std::ostream &out, const AfsImage &image, size_t size, const FileNames &names);
Json afs_to_json(const AfsImage &image, const FileNames &names);
// An erase unit, or a page of 64 bytes where its newest copy lies. Throw UsageError if the image
// has none of that number.
InspectedPart afs_unit(std::span<const uint8_t> bytes, const AfsImage &image, uint32_t unit);
InspectedPart afs_page(std::span<const uint8_t> bytes, const AfsImage &image, uint32_t page);

void print_efs(std::ostream &out, const EfsImage &image, const EfsLayout &layout,
               const FileNames &names);
Json efs_to_json(const EfsImage &image, const EfsLayout &layout, const FileNames &names);
// A block of the image, block maps included, or a data block by its physical number. Throw
// UsageError if the image has none of that number.
InspectedPart efs_unit(std::span<const uint8_t> bytes, const EfsLayout &layout, uint32_t unit);
InspectedPart efs_block(std::span<const uint8_t> bytes, const EfsLayout &layout, uint32_t block);

void print_table(std::ostream &out, const FileTable &table, size_t size);
Json table_to_json(const FileTable &table);

// A store of "orvel.cfg", or of "vync.cfg" behind its head.
void print_store(std::ostream &out, const FcsStore &store, const FileNames &names);
Json store_to_json(const FcsStore &store, const FileNames &names);

// The rules of their formats that they break, one sentence each.
std::vector<std::string> table_damages(const FileTable &table, size_t size);
std::vector<std::string> store_damages(const FcsStore &store);

} // namespace dolm
