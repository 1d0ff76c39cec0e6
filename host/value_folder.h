// Values as files below a folder: at the paths of their names, of which none leads out of the
// folder and no two are the same, whatever the names hold.
#pragma once

#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "image/bytes.h"

namespace dolm {

class ValueFolder {
  public:
    explicit ValueFolder(std::filesystem::path folder) : folder_(std::move(folder)) {}

    // Writes a value and gives its path below the folder, with slashes: that of its name below a
    // folder for its kind (none if it is empty), with the suffix behind it. Characters that not
    // every file system takes become %XX, and a path that another value has gets a "~". Throws
    // Failure.
    std::string add(std::string_view kind, std::string_view name, std::string_view suffix,
                    const Bytes &value);

    // Writes a file at a path of the caller's and makes the folders on the way to it. What has its
    // name goes. Throws Failure.
    void write(const std::string &path, const Bytes &content);

    // Takes away again what was written, and the folders below this one that are empty then.
    void discard();

  private:
    std::string take_path(std::string_view kind, std::string_view name, std::string_view suffix);

    const std::filesystem::path folder_;
    std::vector<std::string> written_;
    std::map<std::string, bool> known_; // folders that are there, and whether they were made here

    // Paths that are taken, in lower case, since some file systems take both cases for one.
    std::set<std::string> files_;
    std::set<std::string> folders_;
};

} // namespace dolm
