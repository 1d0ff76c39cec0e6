// The entries of a file table, each by itself and against each other.
#include <algorithm>
#include <cstring>
#include <tuple>

#include "host/check/table_check.h"

namespace dolm {

namespace {

using namespace ftbl;

constexpr size_t max_told = 32; // of one kind, so that a table of noise does not fill the screen

struct Field {
    const char *name;
    size_t at;
    size_t size;
};

// What the library reads of an entry.
constexpr Field fields[] = {{"name", 0, name_size},
                            {"number", entry_number_offset, 4},
                            {"attributes", entry_attributes_offset, 2},
                            {"file_id", entry_id_offset, 2},
                            {"store", entry_store_offset, 1},
                            {"max_size", entry_max_size_offset, 4}};

struct Known {
    const FtblRow *row;
    const FtblEntry *entry;
};

std::string directory_of(std::string_view name) {
    return std::string(name.substr(0, name.rfind('/') + 1));
}

class EntryCheck {
  public:
    EntryCheck(const SetView &view, Findings &findings)
        : view_(view), bytes_(view.files.ftbl), table_(view.table), findings_(findings) {
        for (const FcsRecord &record : view.base.records) {
            base_numbers_.insert(record.number);
        }
        for (const FtblRow &row : table_.rows) {
            for (const FtblEntry &entry : row.entries) {
                ++directories_[directory_of(entry.name)];
                for (const Field &field : fields) {
                    ++uses_[use_of({&row, &entry}, field)];
                }
            }
        }
    }

    void run() {
        compare_names();
        compare_numbers();
        for (const FtblRow &row : table_.rows) {
            for (const FtblEntry &entry : row.entries) {
                check_form(row, entry);
            }
            check_duplicates(row);
        }
    }

  private:
    void error(const FtblRow &row, const FtblEntry &entry, size_t field, std::string text) {
        // What is wrong with all entries of a row is the row's fault.
        const bool row_is_wrong = findings_.has_error_about(ftbl_bin, subject_of(row));
        if (row_is_wrong || told_ < max_told) {
            findings_.error(
                {ftbl_bin, place_of(row, entry, field), std::move(text), std::string(entry.name)},
                row_is_wrong ? subject_of(row) : subject_of(entry));
            told_ += row_is_wrong ? 0 : 1;
        }
    }

    const uint8_t *field_of(const FtblEntry &entry, const Field &field) const {
        return bytes_.data() + entry.at + field.at;
    }

    std::string value_of(const FtblEntry &entry, const Field &field) const {
        if (field.at == 0) {
            return "\"" + std::string(entry.name) + "\"";
        }
        uint32_t value = 0;
        for (size_t i = field.size; i > 0; --i) {
            value = value << 8 | field_of(entry, field)[i - 1];
        }
        return hex(value);
    }

    // Calls what with each two entries of different SKUs that have the same key.
    template <typename Key, typename What>
    void for_each_pair(Key FtblEntry::*key, What what) {
        std::map<Key, Known> first;
        for (const FtblRow &row : table_.rows) {
            for (const FtblEntry &entry : row.entries) {
                const auto [other, is_new] = first.emplace(entry.*key, Known{&row, &entry});
                if (!is_new && other->second.row != &row && other->second.entry->at != entry.at) {
                    what(other->second, Known{&row, &entry});
                }
            }
        }
    }

    // Attributes, id and store lead to a file that the value of the tables, or none, may lie in.
    bool agrees_with_flash(const FtblEntry &entry) const {
        if (!entry.is_in_afs()) {
            return entry.is_in_efs() &&
                   std::any_of(
                       table_.efst_rows.begin(), table_.efst_rows.end(),
                       [&](const EfstRow &row) { return row.record_of(entry.id) != nullptr; });
        }
        const auto file =
            std::find_if(view_.afs.files.begin(), view_.afs.files.end(),
                         [&](const AfsFile &known) { return known.number == entry.id; });
        if (file == view_.afs.files.end()) {
            return false;
        }
        const auto is_length = [&](const FcsStore &store) {
            return std::any_of(store.records.begin(), store.records.end(),
                               [&](const FcsRecord &record) {
                                   return record.number == entry.number &&
                                          record.size + entry.trailer() == file->contents.size();
                               });
        };
        return is_length(view_.base) || is_length(view_.overrides);
    }

    bool fits(const FtblEntry &entry) const {
        const auto is_small = [&](const FcsStore &store) {
            return std::all_of(
                store.records.begin(), store.records.end(), [&](const FcsRecord &record) {
                    return record.number != entry.number || record.size <= entry.max_size;
                });
        };
        return is_small(view_.base) && is_small(view_.overrides);
    }

    void compare_names() {
        for_each_pair(&FtblEntry::name, [&](const Known &a, const Known &b) {
            const bool is_unique =
                uses_.at(use_of(a, fields[0])) == 1 && uses_.at(use_of(b, fields[0])) == 1;
            if (is_unique && a.entry->number != b.entry->number) {
                tell_difference(a, b, fields[1]);
                misnumbered_.insert({a.entry->at, b.entry->at});
            }
        });
    }

    // The same number in two SKUs is the same file: one name, one place and one limit.
    void compare_numbers() {
        for_each_pair(&FtblEntry::number, [&](const Known &a, const Known &b) {
            if (misnumbered_.contains(a.entry->at) || misnumbered_.contains(b.entry->at)) {
                return;
            }
            std::vector<const Field *> different;
            for (const Field &field : fields) {
                if (std::memcmp(field_of(*a.entry, field), field_of(*b.entry, field), field.size) !=
                    0) {
                    different.push_back(&field);
                }
            }
            for (const Field *field : different) {
                tell_difference(a, b, *field);
            }
        });
    }

    using Use = std::tuple<const FtblRow *, const Field *, std::string_view>;

    Use use_of(const Known &known, const Field &field) const {
        const auto *bytes = reinterpret_cast<const char *>(field_of(*known.entry, field));
        return {known.row, &field, {bytes, field.size}};
    }

    void tell_difference(const Known &a, const Known &b, const Field &field) {
        const bool blame_a = doubts(a, field) >= doubts(b, field);
        const Known &wrong = blame_a ? a : b;
        const Known &other = blame_a ? b : a;
        error(*wrong.row, *wrong.entry, field.at,
              std::string(field.name) + " is " + value_of(*wrong.entry, field) + ", and " +
                  value_of(*other.entry, field) + " for SKU " + std::to_string(other.row->sku) +
                  " at " + hex(other.entry->at + field.at));
    }

    // How unlikely a field looks, beside another that should be the same.
    int doubts(const Known &known, const Field &field) const {
        const FtblEntry &entry = *known.entry;
        const bool is_key =
            field.at == 0 || field.at == entry_number_offset || field.at == entry_id_offset;
        int doubts = is_key && uses_.at(use_of(known, field)) > 1 ? 2 : 0;
        if (field.at == 0) {
            doubts += is_good_name(entry) ? 0 : 2;
            doubts += directories_.at(directory_of(entry.name)) == 1 ? 1 : 0;
        } else if (field.at == entry_number_offset) {
            doubts += base_numbers_.contains(entry.number) ? 0 : 1;
        } else if (field.at == entry_max_size_offset) {
            doubts += fits(entry) ? 0 : 1;
        } else {
            doubts += agrees_with_flash(entry) ? 0 : 1;
        }
        return doubts;
    }

    // Printable, and nothing but zeros behind its end.
    bool is_good_name(const FtblEntry &entry) const {
        const auto name = std::span(bytes_).subspan(entry.at, name_size);
        return !entry.name.empty() && entry.name.front() == '/' &&
               std::all_of(entry.name.begin(), entry.name.end(),
                           [](char c) { return c >= ' ' && c < 0x7F; }) &&
               std::all_of(name.begin() + static_cast<std::ptrdiff_t>(entry.name.size()),
                           name.end(), [](uint8_t byte) { return byte == 0; });
    }

    void check_form(const FtblRow &row, const FtblEntry &entry) {
        if (!is_good_name(entry)) {
            error(row, entry, 0, "the name is none of a file: \"" + std::string(entry.name) + "\"");
        } else if (base_numbers_.contains(entry.number) && !entry.name.starts_with("/home/")) {
            error(row, entry, 0, "the name does not begin with /home/, and no look-up finds it");
        }
        if (entry.store > 2) {
            error(row, entry, entry_store_offset,
                  "the store is " + std::to_string(entry.store) + ", which does not exist");
        }
    }

    void check_duplicates(const FtblRow &row) {
        std::map<std::string_view, const FtblEntry *> names;
        std::map<uint32_t, const FtblEntry *> numbers;
        std::map<std::pair<uint8_t, uint16_t>, const FtblEntry *> places;
        for (const FtblEntry &entry : row.entries) {
            if (const auto [other, is_new] = names.emplace(entry.name, &entry); !is_new) {
                tell_duplicate(row, *other->second, entry, 0, "the name");
            }
            if (const auto [other, is_new] = numbers.emplace(entry.number, &entry); !is_new) {
                tell_duplicate(row, *other->second, entry, entry_number_offset,
                               "number " + std::to_string(entry.number));
            }
            if (entry.store != 1 && entry.store != 2) {
                continue;
            }
            if (const auto [other, is_new] =
                    places.emplace(std::pair(entry.store, entry.id), &entry);
                !is_new) {
                tell_duplicate(row, *other->second, entry, entry_id_offset,
                               "its place in flash, file " + std::to_string(entry.id) + ",");
            }
        }
    }

    void tell_duplicate(const FtblRow &row, const FtblEntry &first, const FtblEntry &second,
                        size_t field, const std::string &what) {
        const bool blame_first = findings_.has_error_about(ftbl_bin, subject_of(first));
        const FtblEntry &wrong = blame_first ? first : second;
        const FtblEntry &other = blame_first ? second : first;
        error(row, wrong, field,
              what + " stands twice in the file table: " + std::string(other.name) + " at " +
                  hex(other.at + field) + " has it too");
    }

    const SetView &view_;
    const Bytes &bytes_;
    const FileTable &table_;
    Findings &findings_;
    std::set<uint32_t> base_numbers_;
    std::map<std::string, size_t> directories_; // files in each
    std::map<Use, size_t> uses_;                // of a field's value in a row
    std::set<size_t> misnumbered_;              // entries
    size_t told_ = 0;
};

} // namespace

void check_entries(const SetView &view, Findings &findings) {
    EntryCheck(view, findings).run();
}

} // namespace dolm
