// The stores of values, "orvel.cfg" and "vync.cfg".
#include <algorithm>

#include "host/check/set_view.h"
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

// Whether bytes are more than a filling with zeros or erased bytes.
bool tells_of_values(std::span<const uint8_t> bytes) {
    return std::any_of(bytes.begin(), bytes.end(), [&](uint8_t byte) {
        return byte != bytes[0] || (byte != 0 && byte != 0xFF);
    });
}

class StoreCheck {

  public:
    // The store begins at an offset of its file.
    StoreCheck(const SetView &view, const char *file, size_t begin, const FcsStore &store,
               Findings &findings)
        : view_(view), file_(file), begin_(begin), store_(store), findings_(findings) {}

    void run() {
        if (!check_count()) {
            return;
        }
        if (!is_cut_short()) {
            check_payloads();
            check_packing();
        }

        if (view_.table.has_magic && !view_.names.empty()) {
            check_numbers();
            check_order();
            check_limits();
        }
        tell_opaque();
    }

  private:
    std::string place(const FcsRecord &record, size_t field, const char *name) const {
        return at_offset(begin_ + record.at + field,
                         std::string(name) + " of record " + std::to_string(index_of(record)));
    }

    size_t index_of(const FcsRecord &record) const {
        return static_cast<size_t>(&record - store_.records.data());
    }

    static std::string subject_of(const FcsRecord &record) { return "record " + hex(record.at); }

    std::string name_of(const FcsRecord &record) const {
        return name_in(view_.names, record.number);
    }

    Finding &error(const FcsRecord &record, size_t field, const char *name, std::string text) {
        return findings_.error(
            {file_, place(record, field, name), std::move(text), name_of(record)},
            subject_of(record));
    }

    // Whether the records can be looked at.
    bool check_count() {
        const std::string head = at_offset(begin_, "count");
        if (store_.bytes.size() < fcs::head_size) {
            findings_.error({file_, head,
                             "the store has " + counted(store_.bytes.size(), "byte") +
                                 ", too few for a count"});
            return false;
        }
        if (const auto real = count_by_payloads(); real && *real != store_.count) {
            findings_.error({file_, head,
                             "count is " + std::to_string(store_.count) +
                                 ", and the payloads begin where " + counted(*real, "record") +
                                 (*real == 1 ? " ends" : " end")});
            return false;
        }
        if (store_.count == 0 && tells_of_values(store_.bytes.subspan(fcs::head_size))) {
            findings_.error({file_, head,
                             "count is 0, and " +
                                 counted(store_.bytes.size() - fcs::head_size, "byte") +
                                 " follow it"});
            return false;
        }
        if (!store_.has_all_records()) {
            findings_.error({file_, head,
                             "count is " + std::to_string(store_.count) + "; the " +
                                 counted(store_.bytes.size(), "byte") + " of the store hold " +
                                 std::to_string(store_.records.size()) + " at most"});
            return false;
        }
        return true;
    }

    // The number of records that the first payload leaves room for, if the payloads of so many
    // follow each other from there on.
    std::optional<uint64_t> count_by_payloads() const {
        if (store_.bytes.size() < fcs::head_size + fcs::record_size) {
            return std::nullopt;
        }
        const uint32_t first = get_le32(store_.bytes, fcs::head_size + 4);
        if (first < fcs::head_size + fcs::record_size || first > store_.bytes.size() ||
            (first - fcs::head_size) % fcs::record_size != 0) {
            return std::nullopt;
        }
        const uint32_t count = (first - fcs::head_size) / fcs::record_size;
        const FcsStore store = read_fcs_store(store_.bytes, count);
        uint64_t end = first;
        for (const FcsRecord &record : store.records) {
            if (record.offset != end) {
                return std::nullopt;
            }
            end = record.end();
        }
        return end <= store_.bytes.size() ? std::optional<uint64_t>(count) : std::nullopt;
    }

    // Each payload follows the one before, past the end of the bytes.
    bool is_cut_short() {
        uint64_t end = store_.payloads_at();
        for (const FcsRecord &record : store_.records) {
            if (record.offset != end) {
                return false;
            }
            end = record.end();
        }
        if (end <= store_.bytes.size() || is_last_too_long()) {
            return false;
        }
        findings_.error({file_, at_offset(begin_ + store_.bytes.size(), "end of the store"),
                         "the payloads reach to " + hex(begin_ + end) + ", past the end"});
        return true;
    }

    // The last record, which alone reaches past the end, is longer than its file may be.
    bool is_last_too_long() const {
        const FcsRecord &last = store_.records.back();
        return last.offset < store_.bytes.size() &&
               std::any_of(
                   view_.table.rows.begin(), view_.table.rows.end(), [&](const FtblRow &row) {
                       return std::any_of(
                           row.entries.begin(), row.entries.end(), [&](const FtblEntry &entry) {
                               return entry.number == last.number && entry.max_size < last.size;
                           });
                   });
    }

    void check_payloads() {
        for (const FcsRecord &record : store_.records) {
            if (record.size > fcs::max_payload) {
                error(record, 8, "size",
                      "size is " + std::to_string(record.size) + "; the most is " +
                          std::to_string(fcs::max_payload));
            } else if (!store_.has_payload(record)) {
                tell_overrun(record);
            }
        }
    }

    void tell_overrun(const FcsRecord &record) {
        const size_t i = index_of(record);
        const bool follows = i == 0 ? record.offset == store_.payloads_at()
                                    : record.offset == store_.records[i - 1].end();
        error(record, follows ? 8 : 4, follows ? "size" : "offset",
              "the record's " + counted(record.size, "byte") + " from " + hex(record.offset) +
                  " on reach past the end of the store at " + hex(store_.bytes.size()));
    }

    // The library packs the payloads in the order of the records. A place where one record alone
    // departs from that tells which field of which record is wrong.
    void check_packing() {
        const auto &records = store_.records;
        if (records.empty()) {
            return;
        }
        std::vector<size_t> breaks; // i: the payload of record i does not follow the one before
        for (size_t i = 0; i < records.size(); ++i) {
            const uint64_t due = i == 0 ? store_.payloads_at() : records[i - 1].end();
            if (records[i].offset != due) {
                breaks.push_back(i);
            }
        }
        if (breaks.size() > 8 && breaks.size() > records.size() / 4) {
            findings_.note({file_, at_offset(begin_ + records[breaks[0]].at),
                            "the payloads are not packed in the order of the records, as the "
                            "library writes them"});
            return;
        }
        for (size_t b = 0; b < breaks.size(); ++b) {
            const size_t i = breaks[b];
            const bool next_too = b + 1 < breaks.size() && breaks[b + 1] == i + 1;
            const uint64_t due = i == 0 ? store_.payloads_at() : records[i - 1].end();
            const bool closes = next_too && records[i + 1].offset == due + records[i].size;
            if (closes || i == 0 ||
                (i + 1 == records.size() && due + records[i].size == store_.bytes.size())) {
                error(records[i], 4, "offset",
                      "the payload begins at " + hex(records[i].offset) +
                          ", and the one before it "
                          "ends at " +
                          hex(due));
                b += closes ? 1 : 0;
            } else {
                error(records[i - 1], 8, "size",
                      "the payload ends at " + hex(due) + ", and the next one begins at " +
                          hex(records[i].offset));
            }
        }
        if (breaks.empty() && records.back().end() < store_.bytes.size()) {
            tell_rest(records.back());
        }
    }

    void tell_rest(const FcsRecord &last) {
        const auto rest = store_.bytes.subspan(static_cast<size_t>(last.end()));
        const std::string text = counted(rest.size(), "byte") + " behind the last payload";
        if (!tells_of_values(rest)) {
            findings_.note({file_, at_offset(begin_ + last.end()), text + ", which nothing reads"});
        } else {
            error(last, 8, "size", text + " belong to no record");
        }
    }

    void check_numbers() {
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
    void tell_unknown(const FcsRecord &record) {
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
                .error({ftbl_bin, place_of(*orphan->first, entry, 48),
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

    using EntryInRow = std::pair<const FtblRow *, const FtblEntry *>;

    // The entry with a file in flash and no value in any table, if it is one in one SKU.
    std::optional<EntryInRow> only_orphan() const {
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

    bool has_value(uint32_t number) const {
        const auto in = [=](const FcsStore &store) {
            return std::any_of(store.records.begin(), store.records.end(),
                               [=](const FcsRecord &record) { return record.number == number; });
        };
        return in(view_.base) || in(view_.overrides);
    }

    void check_order() {
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
    // only
    // one SKU has, if that is so for one.
    const FcsRecord &likelier_stray(const FcsRecord &record) const {
        const size_t i = index_of(record);
        for (const size_t other :
             {i == 0 ? i : i - 1, i + 1 == store_.records.size() ? i : i + 1}) {
            const FcsRecord &neighbour = store_.records[other];
            const bool is_inverted = (other < i) == (name_of(neighbour) > name_of(record));
            if (is_inverted && entries_of(neighbour).size() == 1 && entries_of(record).size() > 1) {
                return neighbour;
            }
        }
        return record;
    }

    std::vector<EntryInRow> entries_of(const FcsRecord &record) const {
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
    void tell_stray(const FcsRecord &record) {
        const std::string text = "the record stands out of the order of names";
        const std::vector<EntryInRow> entries = entries_of(record);
        if (findings_.has_error_in(ftbl_bin)) {
            findings_.follow({ftbl_bin},
                             {file_, place(record, 0, "number"), text, name_of(record)});
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

    void check_limits() {
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
    void tell_limit(const FtblRow &row, const FtblEntry &entry, const FcsRecord &record) {
        const std::string text = counted(record.size, "byte") + " in " + file_ +
                                 ", over the limit of " + std::to_string(entry.max_size) +
                                 ": every termination fails";
        const bool others_agree = std::any_of(
            view_.table.rows.begin(), view_.table.rows.end(), [&](const FtblRow &other) {
                return other.at != row.at && std::any_of(other.entries.begin(), other.entries.end(),
                                                         [&](const FtblEntry &same) {
                                                             return same.number == entry.number &&
                                                                    same.max_size == entry.max_size;
                                                         });
            });
        if (others_agree || findings_.has_error_about(file_, subject_of(record))) {
            error(record, 0, "number and size", "the value has " + text);
        } else {
            findings_.error({ftbl_bin, place_of(row, entry, 64), "max_size: the value has " + text,
                             std::string(entry.name)},
                            dolm::subject_of(entry));
        }
    }

    void tell_opaque() {
        std::vector<const FcsRecord *> set;
        for (const FcsRecord &record : store_.records) {
            if (record.opaque != 0) {
                set.push_back(&record);
            }
        }
        if (!set.empty()) {
            findings_.note({file_, place(*set[0], 10, "opaque word"),
                            "the opaque word of " + counted(set.size(), "record") +
                                ", the first one here, is not 0; nothing interprets it",
                            name_of(*set[0])});
        }
    }

    const SetView &view_;
    const char *file_;
    const size_t begin_;
    const FcsStore &store_;
    Findings &findings_;
    std::vector<std::pair<const FcsRecord *, const FcsRecord *>> duplicates_;
};

// Whether the store behind the head of "vync.cfg" can be looked at.
bool check_vync_head(const Bytes &bytes, Findings &findings) {
    const std::string place = at_offset(fcs::vync_length_offset, "length of the payload");
    if (bytes.size() < fcs::vync_head_size) {
        findings.error({vync_cfg, at_offset(bytes.size(), "end of the file"),
                        counted(bytes.size(), "byte") + " are no head of 16"});
        return false;
    }
    const uint32_t length = get_le32(bytes, fcs::vync_length_offset);
    const size_t rest = bytes.size() - fcs::vync_head_size;
    if (length > rest) {
        findings.error({vync_cfg, place,
                        "the head announces " + counted(length, "byte") + ", and " +
                            std::to_string(rest) + " follow it"});
        return false;
    }
    const auto store = read_fcs_store(std::span(bytes).subspan(fcs::vync_head_size));
    const uint64_t end = store.records.empty() ? store.payloads_at() : store.records.back().end();
    if (length < end && end <= rest) {
        findings.error({vync_cfg, place,
                        "the head announces " + counted(length, "byte") +
                            ", and the store behind it has " + std::to_string(end)});
        return false;
    }
    const auto behind = std::span(bytes).subspan(fcs::vync_head_size + length);
    if (tells_of_values(behind)) {
        findings.note({vync_cfg, at_offset(fcs::vync_head_size + length),
                       counted(behind.size(), "byte") + " behind the store, which nothing reads"});
    }
    for (const size_t at : {0u, 1u, 2u, 3u, 4u, 5u, 6u, 7u, 12u, 13u, 14u, 15u}) {
        if (bytes[at] != 0) {
            findings.note({vync_cfg, at_offset(at, "head"),
                           "a byte of the head that nothing reads is not zero"});
            break;
        }
    }
    return true;
}

} // namespace

void check_stores(const SetView &view, Findings &findings) {
    if (!view.files.orvel_cfg.empty()) {
        StoreCheck(view, orvel_cfg, 0, view.base, findings).run();
    }
    if (!view.files.vync_cfg.empty() && check_vync_head(view.files.vync_cfg, findings)) {
        StoreCheck(view, vync_cfg, fcs::vync_head_size, view.overrides, findings).run();
    }
}

} // namespace dolm
