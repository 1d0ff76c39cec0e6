// The entries of EFS against its file list.
#include <algorithm>

#include "host/check/deployment_check.h"
#include "host/check/table_check.h"

namespace dolm {

// Entries and file list of EFS name the same files, and the places are large enough.
void DeploymentCheck::check_efs_list(const FtblRow &row) {
    const EfstRow *efst = view_.table.efst_row_of(row.sku);
    for (const FtblEntry &entry : row.entries) {
        if (!entry.is_in_efs() || efst == nullptr) {
            continue;
        }
        const EfstRecord *record = efst->record_of(entry.id);
        if (record == nullptr) {
            tell_unlisted(row, *efst, entry);
        } else if (entry.trailer() == 0 && record->max_size < entry.max_size) {
            tell_small_place(row, *efst, entry, *record);
        } else if (record->max_size > uint64_t{entry.max_size} + entry.trailer()) {
            findings_.note({ftbl_bin, place_of(*efst, *record, ftbl::record_max_size_offset),
                            "the place of file " + std::to_string(entry.id) + " has " +
                                counted(record->max_size, "byte") +
                                ", more than its values can have",
                            std::string(entry.name)});
        }
    }
}

void DeploymentCheck::tell_unlisted(const FtblRow &row, const EfstRow &efst,
                                    const FtblEntry &entry) {
    const std::string text = "the EFS file list has no file " + std::to_string(entry.id);
    for (const EfstRecord &record : efst.records) {
        if (!efs_ids_.contains(record.file_index)) {
            findings_.error({ftbl_bin, place_of(efst, record),
                             "file_index is " + std::to_string(record.file_index) +
                                 ", which no entry has, and " + std::string(entry.name) +
                                 " has file " + std::to_string(entry.id) + ", which no record has",
                             std::string(entry.name)},
                            subject_of(record));
            return;
        }
    }
    if (findings_.has_error_about(ftbl_bin, subject_of(efst))) {
        findings_.error(
            {ftbl_bin, place_of(row, entry, ftbl::entry_id_offset), text, std::string(entry.name)},
            subject_of(efst));
    } else {
        error(row, entry, ftbl::entry_id_offset, ftbl_bin, text);
    }
}

void DeploymentCheck::tell_small_place(const FtblRow &row, const EfstRow &efst,
                                       const FtblEntry &entry, const EfstRecord &record) {
    const std::string text = "the place of file " + std::to_string(entry.id) + " has " +
                             counted(record.max_size, "byte") + ", and its values up to " +
                             std::to_string(entry.max_size);
    if (findings_.has_error_about(ftbl_bin, subject_of(entry))) {
        error(row, entry, ftbl::entry_max_size_offset, ftbl_bin, text);
    } else {
        findings_.error({ftbl_bin, place_of(efst, record, ftbl::record_max_size_offset), text,
                         std::string(entry.name)},
                        subject_of(record));
    }
}

} // namespace dolm
