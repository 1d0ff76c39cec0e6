// Tables against flash: what the file table expects in the stores, and what lies there.
#include <algorithm>

#include "host/check/set_view.h"
#include "host/check/table_check.h"
#include "host/manifest.h"

namespace dolm {

namespace {

class DeploymentCheck {
  public:
    DeploymentCheck(const SetView &view, Findings &findings) : view_(view), findings_(findings) {
        for (const FcsRecord &record : view.base.records) {
            base_.emplace(record.number, &record);
        }
        for (const FcsRecord &record : view.overrides.records) {
            overrides_.emplace(record.number, &record);
        }
        for (const AfsFile &file : view.afs.files) {
            if (file.kind != AfsFile::Kind::zombie) {
                afs_.emplace(file.number, &file);
            }
        }
        for (const EfsFile &file : view.efs.files) {
            if (file.kind == EfsFile::Kind::contents) {
                efs_.emplace(file.place.number, &file);
            }
        }
        for (const FtblRow &row : view.table.rows) {
            for (const FtblEntry &entry : row.entries) {
                (entry.is_in_efs() ? efs_ids_ : afs_ids_).insert(entry.id);
            }
        }
    }

    void run() {
        check_absent_images();
        for (const uint32_t sku : view_.skus) {
            const FtblRow &row = *view_.table.row_of(sku);
            check_efs_list(row);
            if (!is_of_another_set(row)) {
                check_row(row);
            }
        }
        for (const auto &[image, names] : lost_) {
            findings_.follow(
                {image}, {image, "",
                          counted(names.size(), "NVAR") +
                              " cannot be taken from it: " + listed({names.begin(), names.end()})});
        }
        tell_unread_overrides();
        tell_strays();
    }

  private:
    // An error about an entry: it follows from what is wrong with the entry or its row, else from
    // what is wrong with the image that it is about.
    void error(const FtblRow &row, const FtblEntry &entry, size_t field, const char *image,
               std::string text) {
        Remark remark{ftbl_bin, place_of(row, entry, field), std::move(text),
                      std::string(entry.name)};
        if (findings_.has_error_about(ftbl_bin, subject_of(row))) {
            findings_.error(std::move(remark), subject_of(row));
        } else if (!findings_.has_error_about(ftbl_bin, subject_of(entry)) &&
                   findings_.has_error_in(image)) {
            findings_.follow({image}, std::move(remark));
        } else {
            findings_.error(std::move(remark), subject_of(entry));
        }
    }

    bool has_value(const FtblEntry &entry) const { return base_.contains(entry.number); }

    // Whether start-up and termination look for the file in AFS.
    static bool is_dispatched_to_afs(const FtblEntry &entry) { return entry.store <= 1; }

    template <typename Wanted>
    std::vector<std::string> names_where(Wanted wanted) const {
        std::set<std::string> names;
        for (const uint32_t sku : view_.skus) {
            for (const FtblEntry &entry : view_.table.row_of(sku)->entries) {
                if (has_value(entry) && wanted(entry)) {
                    names.insert(std::string(entry.name));
                }
            }
        }
        return {names.begin(), names.end()};
    }

    void check_absent_images() {
        const bool has_afs = !view_.files.qfs_image.empty();
        const bool has_efs = !view_.files.efs_image.empty();
        if (!has_afs) {
            check_absent_image(qfs_img, "efs.img", has_efs, names_where([](const FtblEntry &entry) {
                                   return entry.is_in_afs();
                               }));
        }
        if (!has_efs) {
            check_absent_image(
                efs_img, "the deployed VFS in qfs.img", has_afs && is_any_deployed(),
                names_where([](const FtblEntry &entry) { return entry.is_in_efs(); }));
        }
    }

    void check_absent_image(const char *image, const char *other, bool other_is_there,
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

    // The contents of a file where the dispatch by file number would look for it.
    const std::vector<uint8_t> *contents(const FtblEntry &entry) const {
        if (entry.is_in_efs()) {
            const auto found = efs_.find(entry.id);
            return found == efs_.end() ? nullptr : &found->second->contents;
        }
        const bool reads_as_no_file = entry.id == 0 && entry.number >> 28 == 0;
        const auto found = afs_.find(entry.id);
        const bool is_there =
            is_dispatched_to_afs(entry) && !reads_as_no_file && found != afs_.end();
        return is_there ? &found->second->contents : nullptr;
    }

    static const FtblEntry *marker_of(const FtblRow &row) {
        const auto found =
            std::find_if(row.entries.begin(), row.entries.end(),
                         [](const FtblEntry &entry) { return entry.name == deploy_marker; });
        return found == row.entries.end() ? nullptr : &*found;
    }

    bool is_deployed(const FtblRow &row) const {
        const FtblEntry *marker = marker_of(row);
        const auto *found = marker == nullptr ? nullptr : contents(*marker);
        return !view_.files.qfs_image.empty() && found != nullptr && !found->empty();
    }

    bool is_any_deployed() const {
        return std::any_of(view_.skus.begin(), view_.skus.end(),
                           [&](uint32_t sku) { return is_deployed(*view_.table.row_of(sku)); });
    }

    // More files of the image are unknown than known, and more of the table's are missing than
    // there.
    bool is_of_another_set(const FtblRow &row) {
        std::set<uint32_t> wanted;
        for (const FtblEntry &entry : row.entries) {
            if (entry.is_in_afs()) {
                wanted.insert(entry.id);
            }
        }
        const auto there = std::count_if(wanted.begin(), wanted.end(),
                                         [&](uint32_t id) { return afs_.contains(id); });
        const auto strays = std::count_if(afs_.begin(), afs_.end(), [&](const auto &file) {
            return !afs_ids_.contains(file.first);
        });
        const auto missing = static_cast<std::ptrdiff_t>(wanted.size()) - there;
        if (strays <= there || missing <= there || findings_.has_error_in(qfs_img) ||
            findings_.has_error_in(ftbl_bin)) {
            return false;
        }
        findings_.error({qfs_img, "",
                         "holds the files of another set: " + std::to_string(strays) + " of its " +
                             counted(afs_.size(), "file") + " are in no file table, and " +
                             std::to_string(missing) + " of " + std::to_string(wanted.size()) +
                             " of the table's are missing"},
                        "another set");
        return true;
    }

    void check_row(const FtblRow &row) {
        if (!is_deployed(row)) {
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

    // In a deployed VFS start-up and termination stand or fall with the files of the NVARs.
    void check_file(const FtblRow &row, const FtblEntry &entry) {
        const auto *found = contents(entry);
        const char *image = entry.is_in_efs() ? efs_img : qfs_img;
        if (entry.is_in_efs() && view_.files.efs_image.empty()) {
            return; // told with the image
        }
        if (found == nullptr) {
            tell_missing(row, entry, image);
            return;
        }
        const bool is_pulled = (entry.attributes & entry_is_not_pulled) == 0;
        if (is_pulled && found->size() < entry.trailer()) {
            error(row, entry, 52, image,
                  "has " + counted(found->size(), "byte") + " in flash, less than its trailer of " +
                      std::to_string(entry.trailer()) + ": start-up fails");
        } else if (is_pulled && found->size() - entry.trailer() > entry.max_size) {
            error(row, entry, 64, image,
                  "has " + counted(found->size() - entry.trailer(), "byte") +
                      " in flash, over the limit of " + std::to_string(entry.max_size) +
                      ": every termination fails");
        }
    }

    void tell_missing(const FtblRow &row, const FtblEntry &entry, const char *image) {
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
            error(row, entry, 58, image, file + " " + text);
        } else if (const auto stray = only_stray(entry)) {
            error(row, entry, 58, image,
                  file + " " + text + "; file " + std::to_string(*stray) +
                      " is there, which no entry has");
        } else {
            findings_.error({image, file, text, std::string(entry.name)}, "missing " + file);
        }
    }

    std::optional<uint32_t> only_stray(const FtblEntry &entry) const {
        std::optional<uint32_t> stray;
        for (const auto &[id, file] : afs_) {
            if (entry.is_in_afs() && !afs_ids_.contains(id)) {
                if (stray) {
                    return std::nullopt;
                }
                stray = id;
            }
        }
        return stray;
    }

    const FcsStore &store_of(const FtblEntry &entry) const {
        return overrides_.contains(entry.number) ? view_.overrides : view_.base;
    }

    const FcsRecord &value_of(const FtblEntry &entry) const {
        const auto found = overrides_.find(entry.number);
        return found == overrides_.end() ? *base_.at(entry.number) : *found->second;
    }

    // Nothing if the file is not there or start-up would pass it by.
    std::optional<std::span<const uint8_t>> pulled(const FtblEntry &entry) const {
        const auto *found = contents(entry);
        if (found == nullptr || (entry.attributes & entry_is_not_pulled) != 0 ||
            found->size() < entry.trailer()) {
            return std::nullopt;
        }
        return std::span(*found).first(found->size() - entry.trailer());
    }

    bool differs(const FtblEntry &entry) const {
        const auto flash = pulled(entry);
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
    const FtblEntry *owner_of_value(const FtblRow &row, const FtblEntry &entry) const {

        const auto value = store_of(entry).payload(value_of(entry));
        const auto is_owner = [&](const FtblEntry &other) {
            const auto flash = has_value(other) ? pulled(other) : std::nullopt;
            return flash && differs(other) &&
                   std::equal(flash->begin(), flash->end(), value.begin(), value.end());
        };
        const auto found = std::find_if(row.entries.begin(), row.entries.end(), is_owner);
        return value.size() < least_telling || found == row.entries.end() ? nullptr : &*found;
    }

    void compare_value(const FtblRow &row, const FtblEntry &entry) {
        if (differs(entry)) {
            if (const FtblEntry *owner = owner_of_value(row, entry)) {
                tell_swapped(entry, *owner);
                return;
            }
            if (const auto stray = stray_with_value(entry)) {
                error(row, entry, 58, qfs_img,
                      "file " + std::to_string(entry.id) + " has another value than " +
                          (overrides_.contains(entry.number) ? vync_cfg : orvel_cfg) +
                          ", and file " + std::to_string(*stray) +
                          ", which no entry has, has that one");
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
                 std::string("its value in flash is not the one in ") + file,
                 std::string(entry.name)});
        }
    }

    std::optional<uint32_t> stray_with_value(const FtblEntry &entry) const {
        const auto value = store_of(entry).payload(value_of(entry));
        for (const auto &[id, file] : afs_) {
            const std::vector<uint8_t> &flash = file->contents;
            if (entry.is_in_afs() && !afs_ids_.contains(id) && value.size() >= least_telling &&
                flash.size() == value.size() + entry.trailer() &&
                std::equal(value.begin(), value.end(), flash.begin())) {
                return id;
            }
        }
        return std::nullopt;
    }

    void tell_swapped(const FtblEntry &entry, const FtblEntry &owner) {
        const bool overridden = overrides_.contains(entry.number);
        const FcsRecord &record = value_of(entry);
        const char *file = overridden ? vync_cfg : orvel_cfg;
        Remark remark{file,
                      at_offset((overridden ? fcs::vync_head_size : 0) + record.at,
                                "number of record " + std::to_string((record.at - fcs::head_size) /
                                                                     fcs::record_size)),
                      "its value is the one that " + std::string(owner.name) +
                          " has in flash: the number is wrong",
                      std::string(entry.name)};
        if (findings_.has_error_in(ftbl_bin) || findings_.has_error_in(file)) {
            findings_.follow({file, ftbl_bin}, std::move(remark));
        } else {
            findings_.error(std::move(remark));
        }
    }

    // Without its marker the VFS takes no part, and the values of the tables come instead.
    void check_not_deployed(const FtblRow &row) {
        const FtblEntry *marker = marker_of(row);
        if (afs_.empty() || marker == nullptr || !marker->is_in_afs()) {
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
        const Remark values{qfs_img, "",
                            counted(hidden.size(), "value") +
                                " in flash take no part: " + listed(hidden)};
        const std::string text = "the marker of a deployed VFS is not in flash, so that the "
                                 "values there take no part";
        if (findings_.has_error_in(qfs_img) || findings_.has_error_in(ftbl_bin)) {
            findings_.follow({qfs_img, ftbl_bin}, {qfs_img, file, text, std::string(marker->name)});
        } else {
            findings_.error({qfs_img, file, text, std::string(marker->name)}, "marker")
                .consequences.push_back(values);
        }
    }

    const EfstRecord *record_of(const FtblRow &row, uint16_t id) const {
        const EfstRow *efst = view_.table.efst_row_of(row.sku);
        if (efst == nullptr) {
            return nullptr;
        }
        const auto found =
            std::find_if(efst->records.begin(), efst->records.end(),
                         [=](const EfstRecord &record) { return record.file_index == id; });
        return found == efst->records.end() ? nullptr : &*found;
    }

    // Entries and file list of EFS name the same files, and the places are large enough.
    void check_efs_list(const FtblRow &row) {
        const EfstRow *efst = view_.table.efst_row_of(row.sku);
        for (const FtblEntry &entry : row.entries) {
            if (!entry.is_in_efs() || efst == nullptr) {
                continue;
            }
            const EfstRecord *record = record_of(row, entry.id);
            if (record == nullptr) {
                tell_unlisted(row, *efst, entry);
            } else if (entry.trailer() == 0 && record->max_size < entry.max_size) {
                tell_small_place(row, *efst, entry, *record);
            } else if (record->max_size > uint64_t{entry.max_size} + entry.trailer()) {
                findings_.note({ftbl_bin, place_of(*efst, *record, 54),
                                "the place of file " + std::to_string(entry.id) + " has " +
                                    counted(record->max_size, "byte") +
                                    ", more than its values can have",
                                std::string(entry.name)});
            }
        }
    }

    void tell_unlisted(const FtblRow &row, const EfstRow &efst, const FtblEntry &entry) {
        const std::string text = "the EFS file list has no file " + std::to_string(entry.id);
        for (const EfstRecord &record : efst.records) {
            if (!efs_ids_.contains(record.file_index)) {
                findings_.error({ftbl_bin, place_of(efst, record),
                                 "file_index is " + std::to_string(record.file_index) +
                                     ", which no entry has, and " + std::string(entry.name) +
                                     " has file " + std::to_string(entry.id) +
                                     ", which no record has",
                                 std::string(entry.name)},
                                subject_of(record));
                return;
            }
        }
        if (findings_.has_error_about(ftbl_bin, subject_of(efst))) {
            findings_.error({ftbl_bin, place_of(row, entry, 58), text, std::string(entry.name)},
                            subject_of(efst));
        } else {
            error(row, entry, 58, ftbl_bin, text);
        }
    }

    void tell_small_place(const FtblRow &row, const EfstRow &efst, const FtblEntry &entry,
                          const EfstRecord &record) {
        const std::string text = "the place of file " + std::to_string(entry.id) + " has " +
                                 counted(record.max_size, "byte") + ", and its values up to " +
                                 std::to_string(entry.max_size);
        if (findings_.has_error_about(ftbl_bin, subject_of(entry))) {
            error(row, entry, 64, ftbl_bin, text);
        } else {
            findings_.error({ftbl_bin, place_of(efst, record, 54), text, std::string(entry.name)},
                            subject_of(record));
        }
    }

    void tell_unread_overrides() {
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

    void tell_strays() {
        if (view_.names.empty()) {
            return;
        }
        std::vector<std::string> strays;
        for (const auto &[id, file] : afs_) {
            if (!afs_ids_.contains(id)) {
                strays.push_back(std::to_string(id));
            }
        }
        tell_strays(qfs_img, strays);
        strays.clear();
        for (const auto &[id, file] : efs_) {
            if (!efs_ids_.contains(id)) {
                strays.push_back(std::to_string(id));
            }
        }
        tell_strays(efs_img, strays);
    }

    void tell_strays(const char *image, const std::vector<std::string> &strays) {
        if (!strays.empty()) {
            findings_.note(
                {image, "files",
                 counted(strays.size(), "file") + " in no file table: " + listed(strays)});
        }
    }

    static constexpr size_t least_telling = 3; // shorter values may be equal by chance

    const SetView &view_;
    Findings &findings_;
    std::map<uint32_t, const FcsRecord *> base_; // by number
    std::map<uint32_t, const FcsRecord *> overrides_;
    std::map<uint32_t, const AfsFile *> afs_; // what is there, by id
    std::map<uint32_t, const EfsFile *> efs_;
    std::set<uint32_t> afs_ids_; // that any SKU's entries have
    std::set<uint32_t> efs_ids_;
    std::map<const char *, std::set<std::string>> lost_; // names, by the damaged image
};

} // namespace

void check_deployment(const SetView &view, Findings &findings) {
    if (view.files.ftbl.empty() || view.skus.empty()) {
        return;
    }
    DeploymentCheck(view, findings).run();
}

} // namespace dolm
