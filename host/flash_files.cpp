#include "host/flash_files.h"

#include <algorithm>
#include <map>
#include <stdexcept>
#include <utility>

#include "host/json_object.h"
#include "host/patterns.h"
#include "image/afs_image.h"
#include "image/efs_image.h"
#include "image/efs_layout.h"
#include "image/file_table.h"

namespace dolm {

namespace {

class Reader {
  public:
    Reader(const SetFiles &set, std::vector<Problem> &problems) : set_(set), problems_(problems) {}

    std::vector<FlashFile> read(uint32_t sku) {
        read_entries(sku);
        if (!set_.qfs_image.empty()) {
            read_afs();
        }
        if (!set_.efs_image.empty()) {
            read_efs(sku);
        }
        return std::move(files_);
    }

  private:
    void read_entries(uint32_t sku) {
        const FileTable table = read_file_table(set_.ftbl);
        const FtblRow *row = table.row_of(sku);
        if (row == nullptr) {
            problems_.push_back({"ftbl.bin", "", "", "no row for SKU " + std::to_string(sku)});
            return;
        }
        for (const FtblEntry &entry : row->entries) {
            const bool is_in_efs = entry.is_in_efs();
            if (is_in_efs || entry.is_in_afs() || (entry.store == 0 && entry.id != 0)) {
                index_.emplace(std::pair(is_in_efs, entry.id), files_.size());
                files_.push_back({std::string(entry.name),
                                  entry.number,
                                  is_in_efs,
                                  entry.id,
                                  entry.attributes,
                                  entry.max_size,
                                  {},
                                  {}});
            }
        }
    }

    // The first of the table, or one of no name.
    FlashFile &file(bool is_in_efs, uint32_t id) {
        const auto key = std::pair(is_in_efs, static_cast<uint16_t>(id));
        const auto [found, fresh] = index_.emplace(key, files_.size());
        if (fresh) {
            FlashFile unnamed;
            unnamed.name = (is_in_efs ? "efs:" : "afs:") + std::to_string(id);
            unnamed.is_in_efs = is_in_efs;
            unnamed.id = key.second;
            files_.push_back(std::move(unnamed));
        }
        return files_[found->second];
    }

    template <typename Damages>
    void place_damages(bool is_in_efs, const Damages &damages) {
        for (const auto &damage : damages) {
            if (damage.file) {
                file(is_in_efs, *damage.file).damages.push_back(damage.text);
            } else {
                problems_.push_back({is_in_efs ? "efs.img" : "qfs.img", "", "", damage.text});
            }
        }
    }

    void read_afs() {
        const AfsImage image = read_afs_image(set_.qfs_image);
        place_damages(false, image.damages);
        for (const AfsFile &found : image.files) {
            if (found.kind != AfsFile::Kind::zombie) {
                put(file(false, found.number), found.contents);
            }
        }
    }

    void read_efs(uint32_t sku) {
        try {
            const EfsImage image = read_efs_image(set_.efs_image, read_efs_layout(set_.ftbl, sku));
            place_damages(true, image.damages);
            for (const EfsFile &found : image.files) {
                if (found.kind == EfsFile::Kind::contents) {
                    put(file(true, found.place.number), found.contents);
                }
            }
        } catch (const std::runtime_error &unreadable) {
            problems_.push_back({"efs.img", "", "", unreadable.what()});
        }
    }

    static void put(FlashFile &file, const Bytes &content) {
        if (file.damages.empty()) {
            file.content = content;
        }
    }

    const SetFiles &set_;
    std::vector<Problem> &problems_;
    std::vector<FlashFile> files_;
    std::map<std::pair<bool, uint16_t>, size_t> index_;
};

} // namespace

size_t FlashFile::trailer() const {
    return trailer_length(attributes);
}

std::vector<FlashFile> flash_files(const SetFiles &set, uint32_t sku,
                                   std::vector<Problem> &problems) {
    return Reader(set, problems).read(sku);
}

const FlashFile *find_file(const std::vector<FlashFile> &files, const std::string &word) {
    const auto first_where = [&](auto &&is_wanted) {
        const auto found = std::find_if(files.begin(), files.end(), is_wanted);
        return found == files.end() ? nullptr : &*found;
    };
    for (const std::string &name : {word, full_name(word)}) {
        if (const auto *file = first_where([&](const FlashFile &f) { return f.name == name; })) {
            return file;
        }
    }
    const auto number = to_number(word);
    return number ? first_where(
                        [&](const FlashFile &f) { return f.number != 0 && f.number == *number; })
                  : nullptr;
}

std::vector<const FlashFile *> files_meant(const std::vector<FlashFile> &files,
                                           const std::vector<std::string> &words) {
    std::vector<const FlashFile *> meant;
    const auto add = [&](const FlashFile &file) {
        if (std::find(meant.begin(), meant.end(), &file) == meant.end()) {
            meant.push_back(&file);
        }
    };
    for (const std::string &word : words) {
        bool is_known = false;
        if (const FlashFile *named = find_file(files, word)) {
            add(*named);
            is_known = true;
        } else if (is_pattern(word)) {
            for (const FlashFile &file : files) {
                if (fits(word, file.name)) {
                    add(file);
                    is_known = true;
                }
            }
        }
        if (!is_known) {
            throw UsageError("neither store has a file '" + word + "'");
        }
    }
    return meant;
}

} // namespace dolm
