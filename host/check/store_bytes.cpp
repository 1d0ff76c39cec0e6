// The count, the records and the payloads of a store.
#include <algorithm>

#include "host/check/store_check.h"

namespace dolm {

// Whether the records can be looked at.
bool StoreCheck::check_count() {
    const std::string head = at_offset(begin_, "count");
    if (store_.bytes.size() < fcs::head_size) {
        findings_.error(
            {file_, head,
             "the store has " + counted(store_.bytes.size(), "byte") + ", too few for a count"});
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
                             counted(store_.bytes.size() - fcs::head_size, "byte") + " follow it"});
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
std::optional<uint64_t> StoreCheck::count_by_payloads() const {
    if (store_.bytes.size() < fcs::head_size + fcs::record_size) {
        return std::nullopt;
    }
    const uint32_t first = get_le32(store_.bytes, fcs::head_size + fcs::record_offset_offset);
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
bool StoreCheck::is_cut_short() {
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
bool StoreCheck::is_last_too_long() const {
    const FcsRecord &last = store_.records.back();
    return last.offset < store_.bytes.size() &&
           std::any_of(view_.table.rows.begin(), view_.table.rows.end(), [&](const FtblRow &row) {
               return std::any_of(
                   row.entries.begin(), row.entries.end(), [&](const FtblEntry &entry) {
                       return entry.number == last.number && entry.max_size < last.size;
                   });
           });
}

void StoreCheck::check_payloads() {
    for (const FcsRecord &record : store_.records) {
        if (record.size > fcs::max_payload) {
            error(record, fcs::record_size_offset, "size",
                  "size is " + std::to_string(record.size) + "; the most is " +
                      std::to_string(fcs::max_payload));
        } else if (!store_.has_payload(record)) {
            tell_overrun(record);
        }
    }
}

void StoreCheck::tell_overrun(const FcsRecord &record) {
    const size_t i = index_of(record);
    const bool follows = i == 0 ? record.offset == store_.payloads_at()
                                : record.offset == store_.records[i - 1].end();
    error(record, follows ? fcs::record_size_offset : fcs::record_offset_offset,
          follows ? "size" : "offset",
          "the record's " + counted(record.size, "byte") + " from " + hex(record.offset) +
              " on reach past the end of the store at " + hex(store_.bytes.size()));
}

// The library packs the payloads in the order of the records. A place where one record alone
// departs from that tells which field of which record is wrong.
void StoreCheck::check_packing() {
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
            error(records[i], fcs::record_offset_offset, "offset",
                  "the payload begins at " + hex(records[i].offset) +
                      ", and the one before it "
                      "ends at " +
                      hex(due));
            b += closes ? 1 : 0;
        } else {
            error(records[i - 1], fcs::record_size_offset, "size",
                  "the payload ends at " + hex(due) + ", and the next one begins at " +
                      hex(records[i].offset));
        }
    }
    if (breaks.empty() && records.back().end() < store_.bytes.size()) {
        tell_rest(records.back());
    }
}

void StoreCheck::tell_rest(const FcsRecord &last) {
    const auto rest = store_.bytes.subspan(static_cast<size_t>(last.end()));
    const std::string text = counted(rest.size(), "byte") + " behind the last payload";
    if (!tells_of_values(rest)) {
        findings_.note({file_, at_offset(begin_ + last.end()), text + ", which nothing reads"});
    } else {
        error(last, fcs::record_size_offset, "size", text + " belong to no record");
    }
}

} // namespace dolm
