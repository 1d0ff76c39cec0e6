// Which record of a file table claims which of its bytes.
#include <algorithm>
#include <cstring>

#include "host/check/table_check.h"

namespace dolm {

namespace {

using namespace ftbl;

struct Region {
    size_t begin = 0;
    size_t end = 0;
    std::string what;
    std::string place;   // of the row that says so
    std::string subject; // of the same
    size_t doubts = 0;   // records in it that look like none

    bool overlaps(const Region &other) const { return begin < other.end && other.begin < end; }
    bool is_same_as(const Region &other) const { return begin == other.begin && end == other.end; }
};

bool looks_like_name(std::string_view name) {
    return !name.empty() && name.front() == '/' &&
           std::all_of(name.begin(), name.end(), [](char c) { return c > ' ' && c < 0x7F; });
}

class RegionCheck {
  public:
    RegionCheck(const SetView &view, Findings &findings)
        : bytes_(view.files.ftbl), table_(view.table), findings_(findings) {}

    void run() {
        collect();
        for (size_t i = 0; i < regions_.size(); ++i) {
            for (size_t j = i + 1; j < regions_.size(); ++j) {
                check_pair(regions_[i], regions_[j]);
            }
        }
        std::stable_sort(regions_.begin(), regions_.end(),
                         [](const Region &a, const Region &b) { return a.begin < b.begin; });
        check_gaps();
        tell_unread();
    }

  private:
    void collect() {
        const size_t rows_end = head_size + table_.rows.size() * row_size;
        regions_.push_back({0, rows_end, "the SKU rows", at_offset(0, "head"), "", 0});
        if (table_.efst_at) {
            const size_t rows = table_.efst_rows.size() * efst_row_size;
            regions_.push_back({*table_.efst_at, *table_.efst_at + head_size + rows,
                                "the EFST rows", at_offset(*table_.efst_at, "EFST section"), "",
                                0});
        }
        for (const FtblRow &row : table_.rows) {
            add_entries(row);
        }
        for (const EfstRow &row : table_.efst_rows) {
            add_records(row);
        }
    }

    void add_entries(const FtblRow &row) {
        unsigned doubts = 0;
        std::set<std::string_view> names;
        for (const FtblEntry &entry : row.entries) {
            doubts += looks_like_name(entry.name) && names.insert(entry.name).second ? 0 : 1;
        }
        add(row, row.entries_at, row.entries.size() * entry_size, "entries", "entries", doubts);
    }

    void add_records(const EfstRow &row) {
        unsigned doubts = row.records_bytes == row.records_count * efst_record_size ? 0 : 1;
        std::set<uint16_t> slots;
        for (const EfstRecord &record : row.records) {
            const bool fits = record.file_index < row.files_num && record.block < row.valid_blocks;
            const bool is_new = slots.insert(record.file_index).second;
            doubts += fits && is_new ? 0 : 1;
        }
        add(row, row.records_at, row.records.size() * efst_record_size, "EFS file list", "records",
            doubts);
    }

    // The range that a row gives with an offset and a count.
    void add(const auto &row, size_t begin, size_t size, const std::string &what,
             const std::string &members, unsigned doubts) {
        const std::string sku = " of SKU " + std::to_string(row.sku);
        add({begin, begin + size, "the " + what + sku,
             at_offset(row.at + row_entries_offset,
                       members + "_offset and " + members + "_count" + sku),
             subject_of(row), doubts});
    }

    // Rows may share their records; what matters is how many ranges there are.
    void add(Region region) {
        if (region.begin < region.end) {
            regions_.push_back(std::move(region));
        }
    }

    void check_pair(const Region &a, const Region &b) {
        if (!a.overlaps(b) || (a.is_same_as(b) && a.what.substr(0, 8) == b.what.substr(0, 8))) {
            return;
        }
        const bool blame_b =
            a.subject.empty() || b.doubts > a.doubts || (b.doubts == a.doubts && is_blamed(b));
        const Region &wrong = blame_b && !b.subject.empty() ? b : a;
        const Region &other = &wrong == &a ? b : a;
        findings_.error({ftbl_bin, wrong.place,
                         wrong.what + " from " + hex(wrong.begin) + " to " + hex(wrong.end) +
                             " lie over " + other.what + " from " + hex(other.begin) + " to " +
                             hex(other.end)},
                        wrong.subject);
    }

    bool is_blamed(const Region &region) {
        return findings_.has_error_about(ftbl_bin, region.subject);
    }

    // A record that no row counts, right behind one that a row does.
    void check_gaps() {
        size_t end = 0;
        const Region *last = nullptr;
        for (const Region &region : regions_) {
            if (last != nullptr && region.begin > end) {
                check_gap(*last, end, region.begin);
            }
            if (last == nullptr || region.end >= end) {
                last = &region;
                end = region.end;
            }
        }
        if (last != nullptr) {
            check_gap(*last, end, bytes_.size());
        }
    }

    void check_gap(const Region &before, size_t begin, size_t end) {
        if (before.what.starts_with("the entries") && end - begin >= entry_size) {
            const auto *text = reinterpret_cast<const char *>(bytes_.data()) + begin;
            const std::string_view name(text, strnlen(text, name_size));
            if (looks_like_name(name)) {
                findings_.error({ftbl_bin, before.place,
                                 "an entry, " + std::string(name) + ", stands at " + hex(begin) +
                                     " behind the last one of " + before.what.substr(15)},
                                before.subject);
                return;
            }
        }
        for (size_t at = begin; at < end; ++at) {
            add_unread(at);
        }
    }

    void add_unread(size_t at) {
        if (bytes_[at] != 0) {
            unread_.insert(at);
        }
    }

    void add_unread(size_t begin, size_t end) {
        for (size_t at = begin; at < end; ++at) {
            add_unread(at);
        }
    }

    void tell_unread() {
        add_unread(4, row_count_offset);
        for (const FtblRow &row : table_.rows) {
            add_unread(row.at + row_entry_count_offset + 4, row.at + row_size);
            for (const FtblEntry &entry : row.entries) {
                add_unread(entry.at + entry_attributes_offset + 2, entry.at + entry_id_offset);
                add_unread(entry.at + entry_id_offset + 2, entry.at + entry_store_offset);
                if (bytes_[entry.at + entry_id_offset + 1] >> 3 != 0) {
                    add_unread(entry.at + entry_id_offset + 1);
                }
            }
        }
        if (table_.efst_at) {
            add_unread(*table_.efst_at + 4, *table_.efst_at + row_count_offset);
        }
        for (const EfstRow &row : table_.efst_rows) {
            add_unread(row.at + efst_layout_id_offset + 1, row.at + efst_row_size);
            for (const EfstRecord &record : row.records) {
                add_unread(record.at + 2, record.at + record_block_offset);
                add_unread(record.at + record_block_offset + 1, record.at + record_start_offset);
                add_unread(record.at + record_max_size_offset + 2, record.at + efst_record_size);
            }
        }
        if (!unread_.empty()) {
            findings_.note({ftbl_bin, at_offset(*unread_.begin()),
                            counted(unread_.size(), "byte") +
                                " that nothing reads, the first one here, " +
                                (unread_.size() == 1 ? "is" : "are") + " not zero"});
        }
    }

    const Bytes &bytes_;
    const FileTable &table_;
    Findings &findings_;
    std::vector<Region> regions_;
    std::set<size_t> unread_;
};

} // namespace

void check_table_regions(const SetView &view, Findings &findings) {
    RegionCheck(view, findings).run();
}

} // namespace dolm
