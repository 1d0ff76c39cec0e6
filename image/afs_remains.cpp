#include "image/afs_remains.h"

#include <algorithm>
#include <array>

#include "image/afs_records.h"
#include "image/bytes.h"

namespace dolm::afs {

namespace {

constexpr uint32_t usual_file_count = 1024;

Geometry geometry_of(uint32_t file_count, uint32_t chunk_count) {
    const uint32_t fat_end = fs_header_size + 2 * (file_count + chunk_count);
    return {file_count, chunk_count, (fat_end + page_size - 1) / page_size * page_size};
}

std::optional<Geometry> geometry_in(std::span<const uint8_t> page) {
    const uint32_t total = get_le32(page, 8);
    const uint32_t file_count = get_le16(page, 12);
    const uint32_t slots_end = fs_header_size + 2 * file_count;
    if (get_le32(page, 0) != fs_magic || file_count < min_file_count || total < slots_end) {
        return std::nullopt;
    }
    const uint32_t chunk_count = (total - slots_end) / record_size;
    const Geometry geometry = geometry_of(file_count, std::min(chunk_count, 0xFFFFu));
    const bool is_possible = file_count + chunk_count <= 0xFFFE && geometry.data_va_start <= total;
    return is_possible ? std::optional(geometry) : std::nullopt;
}

uint32_t count_eus(std::span<const uint8_t> bytes) {
    return static_cast<uint32_t>(std::min<size_t>(bytes.size() / eu_size, max_eu_count));
}

// A header as it was before its magic was changed, by being given up or by damage.
struct UnitHeader {
    bool counts = false; // valid, committed or not
    bool pending = false;
    bool given_up = false; // the magic was cleared, all else stands
    bool is_told = false;  // the fields have their checksum, whatever the magic
    uint32_t sequence = 0; // as stored, as what follows
    uint16_t next_spare = 0;
    uint16_t va_base = 0;
};

UnitHeader read_header(std::span<const uint8_t> bytes, uint32_t eu) {
    std::array<uint8_t, header_size> header{};
    std::copy_n(bytes.begin() + static_cast<std::ptrdiff_t>(header_at(eu)), header_size,
                header.begin());
    const Header judged = judge_header(header);
    UnitHeader read;
    read.counts = judged.state != HeaderState::invalid;
    read.pending = judged.state == HeaderState::pending;
    read.given_up = judged.given_up;
    read.sequence = get_le32(header, 4);
    read.next_spare = get_le16(header, 12);
    read.va_base = get_le16(header, 14);
    for (unsigned i = 0; i < 4; ++i) {
        header[i] = static_cast<uint8_t>(magic_written >> (8 * i));
    }
    read.is_told = read.counts || judge_header(header).state != HeaderState::invalid;
    return read;
}

class Reader {
  public:
    Reader(std::span<const uint8_t> bytes, const FoundGeometry &found) : bytes_(bytes) {
        remains_.geometry = found.geometry;
        remains_.eu_count = count_eus(bytes);
        remains_.rows.resize(found.geometry.rows());
        if (!found.is_stored) {
            doubt("no header of the file system is left; its numbers are guessed");
        }
    }

    Remains run() {
        for (uint32_t eu = 0; eu < remains_.eu_count; ++eu) {
            headers_.push_back(read_header(bytes_, eu));
            if (headers_.back().is_told) {
                remains_.sequences.insert(headers_.back().sequence);
            }
        }
        leave_out_what_is_behind();
        choose_spare();
        for (uint32_t eu = 0; eu < remains_.eu_count; ++eu) {
            if (headers_[eu].counts && eu != spare_ && !is_copy(eu)) {
                place(eu);
            }
        }
        for (uint32_t eu = 0; eu < remains_.eu_count; ++eu) {
            if (!headers_[eu].counts && eu != spare_) {
                place(eu);
            }
        }
        if (spare_) {
            place_spare(*spare_);
        }
        count_what_is_missing();
        std::stable_sort(
            remains_.log.begin(), remains_.log.end(), [](const LogUnit &a, const LogUnit &b) {
                return a.sequence.value_or(UINT32_MAX) < b.sequence.value_or(UINT32_MAX);
            });
        return std::move(remains_);
    }

  private:
    void doubt(std::string text) { remains_.doubts.push_back(std::move(text)); }

    std::span<const uint8_t> unit(uint32_t eu) const {
        return bytes_.subspan(header_at(eu), eu_size);
    }
    std::span<const uint8_t> body(uint32_t eu) const {
        return bytes_.subspan(header_at(eu) + header_size, eu_size - header_size);
    }

    // A file can be longer than the store: erased units at its end that no header ever named as the
    // spare, which each unit once is, where another one is the spare.
    void leave_out_what_is_behind() {
        const auto counts = [](const UnitHeader &header) { return header.counts; };
        const auto named = [&](const UnitHeader &header) {
            return header.counts && header.next_spare + 1U >= remains_.eu_count;
        };
        while (remains_.eu_count != 0 && is_erased(unit(remains_.eu_count - 1)) &&
               std::none_of(headers_.begin(), headers_.end(), named)) {
            const auto others = std::span(headers_).first(remains_.eu_count - 1);
            const bool has_spare =
                std::any_of(others.begin(), others.end(),
                            [](const UnitHeader &other) { return !other.counts; });
            if (!has_spare || std::none_of(others.begin(), others.end(), counts)) {
                return;
            }
            headers_.pop_back();
            --remains_.eu_count;
        }
    }

    // A unit that was written over with another one stands for nothing.
    bool is_copy(uint32_t eu) {
        for (uint32_t other = 0; other < eu; ++other) {
            if (headers_[other].counts && headers_[other].sequence == headers_[eu].sequence &&
                std::ranges::equal(unit(other), unit(eu))) {
                unknown_.push_back(eu);
                return true;
            }
        }
        return false;
    }

    // The newest header names the spare. A header counts here too that only lost its magic: what
    // was given up in order is older than the header of the unit that took its place.
    void choose_spare() {
        std::optional<uint32_t> newest;
        std::optional<uint32_t> pending;
        for (uint32_t eu = 0; eu < remains_.eu_count; ++eu) {
            const UnitHeader &header = headers_[eu];
            invalid_ += header.counts ? 0 : 1;
            pending = header.pending ? eu : pending;
            const bool tells = header.counts || (header.is_told && !is_erased(body(eu)));
            if (tells && (!newest || headers_[*newest].sequence < header.sequence)) {
                newest = eu;
            }
        }
        if (invalid_ == 0) {
            spare_ = pending; // a reclaim that was cut before its source was given up
            return;
        }
        if (!newest) {
            return;
        }
        const uint32_t named = headers_[*newest].next_spare;
        if (named < remains_.eu_count && !headers_[named].counts) {
            spare_ = named;
        }
        // The unit that is named may have had a newer header, of a reclaim whose source is a spare
        // as it should be.
        if (invalid_ > 1 && spare_ && !headers_[*spare_].given_up) {
            uncertain_ = spare_;
            for (uint32_t eu = 0; eu < remains_.eu_count; ++eu) {
                if (eu != *uncertain_ && headers_[eu].given_up) {
                    spare_ = eu;
                }
            }
            if (spare_ == uncertain_) {
                spare_.reset();
            }
        }
    }

    bool is_data_base(uint32_t va_base) const {
        const uint32_t first = remains_.geometry.page_count();
        return va_base >= first && (va_base - first) % data_slots == 0 &&
               (va_base - first) / data_slots < remains_.rows.size();
    }

    void place(uint32_t eu) {
        const UnitHeader &header = headers_[eu];
        if (header.is_told && is_data_base(header.va_base)) {
            place_data(eu, header.va_base, header.sequence);
        } else if (header.is_told && header.va_base == 0) {
            place_log(eu, header.sequence, true);
        } else if (const BaseByContent base = base_by_content(eu);
                   base.pages > log_pages(eu) && is_missing(base)) {
            place_data(eu, base.va_base, 0);
        } else if (log_pages(eu) != 0) {
            place_log(eu, std::nullopt, true);
        } else if (!is_erased(body(eu)) || is_erased(unit(eu))) {
            unknown_.push_back(eu);
        } else {
            ++blank_; // and only its header is damaged
        }
    }

    void place_data(uint32_t eu, uint32_t va_base, uint32_t sequence) {
        const uint32_t index = (va_base - remains_.geometry.page_count()) / data_slots;
        auto &row = remains_.rows[index];
        const bool is_certain = uncertain_ != eu || invalid_ == 2; // the other one is the spare
        const DataUnit placed{eu, sequence, is_certain};
        if (!row) {
            row = placed;
            return;
        }
        const bool is_newer = sequence > row->sequence;
        remains_.rivals.emplace(index, is_newer ? *row : placed);
        if (is_newer) {
            row = placed;
        }
        row->is_certain = row->is_certain && !is_newer && headers_[row->eu].counts;
    }

    void place_log(uint32_t eu, std::optional<uint32_t> sequence, bool counts) {
        LogUnit unit = read_log_unit(eu);
        if (LogUnit by_content = read_by_content(eu);
            count_good(by_content) > 2 * count_good(unit) + by_chance) {
            unit = std::move(by_content);
            if (counts) {
                doubt("the entries of the log in EU " + std::to_string(eu) + " are damaged");
            }
        }
        unit.sequence = sequence;
        unit.counts = counts;
        const uint32_t end = unit.pages.empty() ? 0 : unit.pages.back().slot + 1;
        // The slot behind the last page can hold a write that was cut.
        for (uint32_t slot = end + 1; slot < log_slots; ++slot) {
            const auto page = page_of(page_record(bytes_, log_record_at(eu, slot)),
                                      remains_.geometry.page_count());
            if (page) {
                unit.behind.push_back({*page, eu, slot, true});
            }
        }
        if (!unit.pages.empty() || !unit.behind.empty()) {
            remains_.log.push_back(std::move(unit));
        }
    }

    void place_spare(uint32_t eu) {
        const UnitHeader &header = headers_[eu];
        if (!header.is_told || header.pending || is_erased(body(eu))) {
            return;
        }
        if (header.va_base == 0) {
            place_log(eu, header.sequence, false);
        } else if (is_data_base(header.va_base)) {
            const uint32_t row = (header.va_base - remains_.geometry.page_count()) / data_slots;
            auto &unit = remains_.rows[row];
            if (!unit) {
                // Its unit is gone: what the spare has is all that is left, of another time.
                unit = DataUnit{eu, header.sequence, false};
                is_row_lost_ = true;
            } else if (headers_[unit->eu].next_spare == eu && header.sequence < unit->sequence) {
                remains_.spare_row = DataUnit{eu, header.sequence, true};
                remains_.spare_row_index = row;
            }
        }
    }

    // Units whose part is unknown can be the data units that are missing, as can blank ones; every
    // further one may have held the newest pages of the log, as may those behind the end of an
    // image that was cut.
    void count_what_is_missing() {
        size_t missing_rows = is_row_lost_ ? 1 : 0;
        for (const auto &row : remains_.rows) {
            missing_rows += row ? 0 : 1;
        }
        const bool is_cut =
            std::any_of(headers_.begin(), headers_.end(), [&](const UnitHeader &header) {
                return header.counts && header.next_spare >= remains_.eu_count;
            });
        if (unknown_.size() > missing_rows) {
            doubt("an erase unit cannot be read, which may have held the newest metadata");
            remains_.is_log_whole = false;
        } else if (is_cut || unknown_.size() + blank_ < missing_rows) {
            doubt("an erase unit is not there, which may have held the newest metadata");
            remains_.is_log_whole = false;
        } else if (unknown_.size() + blank_ <= missing_rows) {
            trust_only_claims();
        }
    }

    // Where no unit is left that could have a row, the one that may not be its unit is.
    void trust_only_claims() {
        for (uint32_t row = 0; row < remains_.rows.size(); ++row) {
            auto &holder = remains_.rows[row];
            if (holder && holder->eu == uncertain_ && !remains_.rivals.contains(row)) {
                holder->is_certain = true;
            }
        }
    }

    // The first page of a data EU by the numbers that its pages carry.
    struct BaseByContent {
        uint32_t va_base = 0;
        uint32_t pages = 0; // that are good
    };
    BaseByContent base_by_content(uint32_t eu) const {
        BaseByContent best;
        for (uint32_t row = 0; row < remains_.rows.size(); ++row) {
            const uint32_t base = remains_.geometry.page_count() + row * data_slots;
            uint32_t pages = 0;
            for (uint32_t slot = 0; slot < data_slots; ++slot) {
                const PageRecord record = page_record(bytes_, data_record_at(eu, slot));
                pages += page_is_good(record, base + slot) ? 1 : 0;
            }
            best = pages > best.pages ? BaseByContent{base, pages} : best;
        }
        return best;
    }

    static constexpr uint32_t by_chance = 2; // pages that have the checksum

    bool is_missing(const BaseByContent &base) const {
        const uint32_t row = (base.va_base - remains_.geometry.page_count()) / data_slots;
        return base.pages > by_chance || !remains_.rows[row];
    }

    uint32_t log_pages(uint32_t eu) const {
        const uint32_t by_content = count_good(read_by_content(eu));
        return std::max(count_good(read_log_unit(eu)), by_content > by_chance ? by_content : 0);
    }

    static uint32_t count_good(const LogUnit &unit) {
        return static_cast<uint32_t>(
            std::count_if(unit.pages.begin(), unit.pages.end(),
                          [](const LogPage &page) { return page.is_good; }));
    }

    // The page that a slot holds by its checksum, if it was written.
    std::optional<uint16_t> page_in(uint32_t eu, uint32_t slot) const {
        const PageRecord record = page_record(bytes_, log_record_at(eu, slot));
        const bool is_uniform = std::all_of(record.begin(), record.end(),
                                            [&](uint8_t byte) { return byte == record[0]; });
        return is_uniform ? std::nullopt : page_of(record, remains_.geometry.page_count());
    }

    // The pages without the entries. What was written last and is not good was cut.
    LogUnit read_by_content(uint32_t eu) const {
        LogUnit unit;
        unit.eu = eu;
        std::vector<LogPage> damaged;
        for (uint32_t slot = 0; slot < log_slots; ++slot) {
            if (const auto page = page_in(eu, slot)) {
                unit.pages.insert(unit.pages.end(), damaged.begin(), damaged.end());
                damaged.clear();
                unit.pages.push_back({*page, eu, slot, true});
            } else if (!is_erased(page_record(bytes_, log_record_at(eu, slot)))) {
                damaged.push_back({unknown_page, eu, slot, false});
            }
        }
        unit.is_full = !unit.pages.empty() && unit.pages.back().slot + 1 == log_slots;
        return unit;
    }

    uint16_t entry(uint32_t eu, uint32_t index) const {
        return get_le16(bytes_, log_entry_at(eu, index));
    }

    bool holds(uint32_t eu, uint32_t slot, uint32_t page) const {
        return page < remains_.geometry.page_count() &&
               page_is_good(page_record(bytes_, log_record_at(eu, slot)), page);
    }

    // Whether the entry behind a slot leads to what its own slot holds if the slot holds the page.
    bool leads_on(uint32_t eu, uint32_t slot, uint32_t page) const {
        if (slot + 1 >= log_slots || entry(eu, slot + 1) == entry_commit_mark) {
            return false;
        }
        const uint32_t next =
            (entry(eu, slot + 1) & entry_page_mask) ^ link_of(static_cast<uint16_t>(page));
        return holds(eu, slot + 1, next);
    }

    // Reads the log of a unit. Entries and slots say the same thing twice, so that one of them can
    // be damaged: a slot is believed that is good for what its entry says, and one that is good for
    // another page if the entry behind it agrees.
    LogUnit read_log_unit(uint32_t eu) const {
        LogUnit unit;
        unit.eu = eu;
        uint16_t link = 0;
        uint32_t gap_end = 0; // slot behind two that were given up
        uint16_t link_before_gap = 0;
        for (uint32_t slot = 0; slot < log_slots; ++slot) {
            const uint16_t own = entry(eu, slot);
            const uint16_t next = entry(eu, slot + 1);
            if (slot == gap_end && leads_from(link_before_gap, eu, slot)) {
                link = link_before_gap;
            }
            const uint32_t told = link_of(link) ^ (own & entry_page_mask);
            const bool is_committed = (next & entry_uncommitted_bit) == 0;
            // A cut leaves the next entry erased; anything else is a commit mark that was damaged.
            const bool went_on = !is_committed && holds(eu, slot, told) && next != entry_empty;
            if (!is_committed && !went_on) {
                if (own != entry_empty) { // a write that was cut takes the next slot too
                    link_before_gap = link;
                    add_uncommitted(unit, told, slot, link);
                    ++slot;
                }
                gap_end = slot + 1;
                continue;
            }
            // What follows a write that was cut is chained to what stands before it.
            const bool is_behind_gap = slot == gap_end && slot != 0;
            if (is_behind_gap && !holds(eu, slot, told) && leads_elsewhere(eu, slot)) {
                unit.pages.push_back({unknown_page, eu, slot, false});
            }
            if (own == entry_empty || own == entry_commit_mark) {
                if (!find_by_content(unit, slot, link)) {
                    continue;
                }
            } else if (!take_by_entry(unit, slot, told, is_behind_gap, link)) {
                break;
            }
            if (next == entry_commit_mark) {
                unit.is_full = slot + 1 == log_slots;
                return unit;
            }
        }
        unit.is_full =
            entry(eu, log_slots) != entry_empty || entry(eu, log_slots - 1) != entry_empty;
        return unit;
    }

    // Takes the page that a slot's entry tells, or the one that the slot holds. False where the log
    // ends: at an entry that is none, or at the rest of a run that landed in part.
    bool take_by_entry(LogUnit &unit, uint32_t slot, uint32_t told, bool is_behind_gap,
                       uint16_t &link) const {
        const uint32_t eu = unit.eu;
        const uint16_t own = entry(eu, slot);
        if (holds(eu, slot, told) &&
            (leads_on(eu, slot, told) || entry(eu, slot + 1) == entry_commit_mark ||
             !leads_elsewhere(eu, slot))) {
            add(unit, told, slot, true, link);
            return true;
        }
        if (find_by_content(unit, slot, link)) {
            return true;
        }
        if (is_behind_gap || (own & entry_page_mask) != own) {
            return false;
        }
        if (told < remains_.geometry.page_count()) {
            add(unit, told, slot, false, link);
        } else {
            unit.pages.push_back({unknown_page, eu, slot, false});
        }
        return true;
    }

    bool leads_from(uint16_t link, uint32_t eu, uint32_t slot) const {
        return holds(eu, slot, link_of(link) ^ (entry(eu, slot) & entry_page_mask));
    }

    // Behind a write that was cut the next slot stays empty. Where it holds a page the entry
    // between the two was lost, or they are of a run of copies that landed in part, which are what
    // they were copied from.
    void add_uncommitted(LogUnit &unit, uint32_t told, uint32_t slot, uint16_t &link) const {
        const auto next = slot + 1 < log_slots ? page_in(unit.eu, slot + 1) : std::nullopt;
        if (next && holds(unit.eu, slot, told)) {
            add(unit, told, slot, true, link);
            add(unit, *next, slot + 1, true, link);
        }
    }

    static void add(LogUnit &unit, uint32_t page, uint32_t slot, bool is_good, uint16_t &link) {
        unit.pages.push_back({page, unit.eu, slot, is_good});
        link = static_cast<uint16_t>(page);
    }

    // Whether the slot holds a page, other than its entry says, to which the next entry is chained.
    bool leads_elsewhere(uint32_t eu, uint32_t slot) const {
        const auto page =
            page_of(page_record(bytes_, log_record_at(eu, slot)), remains_.geometry.page_count());
        return page && leads_on(eu, slot, *page);
    }

    // The page that a slot holds whatever its entry says, if the next entry is chained to it or the
    // slot is the last one.
    bool find_by_content(LogUnit &unit, uint32_t slot, uint16_t &link) const {
        const uint16_t next = entry(unit.eu, slot + 1);
        for (uint32_t page = 0; page < remains_.geometry.page_count(); ++page) {
            if (holds(unit.eu, slot, page) &&
                (leads_on(unit.eu, slot, page) || next == entry_commit_mark)) {
                add(unit, page, slot, true, link);
                return true;
            }
        }
        return false;
    }

    std::span<const uint8_t> bytes_;
    Remains remains_;
    std::vector<UnitHeader> headers_;
    std::optional<uint32_t> spare_;
    std::optional<uint32_t> uncertain_; // named as the spare, and probably none
    size_t invalid_ = 0;                // headers
    std::vector<uint32_t> unknown_;     // units whose part is not known
    size_t blank_ = 0; // units of which only the header was written, and is damaged
    bool is_row_lost_ = false;
};

} // namespace

uint32_t Geometry::page_count() const {
    return data_va_start / page_size;
}

uint32_t Geometry::rows() const {
    return (chunk_count + data_slots - 1) / data_slots;
}

std::optional<FoundGeometry> find_geometry(std::span<const uint8_t> bytes) {
    const uint32_t eu_count = count_eus(bytes);
    for (uint32_t eu = 0; eu < eu_count; ++eu) {
        for (uint32_t slot = 0; slot < log_slots; ++slot) {
            const PageRecord record = page_record(bytes, log_record_at(eu, slot));
            if (get_le32(record, 0) == fs_magic && page_is_good(record, 0)) {
                if (const auto geometry = geometry_in(record)) {
                    return FoundGeometry{*geometry, true};
                }
            }
        }
    }
    uint32_t lowest = UINT32_MAX;
    uint32_t highest = 0;
    for (uint32_t eu = 0; eu < eu_count; ++eu) {
        const UnitHeader header = read_header(bytes, eu);
        if (header.counts && header.va_base != 0) {
            lowest = std::min<uint32_t>(lowest, header.va_base);
            highest = std::max<uint32_t>(highest, header.va_base);
        }
    }
    if (highest == 0) {
        return std::nullopt;
    }
    const Geometry geometry = geometry_of(usual_file_count, highest - lowest + data_slots);
    return geometry.page_count() == lowest ? std::optional(FoundGeometry{geometry, false})
                                           : std::nullopt;
}

Remains read_remains(std::span<const uint8_t> bytes, const FoundGeometry &found) {
    return Reader(bytes, found).run();
}

} // namespace dolm::afs
