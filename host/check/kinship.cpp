// Members of another set: well-formed by themselves, and strangers to the rest.
#include <algorithm>

#include "host/check/set_view.h"
#include "image/efs_list.h"
#include "image/efs_survey.h"

namespace dolm {

namespace {

// How many of the records or files of a member the file table does not know as they are.
struct Fit {
    const char *file;
    size_t strange;
    size_t of;          // 0 for a member that cannot be judged
    size_t vouched = 0; // strange ones that no damage of the member explains

    std::string text() const {
        return std::to_string(strange) + " of " + std::to_string(of) +
               (file == std::string(orvel_cfg) || file == std::string(vync_cfg) ? " values"
                                                                                : " files") +
               " of " + file;
    }
};

class Kinship {
  public:
    Kinship(SetView &view, Findings &findings) : view_(view), findings_(findings) {}

    void run() {
        if (!is_well_formed(view_.table)) {
            return;
        }
        const auto recorded = view_.checksums.find(ftbl_bin);
        const bool is_known = recorded != view_.checksums.end();
        const bool is_as_written =
            is_known && changed_blocks(view_.files.ftbl, recorded->second).empty();
        const size_t least_vouched = is_as_written ? 1 : is_known ? SIZE_MAX : 2;
        bad_ = {fit_of(orvel_cfg, view_.base), fit_of(vync_cfg, view_.overrides), fit_of_afs(),
                fit_of_efs()};
        if (!is_known && bad_[0].of != 0 && bad_[1].of != 0) {
            bad_[0].vouched = bad_[1].vouched = numbers_of_stores_alone();
        }
        std::erase_if(bad_, [=](const Fit &fit) { return !is_bad(fit, least_vouched); });
        // One stranger explains it all.
        if (is_known ? !bad_.empty() && !is_as_written : bad_.size() > 1) {
            tell_strange_table();
            return;
        }
        for (const Fit &fit : bad_) {
            tell({fit.file, "",
                  "belongs to another set: the file table has no place for " + fit.text()});
        }
    }

  private:
    // What is vouched for may still meet one damaged place of the table, unless that is known to
    // be as it was written.
    static bool is_bad(const Fit &fit, size_t least_vouched) {
        return fit.of != 0 &&
               ((fit.strange > 2 && fit.strange * 2 > fit.of) || fit.vouched >= least_vouched);
    }

    // How many numbers no entry has, if both stores speak for one of them.
    size_t numbers_of_stores_alone() const {
        std::set<uint32_t> numbers = unknown_numbers(view_.base);
        std::set<uint32_t> others = unknown_numbers(view_.overrides);
        numbers.merge(others);
        return others.empty() ? 0 : numbers.size();
    }

    std::set<uint32_t> unknown_numbers(const FcsStore &store) const {
        std::set<uint32_t> numbers;
        for (const FcsRecord &record : store.records) {
            if (!view_.names.contains(record.number)) {
                numbers.insert(record.number);
            }
        }
        return numbers;
    }

    void tell(Remark remark) {
        drop(remark.file);
        findings_.error(std::move(remark)).advice =
            "bring back the file that belongs to the others";
    }

    void tell_strange_table() {
        std::vector<std::string> strange;
        for (const Fit &fit : bad_) {
            strange.push_back(fit.text());
        }
        tell({ftbl_bin, "", "belongs to another set: it has no place for " + listed(strange)});
    }

    // Nothing more is to be said of it.
    void drop(const std::string &file) {
        for (const SetMember &member : set_members) {
            if (file == member.name) {
                (view_.files.*member.content).clear();
            }
        }
        read_members(view_);
    }

    // A table of one damaged row or entry is no stranger.
    static bool is_well_formed(const FileTable &table) {
        const auto is_entry = [](const FtblEntry &entry) {
            return entry.name.starts_with('/') && entry.store <= 2;
        };
        const auto is_row = [&](const FtblRow &row) {
            return row.entries.size() == row.entries_count &&
                   std::all_of(row.entries.begin(), row.entries.end(), is_entry);
        };
        const auto is_efst_row = [](const EfstRow &row) {
            std::set<uint16_t> files;
            return row.records.size() == row.records_count &&
                   std::all_of(row.records.begin(), row.records.end(),
                               [&](const EfstRecord &record) {
                                   return record.file_index < row.files_num &&
                                          record.block < row.valid_blocks &&
                                          files.insert(record.file_index).second;
                               });
        };
        return table.has_magic && !table.rows.empty() &&
               std::all_of(table.rows.begin(), table.rows.end(), is_row) &&
               std::all_of(table.efst_rows.begin(), table.efst_rows.end(), is_efst_row);
    }

    template <typename Wanted>
    bool any_entry(Wanted wanted) const {
        return std::any_of(view_.table.rows.begin(), view_.table.rows.end(),
                           [&](const FtblRow &row) {
                               return std::any_of(row.entries.begin(), row.entries.end(), wanted);
                           });
    }

    Fit fit_of(const char *file, const FcsStore &store) const {
        uint64_t end = store.payloads_at();
        size_t strange = 0;
        for (const FcsRecord &record : store.records) {
            if (record.offset != end) {
                return {file, 0, 0}; // damaged
            }
            end = record.end();
            strange += any_entry([&](const FtblEntry &entry) {
                return entry.number == record.number && record.size <= entry.max_size;
            })
                           ? 0
                           : 1;
        }
        const bool is_whole = store.has_all_records() && end <= store.bytes.size();
        return {file, strange, is_whole ? store.records.size() : 0};
    }

    // Both have to miss each other: a device may keep files that no table has, and lack some.
    Fit fit_of_afs() const {
        size_t strange = 0;
        size_t files = 0;
        std::set<uint32_t> found;
        for (const AfsFile &file : view_.afs.files) {
            const bool is_known = any_entry([&](const FtblEntry &entry) {
                return entry.is_in_afs() && entry.id == file.number &&
                       file.contents.size() <= uint64_t{entry.max_size} + entry.trailer();
            });
            if (file.kind != AfsFile::Kind::zombie) {
                ++files;
                strange += is_known ? 0 : 1;
                found.insert(is_known ? file.number : UINT32_MAX);
            }
        }
        std::set<uint32_t> wanted;
        any_entry([&](const FtblEntry &entry) {
            if (entry.is_in_afs()) {
                wanted.insert(entry.id);
            }
            return false;
        });
        const auto missing = std::count_if(wanted.begin(), wanted.end(),
                                           [&](uint32_t id) { return !found.contains(id); });
        const bool is_missed = static_cast<size_t>(missing) * 2 >= wanted.size();
        return {qfs_img, is_missed ? strange : 0, view_.afs.damages.empty() ? files : 0};
    }

    // The rows of the table share one image: several that agree on another geometry, or one that
    // differs in more than one field, were not damaged.
    Fit fit_of_efs() const {
        const auto own = own_geometry(view_.files.efs_image);
        if (!own) {
            return {efs_img, 0, 0};
        }
        std::optional<Fit> best;
        size_t files = 0;
        size_t fields = 0;
        for (const EfstRow &row : view_.table.efst_rows) {
            const size_t differing = differences(row, own->layout);
            const Fit fit = fit_of_list(row, own->layout);
            if (differing == 0 && (!best || fit.strange < best->strange)) {
                best = fit;
            }
            fields += differing;
            files = std::max(files, row.records.size());
        }
        return best.value_or(Fit{efs_img, fields > 1 ? files : 0, files});
    }

    static size_t differences(const EfstRow &row, const EfsLayout &layout) {
        return (row.bm_num != layout.bm_num ? 1U : 0U) +
               (row.valid_blocks != layout.valid_blocks ? 1U : 0U) +
               (row.spare_blocks != layout.spare_blocks ? 1U : 0U) +
               (row.layout_id != layout.layout_id ? 1U : 0U);
    }

    Fit fit_of_list(const EfstRow &row, EfsLayout layout) const {
        layout.files = efs_layout_of(row).files;
        const EfsImage image = read_efs_image(view_.files.efs_image, layout);
        const bool is_sound =
            std::none_of(image.damages.begin(), image.damages.end(), [](const EfsDamage &damage) {
                return damage.rule == EfsDamage::Rule::mapping ||
                       damage.rule == EfsDamage::Rule::block;
            });
        if (!is_sound) {
            return {efs_img, 0, 0};
        }
        // A good record of a good block lies where it was written, listed or not.
        std::set<std::pair<uint32_t, uint32_t>> listed;
        for (const EfsFile &file : image.files) {
            if (file.kind != EfsFile::Kind::damaged) {
                listed.emplace(file.place.block, file.place.offset);
            }
        }
        const size_t strange = image.files.size() - listed.size();
        size_t unlisted = 0;
        if (strange != 0) {
            const auto found = find_places_in_image(view_.files.efs_image, layout, 0);
            unlisted = static_cast<size_t>(
                std::count_if(found.begin(), found.end(), [&](const EfsPlace &place) {
                    return !listed.contains({place.block, place.offset});
                }));
        }
        return {efs_img, strange, image.files.size(), std::min(strange, unlisted)};
    }

    SetView &view_;
    Findings &findings_;
    std::vector<Fit> bad_;
};

} // namespace

void drop_strangers(SetView &view, Findings &findings) {
    Kinship(view, findings).run();
}

} // namespace dolm
