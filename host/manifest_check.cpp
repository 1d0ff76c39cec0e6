#include "host/manifest_check.h"

#include <algorithm>
#include <map>
#include <set>
#include <string>
#include <utility>

#include "FCS.h"
#include "host/manifest_check_efs.h"
#include "host/set_files.h"
#include "image/fcs_store.h"

namespace dolm {

std::string quoted(const std::string &name) {
    constexpr size_t most_shown = 2 * ftbl::name_size;
    return "\"" + name.substr(0, most_shown) + (name.size() > most_shown ? "...\"" : "\"");
}

std::string bytes(uint64_t count) {
    return std::to_string(count) + " bytes";
}

uint32_t flash_size(const ManifestFile &file) {
    const size_t trailer = file.trailer ? file.trailer->size() : trailer_length(file.attributes);
    return static_cast<uint32_t>(file.flash->size() + trailer);
}

namespace {

bool share_a_sku(const ManifestFile &one, const ManifestFile &other) {
    return std::any_of(one.skus.begin(), one.skus.end(),
                       [&](uint32_t sku) { return other.has_sku(sku); });
}

// Remembers the files with each key and doubts the others that one SKU has with it.
template <typename Key>
class Unique {
  public:
    Unique(std::string of_what, Problems &found) : what(std::move(of_what)), problems(found) {}

    void add(const Key &key, const ManifestFile &file, const std::string &shown) {
        std::vector<const ManifestFile *> &files = seen[key];
        const auto first = std::find_if(files.begin(), files.end(), [&](const ManifestFile *other) {
            return share_a_sku(*other, file);
        });
        if (first == files.end()) {
            files.push_back(&file); // at most one for each SKU
            return;
        }
        problems.doubt(file.place, what + " " + shown + " is taken by " + quoted((*first)->name) +
                                       " at " + (*first)->place);
    }

  private:
    std::string what;
    Problems &problems;
    std::map<Key, std::vector<const ManifestFile *>> seen;
};

void check_uniqueness(const Manifest &manifest, Problems &problems) {
    Unique<std::string> names("the name", problems);
    Unique<uint32_t> numbers("the file number", problems);
    Unique<std::pair<Store, uint16_t>> ids("the id", problems);
    for (const ManifestFile &file : manifest.files) {
        if (file.skus.empty()) {
            continue;
        }
        names.add(file.name, file, quoted(file.name));
        numbers.add(file.number, file, std::to_string(file.number));
        if (file.store != Store::none) {
            ids.add({file.store, file.id}, file, std::to_string(file.id));
        }
    }
}

// Remembers which files bring a content for each place where one can be.
template <typename Key>
class OneContent {
  public:
    OneContent(std::string of_what, Problems &found)
        : what_(std::move(of_what)), problems_(found) {}

    void add(const Key &key, const ManifestFile &file, const char *member) {
        const auto [first, fresh] = seen_.emplace(key, &file);
        if (!fresh) {
            problems_.add(file.place + "/" + member, "the " + what_ + " has its content from " +
                                                         quoted(first->second->name) + " at " +
                                                         first->second->place);
        }
    }

  private:
    std::string what_;
    Problems &problems_;
    std::map<Key, const ManifestFile *> seen_;
};

// Files of different SKUs may share a number or an id, but it has one content for all of them.
void check_contents_given_once(const Manifest &manifest, Problems &problems) {
    OneContent<uint32_t> bases("file number in orvel.cfg", problems);
    OneContent<uint32_t> overrides("file number in vync.cfg", problems);
    OneContent<std::pair<bool, uint16_t>> flash_files("file in flash", problems);
    for (const ManifestFile &file : manifest.files) {
        if (file.base) {
            bases.add(file.number, file, "base");
        }
        if (file.override_value) {
            overrides.add(file.number, file, "override");
        }
        if (file.is_in_flash()) {
            flash_files.add({file.is_in_efs(), file.id}, file, "flash");
        }
    }
}

void check_name(const ManifestFile &file, Problems &problems) {
    const std::string place = file.place + "/name";
    if (file.name.find('\0') != std::string::npos) {
        problems.add(place, "a name without NUL characters is needed here");
    }
    if (file.name.empty() && !file.skus.empty()) {
        problems.doubt(place, "a name is needed here");
    }
    if (file.name.size() > ftbl::name_size) {
        problems.add(place, quoted(file.name) + " has " + bytes(file.name.size()) + ", at most " +
                                std::to_string(ftbl::name_size) + " fit");
    }
    if (file.base && !file.skus.empty() && !file.name.starts_with("/home/")) {
        problems.doubt(place, quoted(file.name) +
                                  " could not be looked up: names of NVARs begin with /home/");
    }
}

void check_value(const ManifestFile &file, const char *member, const std::optional<Content> &value,
                 Problems &problems) {
    if (!value) {
        return;
    }
    const uint32_t limit = std::min(file.max_size, fcs::max_payload);
    const std::string place = file.place + "/" + member;
    const std::string text =
        "the value has " + bytes(value->size()) + ", over the limit of " + bytes(limit);
    if (value->size() > fcs::max_payload) {
        problems.add(place, text);
    } else if (value->size() > limit && !file.skus.empty()) {
        problems.doubt(place, text);
    }
}

void check_skus(const Manifest &manifest, Problems &problems) {
    const auto known = [&](uint32_t sku) {
        return std::find(manifest.skus.begin(), manifest.skus.end(), sku) != manifest.skus.end();
    };
    if (!known(manifest.default_sku)) {
        problems.doubt("/default_sku", "not one of the SKUs in /skus");
    }
    for (const ManifestFile &file : manifest.files) {
        for (const uint32_t sku : file.skus) {
            if (!known(sku)) {
                problems.add(file.place + "/skus",
                             "SKU " + std::to_string(sku) + " is not one of those in /skus");
            }
        }
    }
}

// All values of one table, which is refused when it is read back if it is over the limit.
void check_table_size(const Manifest &manifest, const char *member,
                      std::optional<Content> ManifestFile::*value, Problems &problems) {
    uint64_t size = 0;
    for (const ManifestFile &file : manifest.files) {
        size += file.*value ? sizeof(_cfg_file_entry_t) + (file.*value)->size() : 0;
    }
    if (size > max_table_size) {
        problems.add("/files", std::string("the '") + member + "' values take " + bytes(size) +
                                   " together, over the limit of " + bytes(max_table_size));
    }
}

void check_trailer(const ManifestFile &file, Problems &problems) {
    const std::string place = file.place + "/trailer_content";
    if (file.trailer && !file.flash) {
        problems.add(place, "there is no content in flash that could have a trailer");
    } else if (file.trailer && file.trailer->size() != trailer_length(file.attributes)) {
        problems.doubt(place, "the file's trailer has " + bytes(trailer_length(file.attributes)) +
                                  ", not " + bytes(file.trailer->size()));
    }
}

void check_afs_file(const AfsLayout &afs, const ManifestFile &file, Problems &problems) {
    if (file.id == 0) {
        problems.doubt(file.place + "/id", "file 0 of AFS cannot be used: it reads as no file");
    }
    if (file.id >= afs.file_count) {
        const std::string text = "AFS has " + std::to_string(afs.file_count) +
                                 " file slots, the last is " + std::to_string(afs.file_count - 1);
        if (file.flash) {
            problems.add(file.place + "/id", text);
        } else {
            problems.doubt(file.place + "/id", text);
        }
    }
    if (file.flash && flash_size(file) > AFS_MAX_FILE_SIZE) {
        problems.add(file.place + "/flash",
                     "a file of AFS has at most " + bytes(AFS_MAX_FILE_SIZE));
    }
}

void check_place(const ManifestFile &file, Problems &problems) {
    if (file.store > Store::efs) {
        problems.doubt(file.place + "/store",
                       "there is no store " + std::to_string(static_cast<unsigned>(file.store)));
    }
    if (file.is_in_efs() && !file.efs && !file.skus.empty()) {
        problems.doubt(file.place, "'efs' is missing, the file's place in EFS");
    }
    if (file.efs && (file.attributes & attribute_trailer) == 0 &&
        file.efs->max_size < file.max_size) {
        problems.doubt(file.place + "/efs/max_size",
                       "less than the file's own limit of " + bytes(file.max_size) +
                           ", so that a good value could not be written");
    }
}

// The layout by itself, and room for the contents in it.
void check_afs_room(const Manifest &manifest, Problems &problems) {
    try {
        uint64_t chunks = 0;
        for (const ManifestFile &file : manifest.files) {
            if (file.store == Store::afs && file.flash) {
                chunks += afs_chunks(flash_size(file));
            }
        }
        if (const auto problem = afs_room_problem(*manifest.afs, chunks)) {
            problems.add("/afs/data_units", *problem);
        }
    } catch (const AfsBuildError &error) {
        problems.add("/afs", error.what());
    }
}

void check_stores(const Manifest &manifest, Problems &problems) {
    if (manifest.afs) {
        check_afs_room(manifest, problems);
    }
    for (const EfsSection &section : manifest.efs) {
        check_efs_section(manifest, section, problems);
    }
    for (const ManifestFile &file : manifest.files) {
        check_place(file, problems);
        check_trailer(file, problems);
        if (file.is_in_afs() && manifest.afs) {
            check_afs_file(*manifest.afs, file, problems);
        } else if (file.is_in_efs() && file.flash) {
            check_efs_content(manifest, file, problems);
        } else if (file.flash) {
            problems.add(file.place + "/flash", file.is_in_afs()
                                                    ? "the manifest has no 'afs' section"
                                                    : "a file without a store has none");
        }
    }
}

// In a deployed VFS termination writes every NVAR back whose file has no trailer, and fails if one
// of them is not there.
void check_deployed(const Manifest &manifest, Problems &problems) {
    using Place = std::pair<bool, uint16_t>;
    std::set<Place> in_flash; // whichever of the files with an id has the content
    std::map<uint32_t, const ManifestFile *> with_base; // the file that brings it
    for (const ManifestFile &file : manifest.files) {
        if (file.is_in_flash()) {
            in_flash.insert({file.is_in_efs(), file.id});
        }
        if (file.base) {
            with_base.emplace(file.number, &file);
        }
    }
    const auto marker =
        std::find_if(manifest.files.begin(), manifest.files.end(), [](const ManifestFile &file) {
            return file.name == deploy_marker && file.flash && flash_size(file) != 0;
        });
    if (marker == manifest.files.end() || !manifest.afs) {
        return;
    }
    for (const ManifestFile &file : manifest.files) {
        const auto owner = with_base.find(file.number);
        const bool has_base = owner != with_base.end() &&
                              (owner->second == &file || !share_a_sku(*owner->second, file));
        const bool written_back = has_base && (file.attributes & attribute_trailer) == 0;
        const bool is_there = (file.is_in_afs() || file.is_in_efs()) &&
                              in_flash.contains({file.is_in_efs(), file.id});
        if (written_back && !is_there && share_a_sku(file, *marker)) {
            problems.doubt(file.place, "not in flash and without a trailer: as the set has " +
                                           quoted(marker->name) +
                                           ", every termination would fail over it");
        }
    }
}

} // namespace

void check_manifest(const Manifest &manifest, Problems &problems) {
    check_skus(manifest, problems);
    check_uniqueness(manifest, problems);
    check_contents_given_once(manifest, problems);
    for (const ManifestFile &file : manifest.files) {
        check_name(file, problems);
        if (file.number == 0 && (!file.skus.empty() || file.base || file.override_value)) {
            problems.doubt(file.place + "/number", "number 0 with class 0 names no file");
        }
        check_value(file, "base", file.base, problems);
        check_value(file, "override", file.override_value, problems);
        if (file.base) {
            check_value(file, "flash", file.flash, problems);
        }
    }
    check_table_size(manifest, "base", &ManifestFile::base, problems);
    check_table_size(manifest, "override", &ManifestFile::override_value, problems);
    check_stores(manifest, problems);
    check_deployed(manifest, problems);
}

} // namespace dolm
