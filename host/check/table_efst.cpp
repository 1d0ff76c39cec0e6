// Geometry and file list of EFS in the file table.
#include <algorithm>

#include "host/check/table_check.h"
#include "image/efs_records.h"

namespace dolm {

namespace {

using namespace ftbl;

constexpr uint32_t max_files = 65536; // what an index of 16 bits can reach

uint32_t last_block(const EfstRecord &record) {
    const uint32_t first_part = efs::record_room - record.offset;
    if (record.max_size <= first_part) {
        return record.block;
    }
    return record.block + (record.max_size - first_part + efs::record_room - 1) / efs::record_room;
}

// The range of a file in a line of all data areas. Each part has a record head, which is left
// out of the sum: parts behind the first one begin at 0 of their block.
std::pair<uint64_t, uint64_t> range_of(const EfstRecord &record) {
    const uint64_t begin = uint64_t{record.block} * efs::data_size + record.offset;
    const uint32_t last = last_block(record);
    if (last == record.block) {
        return {begin, begin + efs::record_head_size + record.max_size};
    }
    const uint32_t in_front =
        efs::record_room - record.offset + (last - record.block - 1) * efs::record_room;
    return {begin,
            uint64_t{last} * efs::data_size + efs::record_head_size + (record.max_size - in_front)};
}

void check_overlaps(const EfstRow &row, Findings &findings) {
    std::vector<const EfstRecord *> records;
    for (const EfstRecord &record : row.records) {
        records.push_back(&record);
    }

    std::erase_if(records,
                  [](const EfstRecord *record) { return record->offset > efs::record_room; });
    std::sort(records.begin(), records.end(),
              [](const EfstRecord *a, const EfstRecord *b) { return range_of(*a) < range_of(*b); });
    for (size_t i = 1; i < records.size(); ++i) {
        const EfstRecord &before = *records[i - 1];
        const EfstRecord &record = *records[i];
        if (range_of(record).first < range_of(before).second) {
            const bool is_blamed = findings.has_error_about(ftbl_bin, subject_of(before));
            findings.error({ftbl_bin, place_of(row, is_blamed ? before : record),
                            "file " + std::to_string(record.file_index) +
                                " begins inside the place of " + "file " +
                                std::to_string(before.file_index) + ", whose record is at " +
                                hex(before.at)},
                           subject_of(is_blamed ? before : record));
        }
    }
}

class SectionCheck {
  public:
    SectionCheck(const SetView &view, Findings &findings)
        : view_(view), table_(view.table), findings_(findings) {}

    void run() {
        if (!table_.efst_at) {
            check_absence();
            return;
        }
        if (table_.efst_rows.size() != table_.efst_row_count) {
            error(at_offset(*table_.efst_at + row_count_offset, "row_count of the EFST section"),
                  "row_count is " + std::to_string(table_.efst_row_count) + "; " +
                      std::to_string(table_.efst_rows.size()) + " can be",
                  section);
        }
        for (const FtblRow &row : table_.rows) {
            check_presence(row);
        }
        for (const EfstRow &row : table_.efst_rows) {
            check_geometry(row);
            check_list(row);
        }
        compare_rows();
    }

  private:
    static constexpr const char *section = "efst";

    void error(std::string place, std::string text, const std::string &subject) {
        findings_.error({ftbl_bin, std::move(place), std::move(text)}, subject);
    }

    static bool uses_efs(const FtblRow &row) {
        return std::any_of(row.entries.begin(), row.entries.end(),
                           [](const FtblEntry &entry) { return entry.is_in_efs(); });
    }

    void check_absence() {
        const size_t at = head_size + table_.rows.size() * row_size;
        const bool is_used = std::any_of(table_.rows.begin(), table_.rows.end(), uses_efs);
        if (is_used && !view_.files.efs_image.empty()) {
            error(at_offset(at, "EFST section"),
                  "files lie in EFS, and no EFST section begins here", section);
        }
    }

    void check_presence(const FtblRow &row) {
        if (uses_efs(row) && !view_.files.efs_image.empty() &&
            table_.efst_row_of(row.sku) == nullptr &&
            !findings_.has_error_about(ftbl_bin, subject_of(row)) && !is_any_row_wrong()) {
            error(at_offset(*table_.efst_at + row_count_offset, "EFST section"),
                  "SKU " + std::to_string(row.sku) + " has files in EFS and no EFST row", section);
        }
    }

    bool is_any_row_wrong() {
        return std::any_of(table_.efst_rows.begin(), table_.efst_rows.end(),
                           [&](const EfstRow &row) {
                               return findings_.has_error_about(ftbl_bin, subject_of(row));
                           });
    }

    static std::string place(const EfstRow &row, size_t field, const char *name) {
        return at_offset(row.at + field,
                         std::string(name) + " in the EFST row of SKU " + std::to_string(row.sku));
    }

    void check_geometry(const EfstRow &row) {
        const std::string subject = subject_of(row);
        const EfsLayout layout = efs_layout_of(row);
        if (!is_possible(layout)) {
            error(place(row, efst_bm_num_offset, "geometry"),
                  std::to_string(row.bm_num) + " BMs, " + std::to_string(row.valid_blocks) +
                      " valid and " + std::to_string(row.spare_blocks) +
                      " spare blocks are no geometry that an image can have",
                  subject);
        }
        if (row.files_num == 0 || row.files_num > max_files) {
            error(place(row, efst_files_num_offset, "files_num"),
                  "files_num is " + std::to_string(row.files_num) + "; 1 to 65536 can be", subject);
        }
        const uint64_t bytes = uint64_t{row.records_count} * efst_record_size;
        if (row.records_bytes > bytes || row.records.size() != row.records_count) {
            error(place(row, efst_records_offset, "file list"),
                  counted(row.records_count, "record") + " of 60 bytes from " +
                      hex(row.records_at) + " on, records_bytes " +
                      std::to_string(row.records_bytes) +
                      (row.records_bytes > bytes ? ": they do not agree"
                                                 : ": they run past the end of the table"),
                  subject);
        } else if (row.records_bytes < bytes) {
            findings_.note({ftbl_bin, place(row, efst_records_bytes_offset, "records_bytes"),
                            "records_bytes is " + std::to_string(row.records_bytes) + " for " +
                                counted(row.records_count, "record") + " of 60 bytes"});
        }
    }

    void check_list(const EfstRow &row) {
        std::map<uint16_t, const EfstRecord *> slots;
        for (const EfstRecord &record : row.records) {
            check_record(row, record);
            const auto [other, is_new] = slots.emplace(record.file_index, &record);
            if (!is_new) {
                error(place_of(row, record),
                      "file " + std::to_string(record.file_index) + " has a record at " +
                          hex(other->second->at) + " already",
                      has_owner(record) ? subject_of(record) : subject_of(*other->second));
            }
        }
    }

    bool has_owner(const EfstRecord &record) const {
        return view_.efs_names.contains(record.file_index);
    }

    void check_record(const EfstRow &row, const EfstRecord &record) {
        const std::string subject = findings_.has_error_about(ftbl_bin, subject_of(row))
                                        ? subject_of(row)
                                        : subject_of(record);
        if (record.file_index >= row.files_num) {
            error(place_of(row, record),
                  "file_index is " + std::to_string(record.file_index) + ", and there are " +
                      counted(row.files_num, "slot"),
                  subject);
        }
        if (record.offset > efs::record_room) {
            error(place_of(row, record, record_start_offset),
                  "offset " + std::to_string(record.offset) + " leaves no room for a record",
                  subject);
        } else if (last_block(record) >= row.valid_blocks) {
            error(place_of(row, record, record_block_offset),
                  "a file of " + counted(record.max_size, "byte") + " from block " +
                      std::to_string(record.block) + " on runs past the last of " +
                      counted(row.valid_blocks, "logical block"),
                  subject);
        }
    }

    // A set has one image, whatever the SKU.
    void compare_rows() {
        for (const EfstRow &row : table_.efst_rows) {
            const EfstRow &first = table_.efst_rows.front();
            if (row.files_num != first.files_num) {
                tell_difference(row, efst_files_num_offset, "files_num", row.files_num,
                                first.files_num);
            }
            if (row.wear_threshold != first.wear_threshold) {
                tell_difference(row, efst_wear_threshold_offset, "wear_leveling_threshold",
                                row.wear_threshold, first.wear_threshold);
            }
        }
    }

    void tell_difference(const EfstRow &row, size_t field, const char *name, uint32_t value,
                         uint32_t other) {
        const EfstRow &first = table_.efst_rows.front();
        findings_.note({ftbl_bin, place(row, field, name),
                        std::string(name) + " is " + std::to_string(value) + ", and " +
                            std::to_string(other) + " for SKU " + std::to_string(first.sku) +
                            " at " + hex(first.at + field)});
    }

    const SetView &view_;
    const FileTable &table_;
    Findings &findings_;
};

} // namespace

void check_efst_rows(const SetView &view, Findings &findings) {
    SectionCheck(view, findings).run();
}

void check_efs_overlaps(const SetView &view, Findings &findings) {
    for (const EfstRow &row : view.table.efst_rows) {
        check_overlaps(row, findings);
    }
}

} // namespace dolm
