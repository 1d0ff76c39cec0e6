#include "host/manifest_check.h"

#include <algorithm>
#include <map>
#include <string>
#include <utility>

#include "FCS.h"
#include "host/set_files.h"
#include "image/efs_records.h"
#include "image/fcs_store.h"

namespace dolm {

namespace {

constexpr uint32_t max_efs_file = 65534; // a length of 65535 means that there is no file

std::string quoted(const std::string &name) {
    constexpr size_t most_shown = 2 * ftbl::name_size;
    return "\"" + name.substr(0, most_shown) + (name.size() > most_shown ? "...\"" : "\"");
}

std::string bytes(uint64_t count) {
    return std::to_string(count) + " bytes";
}

// Remembers the first file with each key and complains about the others.
template <typename Key>
class Unique {
  public:
    Unique(std::string of_what, Problems &found) : what(std::move(of_what)), problems(found) {}

    void add(const Key &key, const ManifestFile &file, const std::string &shown) {
        const auto [first, fresh] = seen.emplace(key, &file);
        if (!fresh) {
            problems.add(file.place, what + " " + shown + " is taken by " +
                                         quoted(first->second->name) + " at " +
                                         first->second->place);
        }
    }

  private:
    std::string what;
    Problems &problems;
    std::map<Key, const ManifestFile *> seen;
};

void check_uniqueness(const Manifest &manifest, Problems &problems) {
    Unique<std::string> names("the name", problems);
    Unique<uint32_t> numbers("the file number", problems);
    Unique<std::pair<Store, uint16_t>> ids("the id", problems);
    for (const ManifestFile &file : manifest.files) {
        names.add(file.name, file, quoted(file.name));
        numbers.add(file.number, file, std::to_string(file.number));
        if (file.store != Store::none) {
            ids.add({file.store, file.id}, file, std::to_string(file.id));
        }
    }
}

void check_name(const ManifestFile &file, Problems &problems) {
    const std::string place = file.place + "/name";
    if (file.name.empty() || file.name.find('\0') != std::string::npos) {
        problems.add(place, "a name without NUL characters is needed here");
    }
    if (file.name.size() > ftbl::name_size) {
        problems.add(place, quoted(file.name) + " has " + bytes(file.name.size()) + ", at most " +
                                std::to_string(ftbl::name_size) + " fit");
    }
    if (file.base && !file.name.starts_with("/home/")) {
        problems.add(place, quoted(file.name) +
                                " could not be looked up: names of NVARs begin with /home/");
    }
}

void check_value(const ManifestFile &file, const char *member, const std::optional<Content> &value,
                 Problems &problems) {
    if (!value) {
        return;
    }
    const uint32_t limit = std::min(file.max_size, fcs::max_payload);
    if (value->size() > limit) {
        problems.add(file.place + "/" + member, "the value has " + bytes(value->size()) +
                                                    ", over the limit of " + bytes(limit));
    }
}

void check_skus(const Manifest &manifest, Problems &problems) {
    const auto known = [&](uint32_t sku) {
        return std::find(manifest.skus.begin(), manifest.skus.end(), sku) != manifest.skus.end();
    };
    if (!known(manifest.default_sku)) {
        problems.add("/default_sku", "not one of the SKUs in /skus");
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

uint32_t flash_size(const ManifestFile &file) {
    return static_cast<uint32_t>(file.flash->size()) + trailer_length(file.attributes);
}

void check_afs_file(const AfsLayout &afs, const ManifestFile &file, Problems &problems) {
    if (file.id == 0) {
        problems.add(file.place + "/id", "file 0 of AFS cannot be used: it reads as no file");
    }
    if (file.id >= afs.file_count) {
        problems.add(file.place + "/id", "AFS has " + std::to_string(afs.file_count) +
                                             " file slots, the last is " +
                                             std::to_string(afs.file_count - 1));
    }
    if (file.flash && flash_size(file) > AFS_MAX_FILE_SIZE) {
        problems.add(file.place + "/flash",
                     "a file of AFS has at most " + bytes(AFS_MAX_FILE_SIZE));
    }
}

// The stretches of data areas that the records of an EFS file may take: (block, begin, end). The
// first record may stand anywhere, those that go on with the file stand at offset 0.
struct Stretch {
    uint32_t block;
    uint32_t begin;
    uint32_t end;
    const ManifestFile *file;
};

void add_stretches(const ManifestFile &file, std::vector<Stretch> &stretches) {
    uint32_t offset = file.efs.offset;
    uint32_t rest = file.efs.max_size;
    uint32_t block = file.efs.block;
    while (true) {
        const uint32_t payload = std::min(rest, efs::record_room - offset);
        stretches.push_back({block, offset, offset + efs::record_head_size + payload, &file});
        rest -= payload;
        if (rest == 0) {
            return;
        }
        offset = 0;
        ++block;
    }
}

void check_efs_file(const EfsGeometry &geometry, const ManifestFile &file, Problems &problems) {
    const std::string place = file.place + "/efs";
    if (file.id >= geometry.files_num) {
        problems.add(file.place + "/id", "EFS has " + std::to_string(geometry.files_num) +
                                             " file slots, the last is " +
                                             std::to_string(geometry.files_num - 1));
    }
    if (file.efs.max_size > max_efs_file) {
        problems.add(place + "/max_size", "a file of EFS has at most " + bytes(max_efs_file));
        return;
    }
    std::vector<Stretch> stretches;
    add_stretches(file, stretches);
    if (stretches.back().block >= geometry.valid_blocks) {
        problems.add(place, "the file runs to logical block " +
                                std::to_string(stretches.back().block) + ", the last is " +
                                std::to_string(geometry.valid_blocks - 1));
    }
    // The store rounds up with the record's head counted against the payload.
    const uint32_t needed =
        (file.efs.max_size + efs::record_room + efs::record_head_size - 1 + file.efs.offset) /
        efs::record_room;
    if (needed > geometry.spare_blocks) {
        problems.add(place, "a write of " + bytes(file.efs.max_size) + " needs " +
                                std::to_string(needed) + " spare blocks, there are " +
                                std::to_string(geometry.spare_blocks));
    }
    if (file.flash && flash_size(file) > file.efs.max_size) {
        problems.add(file.place + "/flash", "the content has " + bytes(flash_size(file)) +
                                                " with its trailer, over the limit of " +
                                                bytes(file.efs.max_size));
    }
    if ((file.attributes & attribute_trailer) == 0 && file.efs.max_size < file.max_size) {
        problems.add(place + "/max_size", "less than the file's own limit of " +
                                              bytes(file.max_size) +
                                              ", so that a good value could not be written");
    }
}

void check_efs_overlaps(const Manifest &manifest, Problems &problems) {
    std::vector<Stretch> stretches;
    for (const ManifestFile &file : manifest.files) {
        if (file.store == Store::efs && file.efs.max_size <= max_efs_file) {
            add_stretches(file, stretches);
        }
    }
    std::stable_sort(stretches.begin(), stretches.end(), [](const Stretch &a, const Stretch &b) {
        return std::pair(a.block, a.begin) < std::pair(b.block, b.begin);
    });
    // The stretch that reaches furthest so far in the block.
    const Stretch *furthest = nullptr;
    for (const Stretch &stretch : stretches) {
        if (furthest == nullptr || furthest->block != stretch.block) {
            furthest = &stretch;
            continue;
        }
        if (stretch.begin < furthest->end) {
            problems.add(stretch.file->place + "/efs",
                         "in logical block " + std::to_string(stretch.block) +
                             " its record overlaps that of " + quoted(furthest->file->name) +
                             ", which may reach to offset " + std::to_string(furthest->end));
        }
        if (stretch.end > furthest->end) {
            furthest = &stretch;
        }
    }
}

void check_efs_geometry(const EfsGeometry &geometry, Problems &problems) {
    const uint32_t blocks = geometry.valid_blocks + geometry.spare_blocks;
    if (blocks < 2 || blocks > 256) {
        problems.add("/efs", "valid and non_valid together make 2 to 256 blocks");
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
    if (manifest.efs) {
        check_efs_geometry(*manifest.efs, problems);
        check_efs_overlaps(manifest, problems);
    }
    for (const ManifestFile &file : manifest.files) {
        if (file.store == Store::afs && manifest.afs) {
            check_afs_file(*manifest.afs, file, problems);
        } else if (file.store == Store::efs && manifest.efs) {
            check_efs_file(*manifest.efs, file, problems);
        } else if (file.flash) {
            problems.add(file.place + "/flash",
                         file.store == Store::none  ? "a file without a store has none"
                         : file.store == Store::afs ? "the manifest has no 'afs' section"
                                                    : "the manifest has no 'efs' section");
        }
    }
}

// In a deployed VFS termination writes every NVAR back whose file has no trailer, and fails if one
// of them is not there.
void check_deployed(const Manifest &manifest, Problems &problems) {
    const auto marker =
        std::find_if(manifest.files.begin(), manifest.files.end(),
                     [](const ManifestFile &file) { return file.name == deploy_marker; });
    if (marker == manifest.files.end() || !manifest.afs || !marker->flash ||
        flash_size(*marker) == 0) {
        return;
    }
    const auto deployed_with = [&](const ManifestFile &file) {
        return std::any_of(file.skus.begin(), file.skus.end(), [&](uint32_t sku) {
            return std::find(marker->skus.begin(), marker->skus.end(), sku) != marker->skus.end();
        });
    };
    for (const ManifestFile &file : manifest.files) {
        const bool written_back = file.base && (file.attributes & attribute_trailer) == 0;
        if (written_back && !file.flash && deployed_with(file)) {
            problems.add(file.place, "not in flash and without a trailer: as the set has " +
                                         quoted(marker->name) +
                                         ", every termination would fail over it");
        }
    }
}

} // namespace

void check_manifest(const Manifest &manifest, Problems &problems) {
    check_skus(manifest, problems);
    check_uniqueness(manifest, problems);
    for (const ManifestFile &file : manifest.files) {
        check_name(file, problems);
        if (file.number == 0) {
            problems.add(file.place + "/number", "number 0 with class 0 names no file");
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
