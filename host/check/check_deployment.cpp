#include "host/check/deployment_check.h"

#include <algorithm>

#include "host/check/table_check.h"

namespace dolm {

DeploymentCheck::DeploymentCheck(const SetView &view, Findings &findings)
    : view_(view), findings_(findings), flash_(view) {
    for (const FcsRecord &record : view.base.records) {
        base_.emplace(record.number, &record);
    }
    for (const FcsRecord &record : view.overrides.records) {
        overrides_.emplace(record.number, &record);
    }
    for (const FtblRow &row : view.table.rows) {
        for (const FtblEntry &entry : row.entries) {
            (entry.is_in_efs() ? efs_ids_ : afs_ids_).insert(entry.id);
        }
    }
}

void DeploymentCheck::run() {
    check_absent_images();
    for (const uint32_t sku : view_.skus) {
        const FtblRow &row = *view_.table.row_of(sku);
        check_efs_list(row);
        check_row(row);
    }
    for (const auto &[image, names] : lost_) {
        findings_.follow({image}, {image, "",
                                   counted(names.size(), "NVAR") + " cannot be taken from it: " +
                                       listed({names.begin(), names.end()})});
    }
    tell_unread_overrides();
    tell_strays();
}

// An error about an entry: it follows from what is wrong with the entry or its row, else from
// what is wrong with the image that it is about.
void DeploymentCheck::error(const FtblRow &row, const FtblEntry &entry, size_t field,
                            const char *image, std::string text) {
    Remark remark{ftbl_bin, place_of(row, entry, field), std::move(text), std::string(entry.name)};
    if (findings_.has_error_about(ftbl_bin, subject_of(row))) {
        findings_.error(std::move(remark), subject_of(row));
    } else if (!findings_.has_error_about(ftbl_bin, subject_of(entry)) &&
               findings_.has_error_in(image)) {
        findings_.follow({image}, std::move(remark));
    } else {
        findings_.error(std::move(remark), subject_of(entry));
    }
}

void DeploymentCheck::check_absent_images() {
    const bool has_afs = !view_.files.qfs_image.empty();
    const bool has_efs = !view_.files.efs_image.empty();
    if (!has_afs) {
        check_absent_image(qfs_img, "efs.img", has_efs,
                           names_where([](const FtblEntry &entry) { return entry.is_in_afs(); }));
    }
    if (!has_efs) {
        check_absent_image(efs_img, "the deployed VFS in qfs.img", has_afs && is_any_deployed(),
                           names_where([](const FtblEntry &entry) { return entry.is_in_efs(); }));
    }
}

void DeploymentCheck::check_absent_image(const char *image, const char *other, bool other_is_there,
                                         const std::vector<std::string> &names) {
    if (names.empty()) {
        return;
    }
    const Remark files{ftbl_bin, "",
                       counted(names.size(), "NVAR") + " have files in it: " + listed(names)};
    if (findings_.has_error_in(image)) {
        findings_.follow({image}, files);
    } else if (other_is_there) {
        Finding &cause = findings_.error(
            {image, "",
             std::string("is missing, and ") + other + " shows that the set lives in flash"});
        cause.consequences.push_back(files);
        cause.advice = "bring the image back; without it the values of the tables take the "
                       "place of those in flash";
    } else {
        findings_.note({image, "",
                        "is not there; " + counted(names.size(), "NVAR") +
                            " of the file table would have files in it"});
    }
}

bool DeploymentCheck::is_any_deployed() const {
    return std::any_of(view_.skus.begin(), view_.skus.end(),
                       [&](uint32_t sku) { return flash_.is_deployed(*view_.table.row_of(sku)); });
}

void DeploymentCheck::check_row(const FtblRow &row) {
    if (!flash_.is_deployed(row)) {
        check_not_deployed(row);
        return;
    }
    for (const FtblEntry &entry : row.entries) {
        if (has_value(entry)) {
            check_file(row, entry);
            if (!findings_.has_error_in(entry.is_in_efs() ? efs_img : qfs_img)) {
                compare_value(row, entry);
            }
        }
    }
}

// Without its marker the VFS takes no part, and the values of the tables come instead.
void DeploymentCheck::check_not_deployed(const FtblRow &row) {
    const FtblEntry *marker = deploy_marker_of(row);
    if (flash_.afs.empty() || marker == nullptr || !marker->is_in_afs()) {
        return;
    }
    std::vector<std::string> hidden;
    for (const FtblEntry &entry : row.entries) {
        if (has_value(entry) && differs(entry)) {
            hidden.push_back(std::string(entry.name));
        }
    }
    const std::string file = "file " + std::to_string(marker->id);
    if (hidden.empty()) {
        findings_.note({qfs_img, file, "the VFS is not deployed: its marker is not in flash",
                        std::string(marker->name)});
        return;
    }
    const Remark values{
        qfs_img, "", counted(hidden.size(), "value") + " in flash take no part: " + listed(hidden)};
    const std::string text = "the marker of a deployed VFS is not in flash, so that the "
                             "values there take no part";
    if (findings_.has_error_in(qfs_img) || findings_.has_error_in(ftbl_bin)) {
        findings_.follow({qfs_img, ftbl_bin}, {qfs_img, file, text, std::string(marker->name)});
    } else {
        findings_.error({qfs_img, file, text, std::string(marker->name)}, "marker")
            .consequences.push_back(values);
    }
}

void DeploymentCheck::tell_unread_overrides() {
    for (const auto &[number, record] : overrides_) {
        const std::string name = name_in(view_.names, number);
        if (!base_.contains(number) && !name.empty() && !base_.empty()) {
            findings_.note({vync_cfg,
                            at_offset(fcs::vync_head_size + record->at,
                                      "record " + std::to_string((record->at - fcs::head_size) /
                                                                 fcs::record_size)),
                            "stands in vync.cfg alone and has no effect", name});
        }
    }
}

void DeploymentCheck::tell_strays() {
    if (view_.names.empty()) {
        return;
    }
    std::vector<std::string> strays;
    for (const auto &[id, file] : flash_.afs) {
        if (!afs_ids_.contains(id)) {
            strays.push_back(std::to_string(id));
        }
    }
    tell_strays(qfs_img, strays);
    strays.clear();
    for (const auto &[id, file] : flash_.efs) {
        if (!efs_ids_.contains(id)) {
            strays.push_back(std::to_string(id));
        }
    }
    tell_strays(efs_img, strays);
}

void DeploymentCheck::tell_strays(const char *image, const std::vector<std::string> &strays) {
    if (!strays.empty()) {
        findings_.note({image, "files",
                        counted(strays.size(), "file") + " in no file table: " + listed(strays)});
    }
}

void check_deployment(const SetView &view, Findings &findings) {
    if (view.files.ftbl.empty() || view.skus.empty()) {
        return;
    }
    DeploymentCheck(view, findings).run();
}

} // namespace dolm
