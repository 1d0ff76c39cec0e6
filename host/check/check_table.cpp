#include <algorithm>

#include "host/check/table_check.h"

namespace dolm {

namespace {

using namespace ftbl;

constexpr const char *restore_table = "bring back the ftbl.bin that the set was made with";

std::string skus_text(const FileTable &table) {
    std::vector<std::string> skus;
    for (const FtblRow &row : table.rows) {
        skus.push_back(std::to_string(row.sku));
    }
    return listed(skus);
}

class TableCheck {
  public:
    TableCheck(SetView &view, std::optional<uint32_t> asked, Findings &findings)
        : view_(view), asked_(asked), findings_(findings), bytes_(view.files.ftbl),
          table_(view.table) {}

    void run() {
        if (!check_head()) {
            return;
        }
        check_rows();
        check_skus_of_section();
        choose_skus();
        check_table_regions(view_, findings_);
        check_efst_rows(view_, findings_);
        check_entries(view_, findings_);
    }

  private:
    Finding &error(std::string place, std::string text, const std::string &subject = {}) {
        Finding &finding = findings_.error({ftbl_bin, std::move(place), std::move(text)}, subject);
        finding.advice = restore_table;
        return finding;
    }

    // Whether the rows can be looked at.
    bool check_head() {
        if (!table_.has_magic) {
            error(at_offset(0, "magic"), "the table does not begin with FTBL");
        } else if (bytes_.size() < min_size) {
            error(at_offset(bytes_.size(), "end of the file"),
                  "the table has " + counted(bytes_.size(), "byte") + "; the least is " +
                      std::to_string(min_size));
        } else if (const auto rows = rows_before_section(); rows && *rows != table_.row_count) {
            error(at_offset(row_count_offset, "row_count"),
                  "row_count is " + std::to_string(table_.row_count) +
                      ", and the EFST section begins behind " + counted(*rows, "SKU row"));
        } else if (table_.row_count > max_rows) {
            error(at_offset(row_count_offset, "row_count"),
                  "row_count is " + std::to_string(table_.row_count) + "; the most is " +
                      std::to_string(max_rows));
        } else if (table_.rows.empty()) {
            error(at_offset(row_count_offset, "row_count"), "the table serves no SKU");
        } else {
            return true;
        }
        return false;
    }

    // How many rows stand before the section for EFS, wherever that is; nothing if there is none
    // where the table could have one.
    std::optional<uint32_t> rows_before_section() const {
        for (uint32_t rows = 0; rows <= max_rows; ++rows) {
            const size_t at = head_size + size_t{rows} * row_size;
            if (at + 4 <= bytes_.size() && get_le32(bytes_, at) == efst_magic) {
                return rows;
            }
        }
        return std::nullopt;
    }

    void check_rows() {
        std::set<uint32_t> seen;
        for (const FtblRow &row : table_.rows) {
            const std::string place = at_offset(row.at, "row of SKU " + std::to_string(row.sku));
            if (!seen.insert(row.sku).second) {
                error(place, "the SKU has a row already, and the first one counts",
                      subject_of(row));
            }
            if (row.entries_count >> 31 != 0) {
                error(place, "entries_count " + hex(row.entries_count) + " makes the table empty",
                      subject_of(row));
            } else if (row.entries.size() != row.entries_count) {
                error(place,
                      "its " + std::to_string(row.entries_count) + " entries of 68 bytes from " +
                          hex(row.entries_at) + " on run past the end of the table at " +
                          hex(bytes_.size()),
                      subject_of(row));
            }
        }
    }

    bool has_row(uint32_t sku) const { return table_.row_of(sku) != nullptr; }

    // Rows and EFST rows speak of the same SKUs, or one of them is wrong.
    void check_skus_of_section() {
        const size_t both = std::min(table_.rows.size(), table_.efst_rows.size());
        for (size_t i = 0; i < both; ++i) {
            const FtblRow &row = table_.rows[i];
            const EfstRow &efst = table_.efst_rows[i];
            if (row.sku == efst.sku || has_row(efst.sku) ||
                table_.efst_row_of(row.sku) != nullptr) {
                continue;
            }
            const auto &own = view_.files.sku;
            const bool row_is_wrong = own == efst.sku || (own != row.sku && efst.sku < row.sku);
            const std::string text = "row " + std::to_string(i) + " at " + hex(row.at) +
                                     " serves SKU " + std::to_string(row.sku) +
                                     ", and the EFST row beside it at " + hex(efst.at) + " SKU " +
                                     std::to_string(efst.sku);
            if (row_is_wrong) {
                error(at_offset(row.at, "sku of SKU row " + std::to_string(i)), text,
                      subject_of(row));
            } else {
                error(at_offset(efst.at, "sku of EFST row " + std::to_string(i)), text,
                      subject_of(efst));
            }
        }
    }

    void choose_skus() {
        if (asked_ && !has_row(*asked_)) {
            error(at_offset(head_size, "SKU rows"), "there is no row for SKU " +
                                                        std::to_string(*asked_) + ", only for " +
                                                        skus_text(table_));
        }
        if (!asked_ && view_.files.sku && !has_row(*view_.files.sku)) {
            findings_.follow({ftbl_bin},
                             {settings_name, "sku",
                              "names SKU " + std::to_string(*view_.files.sku) +
                                  "; the file table has rows for " + skus_text(table_) + " only"});
        }
        for (const FtblRow &row : table_.rows) {
            const bool is_first = table_.row_of(row.sku) == &row;
            if (is_first && (!asked_ || *asked_ == row.sku)) {
                view_.skus.push_back(row.sku);
            }
        }
    }

    SetView &view_;
    const std::optional<uint32_t> asked_;
    Findings &findings_;
    const Bytes &bytes_;
    const FileTable &table_;
};

} // namespace

std::string subject_of(const FtblRow &row) {
    return "row " + hex(row.at);
}

std::string subject_of(const EfstRow &row) {
    return "row " + hex(row.at);
}

std::string subject_of(const FtblEntry &entry) {
    return "entry " + hex(entry.at);
}

std::string subject_of(const EfstRecord &record) {
    return "record " + hex(record.at);
}

std::string place_of(const FtblRow &row, const FtblEntry &entry, size_t field) {
    const size_t index = (entry.at - row.entries_at) / entry_size;
    return at_offset(entry.at + field,
                     "entry " + std::to_string(index) + " of SKU " + std::to_string(row.sku));
}

std::string place_of(const EfstRow &row, const EfstRecord &record, size_t field) {
    const size_t index = (record.at - row.records_at) / efst_record_size;
    return at_offset(record.at + field, "EFST file record " + std::to_string(index) + " of SKU " +
                                            std::to_string(row.sku));
}

void check_table(SetView &view, std::optional<uint32_t> sku, Findings &findings) {
    if (view.files.ftbl.empty()) {
        return;
    }

    TableCheck(view, sku, findings).run();
}

} // namespace dolm
