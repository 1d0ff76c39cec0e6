// The files of the NVARs in a deployed VFS, and their values in the tables.
#include <algorithm>

#include "host/check/deployment_check.h"
#include "host/check/table_check.h"

namespace dolm {

// In a deployed VFS start-up and termination stand or fall with the files of the NVARs.
void DeploymentCheck::check_file(const FtblRow &row, const FtblEntry &entry) {
    const auto *found = flash_.contents(entry);
    const char *image = entry.is_in_efs() ? efs_img : qfs_img;
    if (entry.is_in_efs() && view_.files.efs_image.empty()) {
        return; // told with the image
    }
    if (found == nullptr) {
        tell_missing(row, entry, image);
        return;
    }
    const bool is_pulled = (entry.attributes & attribute_not_pulled) == 0;
    if (is_pulled && found->size() < entry.trailer()) {
        error(row, entry, ftbl::entry_attributes_offset, image,
              "has " + counted(found->size(), "byte") + " in flash, less than its trailer of " +
                  std::to_string(entry.trailer()) + ": start-up fails");
    } else if (is_pulled && found->size() - entry.trailer() > entry.max_size) {
        error(row, entry, ftbl::entry_max_size_offset, image,
              "has " + counted(found->size() - entry.trailer(), "byte") +
                  " in flash, over the limit of " + std::to_string(entry.max_size) +
                  ": every termination fails");
    }
}

void DeploymentCheck::tell_missing(const FtblRow &row, const FtblEntry &entry, const char *image) {
    const std::string file = "file " + std::to_string(entry.id);
    if (entry.trailer() != 0 && findings_.has_error_in(image)) {
        return;
    }
    if (entry.trailer() != 0) {
        findings_.note({image, file, "is not in flash; the value of the tables stands",
                        std::string(entry.name)});
        return;
    }
    const std::string text = "is not in flash, and every termination fails";
    if (!findings_.has_error_in(ftbl_bin) && findings_.has_error_in(image)) {
        lost_[image].insert(std::string(entry.name));
    } else if (findings_.has_error_in(ftbl_bin)) {
        error(row, entry, ftbl::entry_id_offset, image, file + " " + text);
    } else if (const auto stray = only_stray(entry)) {
        error(row, entry, ftbl::entry_id_offset, image,
              file + " " + text + "; file " + std::to_string(*stray) +
                  " is there, which no entry has");
    } else {
        findings_.error({image, file, text, std::string(entry.name)}, "missing " + file);
    }
}

std::optional<uint32_t> DeploymentCheck::only_stray(const FtblEntry &entry) const {
    std::optional<uint32_t> stray;
    for (const auto &[id, file] : flash_.afs) {
        if (entry.is_in_afs() && !afs_ids_.contains(id)) {
            if (stray) {
                return std::nullopt;
            }
            stray = id;
        }
    }
    return stray;
}

const FcsStore &DeploymentCheck::store_of(const FtblEntry &entry) const {
    return overrides_.contains(entry.number) ? view_.overrides : view_.base;
}

const FcsRecord &DeploymentCheck::value_of(const FtblEntry &entry) const {
    const auto found = overrides_.find(entry.number);
    return found == overrides_.end() ? *base_.at(entry.number) : *found->second;
}

bool DeploymentCheck::differs(const FtblEntry &entry) const {
    const auto flash = flash_.pulled(entry);
    const FcsStore &store = store_of(entry);
    const FcsRecord &record = value_of(entry);
    if (!flash || !store.has_payload(record)) {
        return false;
    }
    const auto table = store.payload(record);
    return !std::equal(flash->begin(), flash->end(), table.begin(), table.end());
}

// Another file in flash that has the table's value of this one, while its own value in the
// tables is another: the value stands under a wrong number.
const FtblEntry *DeploymentCheck::owner_of_value(const FtblRow &row, const FtblEntry &entry) const {

    const auto value = store_of(entry).payload(value_of(entry));
    const auto is_owner = [&](const FtblEntry &other) {
        const auto flash = has_value(other) ? flash_.pulled(other) : std::nullopt;
        return flash && differs(other) &&
               std::equal(flash->begin(), flash->end(), value.begin(), value.end());
    };
    const auto found = std::find_if(row.entries.begin(), row.entries.end(), is_owner);
    return value.size() < least_telling || found == row.entries.end() ? nullptr : &*found;
}

void DeploymentCheck::compare_value(const FtblRow &row, const FtblEntry &entry) {
    if (differs(entry)) {
        if (const FtblEntry *owner = owner_of_value(row, entry)) {
            tell_swapped(entry, *owner);
            return;
        }
        if (const auto stray = stray_with_value(entry)) {
            error(row, entry, ftbl::entry_id_offset, qfs_img,
                  "file " + std::to_string(entry.id) + " has another value than " +
                      (overrides_.contains(entry.number) ? vync_cfg : orvel_cfg) + ", and file " +
                      std::to_string(*stray) + ", which no entry has, has that one");
            return;
        }

        const bool overridden = overrides_.contains(entry.number);
        const char *file = overridden ? vync_cfg : orvel_cfg;
        const FcsRecord &record = value_of(entry);
        const size_t begin = overridden ? fcs::vync_head_size : 0;
        findings_.note(
            {file,
             at_offset(begin + record.offset,
                       "value of record " +
                           std::to_string((record.at - fcs::head_size) / fcs::record_size)),
             std::string("its value in flash is not the one in ") + file, std::string(entry.name)});
    }
}

std::optional<uint32_t> DeploymentCheck::stray_with_value(const FtblEntry &entry) const {
    const auto value = store_of(entry).payload(value_of(entry));
    for (const auto &[id, file] : flash_.afs) {
        const std::vector<uint8_t> &flash = file->contents;
        if (entry.is_in_afs() && !afs_ids_.contains(id) && value.size() >= least_telling &&
            flash.size() == value.size() + entry.trailer() &&
            std::equal(value.begin(), value.end(), flash.begin())) {
            return id;
        }
    }
    return std::nullopt;
}

void DeploymentCheck::tell_swapped(const FtblEntry &entry, const FtblEntry &owner) {
    const bool overridden = overrides_.contains(entry.number);
    const FcsRecord &record = value_of(entry);
    const char *file = overridden ? vync_cfg : orvel_cfg;
    Remark remark{file,
                  at_offset((overridden ? fcs::vync_head_size : 0) + record.at,
                            "number of record " +
                                std::to_string((record.at - fcs::head_size) / fcs::record_size)),
                  "its value is the one that " + std::string(owner.name) +
                      " has in flash: the number is wrong",
                  std::string(entry.name)};
    if (findings_.has_error_in(ftbl_bin) || findings_.has_error_in(file)) {
        findings_.follow({file, ftbl_bin}, std::move(remark));
    } else {
        findings_.error(std::move(remark));
    }
}

} // namespace dolm
