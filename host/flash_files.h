// The files of both flash stores under the names that the table of one SKU gives them, read
// without the library and so also from images that it refuses.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "host/errors.h"
#include "host/manifest.h"
#include "host/set_files.h"

namespace dolm {

struct FlashFile {
    std::string name;    // "afs:13" or "efs:13", by its id, if the SKU has none for it
    uint32_t number = 0; // with the class on top; 0 if the SKU has none
    bool is_in_efs = false;
    uint16_t id = 0;
    uint16_t attributes = 0;
    std::optional<uint32_t> max_size; // of the value, where the SKU has the file
    std::optional<Bytes> content;     // with the trailer; nothing if there is none or it is damaged
    std::vector<std::string> damages;

    // Bytes behind the value.
    size_t trailer() const;
};

// In the order of the table, those of no name behind them. What is wrong with the images as a whole
// goes into problems, with the file of the set as its source.
std::vector<FlashFile> flash_files(const SetFiles &set, uint32_t sku,
                                   std::vector<Problem> &problems);

// The one file of a name, with or without "/home/" in front, or of a number with the class on top;
// null if there is none.
const FlashFile *find_file(const std::vector<FlashFile> &files, const std::string &word);

// The files that words mean: the same, or patterns. Throws UsageError over a word that means none.
std::vector<const FlashFile *> files_meant(const std::vector<FlashFile> &files,
                                           const std::vector<std::string> &words);

} // namespace dolm
