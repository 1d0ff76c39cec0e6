#include "image/fcs_mend.h"

#include <algorithm>
#include <map>
#include <set>

namespace dolm {

namespace {

class Mender {
  public:
    Mender(std::span<const uint8_t> bytes, const std::function<std::string(uint32_t)> &name_of,
           const std::vector<uint32_t> &numbers, StoreEvidence evidence)
        : bytes_(bytes), name_of_(name_of), numbers_(numbers), evidence_(evidence) {}

    MendedStore mend() {
        store_ = read_fcs_store(bytes_, best_count());
        find_payloads();
        if (is_packed_ && !evidence_.has_sure_records) {
            find_numbers();
        }
        drop_doubles();
        const bool is_blank = store_.count == 0 && bytes_.size() > fcs::head_size;
        return {std::move(mended_), is_packed_, store_.has_all_records() && !is_blank};
    }

  private:
    const FcsRecord &record(size_t i) const { return store_.records[i]; }

    // Where a record begins by its own word, and where by that of the one before it.
    uint64_t told_end(size_t i) const {
        return i == 0 ? store_.payloads_at() : record(i - 1).end();
    }
    bool is_agreed(size_t i) const {
        return i == store_.records.size()
                   ? told_end(i) == bytes_.size()
                   : record(i).offset == told_end(i) && record(i).offset >= store_.payloads_at();
    }
    size_t count_agreed() const {
        size_t agreed = 0;
        for (size_t i = 0; i <= store_.records.size(); ++i) {
            agreed += is_agreed(i) ? 1 : 0;
        }
        return agreed;
    }

    bool is_packed() const {
        return !store_.records.empty() && 2 * count_agreed() > store_.records.size();
    }

    // The number of records with which most of them follow each other: the one that the store
    // tells, unless that does not fit the place of the first payload. A store that is not packed
    // is one that others wrote, and speaks for no other number.
    uint32_t best_count() {
        store_ = read_fcs_store(bytes_);
        uint32_t best = store_.count;
        size_t best_agreed = store_.has_all_records() ? count_agreed() : 0;
        if (bytes_.size() < fcs::head_size + fcs::record_size) {
            return best;
        }
        const FcsStore first = read_fcs_store(bytes_, 2);
        for (const FcsRecord &told : first.records) {
            for (const uint32_t before : {uint32_t{0}, uint32_t{first.records[0].size}}) {
                const uint32_t start = told.offset - before;
                const uint32_t count = (start - fcs::head_size) / fcs::record_size;
                store_ = read_fcs_store(bytes_, count);
                if (store_.has_all_records() && is_packed() && count_agreed() > best_agreed) {
                    best = count;
                    best_agreed = count_agreed();
                }
            }
        }
        return best;
    }

    // In a packed store a boundary that record and predecessor do not agree on is that of
    // whichever of the two the next boundaries speak for.
    void find_payloads() {
        const size_t count = store_.records.size();
        is_packed_ = is_packed();
        uint64_t end = bytes_.size();
        for (size_t i = 0; i < count; ++i) {
            uint64_t begin = record(i).offset;
            end = record(i).end();
            std::string doubt;
            if (is_packed_ && !is_agreed(i) && !is_agreed(i + 1) && (i == 0 || is_agreed(i - 1))) {
                begin = told_end(i);
                doubt = "its offset was wrong";
            }
            if (is_packed_ && !is_agreed(i + 1)) {
                end = i + 1 < count ? record(i + 1).offset : bytes_.size();
                const bool is_own_end = begin + record(i).size == end;
                if (i + 1 == count && !evidence_.has_sure_end) {
                    end = begin + record(i).size;
                } else {
                    doubt = is_own_end || !doubt.empty() ? doubt : "its size was wrong";
                }
                if (is_next_wrong(i)) {
                    end = begin + record(i).size;
                    doubt.clear();
                }
            }
            const bool is_there = begin <= end && end <= bytes_.size() &&
                                  end - begin <= fcs::max_payload &&
                                  ((begin == end && !is_packed_) || begin >= store_.payloads_at());
            MendedRecord mended{record(i).number, record(i).opaque, {}, std::move(doubt)};
            if (is_there && begin == end) {
                mended.payload.emplace();
            } else if (is_there) {
                mended.payload =
                    bytes_.subspan(static_cast<size_t>(begin), static_cast<size_t>(end - begin));
            } else if (mended.doubt.empty()) {
                mended.doubt = "its value runs past the end";
            }
            mended_.push_back(std::move(mended));
        }
        if (is_packed_ && end != bytes_.size() && !is_padding(end)) {
            doubt_places();
        }
        doubt_shared_places();
    }

    static const uint8_t *end_of(const MendedRecord &record) {
        return record.payload->data() + record.payload->size();
    }

    // Of two records over one place, one at least is astray.
    void doubt_shared_places() {
        std::vector<MendedRecord *> by_place;
        for (MendedRecord &record : mended_) {
            if (record.payload && !record.payload->empty()) {
                by_place.push_back(&record);
            }
        }
        std::stable_sort(by_place.begin(), by_place.end(), [](const auto *a, const auto *b) {
            return a->payload->data() < b->payload->data();
        });
        MendedRecord *farthest = nullptr;
        for (MendedRecord *record : by_place) {
            if (farthest != nullptr && record->payload->data() < end_of(*farthest)) {
                record->doubt = farthest->doubt = "another record has its place too";
            }
            if (farthest == nullptr || end_of(*farthest) < end_of(*record)) {
                farthest = record;
            }
        }
    }

    // Bytes were added or lost, perhaps in front of a value.
    void doubt_places() {
        for (MendedRecord &record : mended_) {
            record.doubt =
                record.doubt.empty() ? "the store does not end where its records do" : record.doubt;
        }
    }

    // The record behind has a wrong offset of its own: what follows it fits this one's end.
    bool is_next_wrong(size_t i) const {
        if (i + 1 == store_.records.size()) {
            return is_agreed(i) && is_padding(record(i).end());
        }
        const uint64_t next_end = record(i).end() + record(i + 1).size;
        return is_agreed(i) && (i + 2 == store_.records.size() ? next_end == bytes_.size()
                                                               : next_end == record(i + 2).offset);
    }

    // What some writers put behind a store; a size that is too small leaves hardly so much.
    bool is_padding(uint64_t at) const {
        constexpr size_t least = 16;
        if (at + least > bytes_.size()) {
            return false;
        }
        const auto rest = bytes_.subspan(static_cast<size_t>(at));
        return (rest[0] == 0 || rest[0] == 0xFF) &&
               std::all_of(rest.begin(), rest.end(), [&](uint8_t byte) { return byte == rest[0]; });
    }

    // As a handle sorts them, and as the front end does, with a slash behind the name.
    static bool is_before(const std::string &a, const std::string &b) {
        return a < b || a + "/" < b + "/";
    }

    // A record whose name does not stand where its order asks for it has a wrong number. If the
    // table has a single name for its place that no other record has, it is that one.
    void find_numbers() {
        std::vector<std::string> names;
        for (const MendedRecord &record : mended_) {
            names.push_back(name_of_(record.number));
        }
        const std::vector<bool> in_order = longest_order(names);
        std::set<uint32_t> taken;
        for (size_t i = 0; i < mended_.size(); ++i) {
            if (in_order[i]) {
                taken.insert(mended_[i].number);
            }
        }
        for (size_t i = 0; i < mended_.size(); ++i) {
            if (!in_order[i]) {
                give_number(i, names, in_order, taken);
            }
        }
    }

    void give_number(size_t i, const std::vector<std::string> &names,
                     const std::vector<bool> &in_order, const std::set<uint32_t> &taken) {
        std::string before;
        std::string behind;
        for (size_t k = i; k > 0 && before.empty(); --k) {
            before = in_order[k - 1] ? names[k - 1] : "";
        }
        for (size_t k = i + 1; k < names.size() && behind.empty(); ++k) {
            behind = in_order[k] ? names[k] : "";
        }
        const bool stands_alone =
            (i == 0 || in_order[i - 1]) && (i + 1 == names.size() || in_order[i + 1]);
        mended_[i].is_number_sure = false;
        std::vector<uint32_t> fitting;
        for (const uint32_t number : numbers_) {
            const std::string name = name_of_(number);
            if (!taken.contains(number) && (before.empty() || is_before(before, name)) &&
                (behind.empty() || is_before(name, behind))) {
                fitting.push_back(number);
            }
        }
        const bool is_known = !names[i].empty();
        const bool is_wrong = !is_known || evidence_.has_sure_names;
        if (is_wrong && stands_alone && fitting.size() == 1) {
            mended_[i].number = fitting.front();
            mended_[i].doubt = "its number was wrong";
            mended_[i].is_number_sure = true;
        } else if (is_known && !numbers_.empty() && fitting.empty()) {
            mended_[i].doubt = "its name does not stand in the order of the records";
        } else if (is_known) {
            mended_[i].payload.reset();
            mended_[i].doubt = "its record does not stand in the order of the names";
        } else {
            mended_[i].doubt = "no file of the table has its number";
        }
    }

    // The longest run of records, not necessarily side by side, whose names ascend.
    static std::vector<bool> longest_order(const std::vector<std::string> &names) {
        std::vector<size_t> length(names.size());
        std::vector<size_t> from(names.size());
        size_t best = names.size();
        for (size_t i = 0; i < names.size(); ++i) {
            if (names[i].empty()) {
                continue;
            }
            length[i] = 1;
            from[i] = i;
            // A record out of order is rare: the one right before is nearly always the best.
            for (size_t k = i; k > 0 && length[i] < i + 1; --k) {
                if (length[k - 1] >= length[i] && is_before(names[k - 1], names[i])) {
                    length[i] = length[k - 1] + 1;
                    from[i] = k - 1;
                }
                if (i - k > max_looking_back) {
                    break;
                }
            }
            best = best == names.size() || length[i] > length[best] ? i : best;
        }
        std::vector<bool> in_order(names.size());
        for (size_t i = best; i < names.size(); i = from[i]) {
            in_order[i] = true;
            if (from[i] == i) {
                break;
            }
        }
        return in_order;
    }

    // Of two records with a number, one has another's.
    void drop_doubles() {
        std::map<uint32_t, size_t> seen;
        for (size_t i = 0; i < mended_.size(); ++i) {
            const auto [first, is_new] = seen.emplace(mended_[i].number, i);
            if (!is_new) {
                for (const size_t both : {first->second, i}) {
                    mended_[both].payload.reset();
                    mended_[both].doubt = "two records have its number";
                    mended_[both].is_number_sure = false;
                }
            }
        }
    }

    static constexpr size_t max_looking_back = 64;

    std::span<const uint8_t> bytes_;
    const std::function<std::string(uint32_t)> &name_of_;
    const std::vector<uint32_t> &numbers_;
    const StoreEvidence evidence_;
    FcsStore store_;
    bool is_packed_ = false;
    std::vector<MendedRecord> mended_;
};

} // namespace

MendedStore mend_store(std::span<const uint8_t> bytes,
                       const std::function<std::string(uint32_t)> &name_of,
                       const std::vector<uint32_t> &numbers, StoreEvidence evidence) {
    return Mender(bytes, name_of, numbers, evidence).mend();
}

Bytes write_store(const std::vector<MendedRecord> &records) {
    const auto count = static_cast<size_t>(
        std::count_if(records.begin(), records.end(),
                      [](const MendedRecord &record) { return record.payload.has_value(); }));
    Bytes bytes(fcs::head_size + count * fcs::record_size);
    put_le(bytes, 0, static_cast<uint32_t>(count), 4);
    size_t at = fcs::head_size;
    for (const MendedRecord &record : records) {
        if (!record.payload) {
            continue;
        }
        put_le(bytes, at, record.number, 4);
        put_le(bytes, at + 4, static_cast<uint32_t>(bytes.size()), 4);
        put_le(bytes, at + 8, static_cast<uint32_t>(record.payload->size()), 2);
        put_le(bytes, at + 10, record.opaque, 2);
        bytes.insert(bytes.end(), record.payload->begin(), record.payload->end());
        at += fcs::record_size;
    }
    return bytes;
}

} // namespace dolm
