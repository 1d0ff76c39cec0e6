// Where values lie as files below a folder: at the paths of their names, of which none leads out of
// the folder and no two are the same, whatever the names hold.
#pragma once

#include <filesystem>
#include <set>
#include <string>
#include <string_view>

#include "image/bytes.h"

namespace dolm {

class ValuePaths {
  public:
    // A path that no other name was given, with slashes: below the folder (none if it is empty),
    // with the suffix behind it. Characters that not every file system takes become %XX, and a
    // path that is taken gets a "~".
    std::string take(std::string_view folder, std::string_view name, std::string_view suffix);

  private:
    // In lower case, since some file systems take both cases for one.
    std::set<std::string> files_;
    std::set<std::string> folders_;
};

// Writes a file and makes the folders on the way to it. A link that has its name goes. Throws
// Failure.
void write_value_file(const std::filesystem::path &path, const Bytes &content);

} // namespace dolm
