// The numbers of a store's records, the names that the file table has for them, and its limits.
#include <algorithm>

#include "host/check/store_check.h"
#include "host/check/table_check.h"
#include "host/manifest.h"

namespace dolm {

namespace {

// Records in the order of their names, but for those that stand out of it.
class NameOrder {
  public:
    NameOrder(const FcsStore &store, const std::map<uint32_t, std::string> &names) {
        for (const FcsRecord &record : store.records) {
            const auto name = names.find(record.number);
            if (name != names.end()) {
                named_.push_back({&record, name->second});
            }
        }
    }

    // The fewest records that have to go for the rest to be in order. The library writes a store
    // under names with or without a "/" behind them.
    std::vector<const FcsRecord *> strays() const {
        std::vector<const FcsRecord *> plain = strays_with("");
        std::vector<const FcsRecord *> slashed = strays_with("/");
        return plain.size() <= slashed.size() ? plain : slashed;
    }

  private:
    // All but a longest ascending sequence.
    std::vector<const FcsRecord *> strays_with(const char *ending) const {
        std::vector<std::string> names;
        for (const auto &[record, name] : named_) {
            names.push_back(name + ending);
        }
        std::vector<size_t> tails; // the last of the best sequence of each length
        std::vector<size_t> before(names.size(), SIZE_MAX);
        for (size_t i = 0; i < names.size(); ++i) {
            const auto place =
                std::lower_bound(tails.begin(), tails.end(), i,
                                 [&](size_t a, size_t b) { return names[a] < names[b]; });
            before[i] = place == tails.begin() ? SIZE_MAX : *(place - 1);
            if (place == tails.end()) {
                tails.push_back(i);
            } else {
                *place = i;
            }
        }
        std::set<size_t> in_order;
        for (size_t i = tails.empty() ? SIZE_MAX : tails.back(); i != SIZE_MAX; i = before[i]) {
            in_order.insert(i);
        }
        std::vector<const FcsRecord *> strays;
        for (size_t i = 0; i < named_.size(); ++i) {
            if (!in_order.contains(i)) {
                strays.push_back(named_[i].first);
            }
        }
        return strays;
    }

    std::vector<std::pair<const FcsRecord *, std::string>> named_;
};

} // namespace

void StoreCheck::check_numbers() {
    std::vector<const FcsRecord *> unknown;
    std::map<std::string, const FcsRecord *> seen;
    for (const FcsRecord &record : store_.records) {
        const std::string name = name_of(record);
        if (name.empty()) {
            unknown.push_back(&record);
        } else if (const auto [other, is_new] = seen.emplace(name, &record); !is_new) {
            duplicates_.push_back({other->second, &record});
        }
    }
    if (unknown.size() > 4 && unknown.size() > store_.records.size() / 2) {
        findings_.follow({ftbl_bin},
                         {file_, at_offset(begin_, "records"),
                          "the file table knows " +
                              std::to_string(store_.records.size() - unknown.size()) + " of " +
                              std::to_string(store_.records.size()) +
                              " numbers: the store and the table are of different sets"});
        return;
    }
    for (const FcsRecord *record : unknown) {
        tell_unknown(*record);
    }
}

// A number that no table has was changed here, or in the one entry that is left without a
// value.
void StoreCheck::tell_unknown(const FcsRecord &record) {
    const std::string text = "number " + std::to_string(record.number) +
                             " is in no file table; the value has no effect, and the next "
                             "termination drops it";
    const auto orphan = only_orphan();
    if (findings_.has_error_in(ftbl_bin)) {
        findings_.follow({ftbl_bin}, {file_, place(record, 0, "number"), text});
    } else if (orphan && orphan->second->number != orphan->second->id &&
               record.number == orphan->second->id) {
        const FtblEntry &entry = *orphan->second;
        findings_
            .error({ftbl_bin, place_of(*orphan->first, entry, ftbl::entry_number_offset),
                    "number is " + std::to_string(entry.number) +
                        ", under which there is no value; " + file_ + " has one under " +
                        std::to_string(record.number) + ", which no entry has",
                    std::string(entry.name)},
                   dolm::subject_of(entry))
            .consequences.push_back({file_, place(record, 0, "number"), text});
    } else {
        error(record, 0, "number", text);
    }
}

// The entry with a file in flash and no value in any table, if it is one in one SKU.
std::optional<StoreCheck::EntryInRow> StoreCheck::only_orphan() const {
    std::optional<EntryInRow> orphan;
    for (const FtblRow &row : view_.table.rows) {
        for (const FtblEntry &entry : row.entries) {
            if (entry.name == deploy_marker || !(entry.is_in_afs() || entry.is_in_efs()) ||
                has_value(entry.number)) {
                continue;
            }
            if (orphan) {
                return std::nullopt;
            }
            orphan = EntryInRow(&row, &entry);
        }
    }
    return orphan;
}

bool StoreCheck::has_value(uint32_t number) const {
    const auto in = [=](const FcsStore &store) {
        return std::any_of(store.records.begin(), store.records.end(),
                           [=](const FcsRecord &record) { return record.number == number; });
    };
    return in(view_.base) || in(view_.overrides);
}

void StoreCheck::check_order() {
    const std::vector<const FcsRecord *> strays = NameOrder(store_, view_.names).strays();
    const bool is_sorted = strays.size() <= 2 + duplicates_.size();
    for (const auto &[first, second] : duplicates_) {
        const bool blame_first = std::find(strays.begin(), strays.end(), first) != strays.end();
        const FcsRecord &wrong = blame_first ? *first : *second;
        const FcsRecord &other = blame_first ? *second : *first;
        error(wrong, 0, "number",
              "the name stands twice: record " + std::to_string(index_of(other)) + " at " +
                  hex(begin_ + other.at) + " has it too");
    }
    if (!is_sorted) {
        findings_.note({file_, at_offset(begin_, "records"),
                        "the records are not in the order of their names, as the library "
                        "writes them"});
        return;
    }
    for (const FcsRecord *stray : strays) {
        if (duplicates_.empty()) {
            tell_stray(likelier_stray(*stray));
        }
    }
}

// Of two neighbours in the wrong order either may be the stray one; it is the one whose name
// only one SKU has, if that is so for one.
const FcsRecord &StoreCheck::likelier_stray(const FcsRecord &record) const {
    const size_t i = index_of(record);
    for (const size_t other : {i == 0 ? i : i - 1, i + 1 == store_.records.size() ? i : i + 1}) {
        const FcsRecord &neighbour = store_.records[other];
        const bool is_inverted = (other < i) == (name_of(neighbour) > name_of(record));
        if (is_inverted && entries_of(neighbour).size() == 1 && entries_of(record).size() > 1) {
            return neighbour;
        }
    }
    return record;
}

std::vector<StoreCheck::EntryInRow> StoreCheck::entries_of(const FcsRecord &record) const {
    std::vector<EntryInRow> entries;
    for (const FtblRow &row : view_.table.rows) {
        for (const FtblEntry &entry : row.entries) {
            if (entry.number == record.number) {
                entries.push_back({&row, &entry});
            }
        }
    }
    return entries;
}

// A name that two SKUs agree on is right, and so is one beside which no other file has lost its
// value; else the record has another's number.
void StoreCheck::tell_stray(const FcsRecord &record) {
    const std::string text = "the record stands out of the order of names";
    const std::vector<EntryInRow> entries = entries_of(record);
    if (findings_.has_error_in(ftbl_bin)) {
        findings_.follow({ftbl_bin}, {file_, place(record, 0, "number"), text, name_of(record)});
    } else if (entries.size() == 1 && file_ == std::string(orvel_cfg) && !only_orphan()) {
        const auto &[row, entry] = entries.front();
        findings_.error({ftbl_bin, place_of(*row, *entry),
                         "the name is not the one under which " + std::string(file_) +
                             " was written: " + text + " at " + hex(begin_ + record.at),
                         std::string(entry->name)},
                        dolm::subject_of(*entry));
    } else {
        error(record, 0, "number",
              text + ": its number " + std::to_string(record.number) + " is another file's");
    }
}

void StoreCheck::check_limits() {
    std::map<uint32_t, const FcsRecord *> records;
    for (const FcsRecord &record : store_.records) {
        records.emplace(record.number, &record);
    }
    for (const FtblRow &row : view_.table.rows) {
        for (const FtblEntry &entry : row.entries) {
            const auto found = records.find(entry.number);
            if (found != records.end() && found->second->size > entry.max_size) {
                tell_limit(row, entry, *found->second);
            }
        }
    }
}

// A limit that two SKUs agree on is right, and the value is wrong.
void StoreCheck::tell_limit(const FtblRow &row, const FtblEntry &entry, const FcsRecord &record) {
    const std::string text = counted(record.size, "byte") + " in " + file_ +
                             ", over the limit of " + std::to_string(entry.max_size) +
                             ": every termination fails";
    const bool others_agree =
        std::any_of(view_.table.rows.begin(), view_.table.rows.end(), [&](const FtblRow &other) {
            return other.at != row.at && std::any_of(other.entries.begin(), other.entries.end(),
                                                     [&](const FtblEntry &same) {
                                                         return same.number == entry.number &&
                                                                same.max_size == entry.max_size;
                                                     });
        });
    if (others_agree || findings_.has_error_about(file_, subject_of(record))) {
        error(record, 0, "number and size", "the value has " + text);
    } else {
        findings_.error({ftbl_bin, place_of(row, entry, ftbl::entry_max_size_offset),
                         "max_size: the value has " + text, std::string(entry.name)},
                        dolm::subject_of(entry));
    }
}

} // namespace dolm
