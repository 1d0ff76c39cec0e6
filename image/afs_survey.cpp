#include "image/afs_survey.h"

#include <algorithm>

#include "image/afs_records.h"

namespace dolm {

namespace {

using namespace afs;

std::string number(uint64_t value) {
    return std::to_string(value);
}

class Survey {
  public:
    Survey(std::span<const uint8_t> bytes, const AfsImage &image) : bytes_(bytes), image_(image) {}

    std::vector<AfsTrace> run() {
        for (uint32_t eu = 0; eu < image_.eu_count; ++eu) {
            const AfsRole role = image_.eus[eu].role;
            look_at_header(eu);
            if (image_.has_file_system && role == AfsRole::log) {
                look_at_log(eu);
            } else if (image_.has_file_system && role == AfsRole::data) {
                look_at_data(eu);
            }
        }
        const size_t end = header_at(image_.eu_count);
        if (image_.eu_count != 0 && !is_erased(end, bytes_.size())) {
            tell(Kind::rot, first_written(end, bytes_.size()), image_.eu_count, "rest of the image",
                 "bytes behind the last whole EU, which nothing uses");
        }
        return std::move(found_);
    }

  private:
    using Kind = AfsTrace::Kind;

    void tell(Kind kind, size_t at, uint32_t eu, std::string what, std::string text) {
        found_.push_back({kind, at, eu, std::move(what), std::move(text)});
    }

    const uint8_t *at(size_t offset) const { return bytes_.data() + offset; }
    uint16_t entry(uint32_t eu, uint32_t index) const {
        return get_le16(bytes_, log_entry_at(eu, index));
    }
    uint32_t page_count() const { return image_.data_va_start / page_size; }

    // The first byte of a range that is not erased; its end if all are.
    size_t first_written(size_t begin, size_t end) const {
        const auto found =
            std::find_if(at(begin), at(end), [](uint8_t byte) { return byte != 0xFF; });
        return static_cast<size_t>(found - bytes_.data());
    }
    bool is_erased(size_t begin, size_t end) const { return first_written(begin, end) == end; }

    void look_at_header(uint32_t index) {
        const AfsEu &eu = image_.eus[index];
        const uint8_t state = *at(header_at(index) + state_offset);
        if (eu.role == AfsRole::spare && !eu.erase_count_known) {
            tell(Kind::interrupted, header_at(index), index, "header",
                 "the spare has no header that tells its erase count; the average of the others "
                 "takes its place");
        } else if (eu.pending && eu.role == AfsRole::spare) {
            tell(Kind::interrupted, header_at(index), index, "header",
                 "a reclaim into this EU was cut and does not count");
        } else if (eu.pending && is_newest(eu)) {
            tell(Kind::interrupted, header_at(index), index, "header",
                 "a reclaim into this EU was cut and counts");
        } else if (eu.pending && eu.role != AfsRole::damaged) {
            tell(Kind::header, header_at(index) + state_offset, index, "state byte of the header",
                 "the header is marked as not committed, and newer ones are");
        } else if (state != 0 && (eu.role == AfsRole::log || eu.role == AfsRole::data)) {
            tell(Kind::interrupted, header_at(index) + state_offset, index,
                 "state byte of the header",
                 "the byte is not 0, and the header counts all the same");
        }
    }

    bool is_newest(const AfsEu &eu) const {
        return std::all_of(image_.eus.begin(), image_.eus.end(), [&](const AfsEu &other) {
            return other.sequence <= eu.sequence || other.role == AfsRole::spare;
        });
    }

    void look_at_log(uint32_t index) {
        const AfsEu &eu = image_.eus[index];
        bool told_wrong = false;
        bool told_cut = false;
        if (eu.free == log_slots && !is_erased(log_entry_at(index, 0), log_record_at(index, 0))) {
            tell(Kind::not_erased, first_written(log_entry_at(index, 0), log_record_at(index, 0)),
                 index, "log entries", "the EU holds no log, and its entries are not erased");
        }
        for (uint32_t slot = 0; slot < log_slots; ++slot) {
            const size_t record = log_record_at(index, slot);
            if (!eu.slots.empty() && eu.slots[slot] == AfsSlot::free) {
                if (!is_erased(record, record + record_size)) {
                    tell(Kind::interrupted, first_written(record, record + record_size), index,
                         "slot " + number(slot), "a free slot holds a write that was cut");
                }
            } else if (!eu.pages[slot]) {
                told_cut = look_at_uncommitted(index, slot, told_cut);
            } else if (!page_is_good(page_record(bytes_, record), *eu.pages[slot])) {
                told_wrong = look_at_bad(index, slot, told_wrong);
            }
        }
        const size_t end = log_record_at(index, log_slots);
        if (!is_erased(end, header_at(index + 1))) {
            tell(Kind::rot, first_written(end, header_at(index + 1)), index, "end of the EU",
                 "bytes that are never written are not "
                 "erased");
        }
    }

    // Tells of the first write in an EU that was cut, and of every page that was not.
    bool look_at_uncommitted(uint32_t eu, uint32_t slot, bool told_cut) {
        const PageRecord record = page_record(bytes_, log_record_at(eu, slot));
        const bool looks_committed = (entry(eu, slot + 1) & entry_uncommitted_bit) == 0;
        const auto page = page_of(record, page_count());
        const bool never_counted = entry(eu, 0) == entry_empty; // a run of entries that was cut
        if (page && looks_committed && !never_counted && is_newer(eu, slot, *page) &&
            !is_in_force(record, *page)) {
            tell(Kind::lost_page, log_entry_at(eu, slot), eu, "log entry " + number(slot),
                 "page " + number(*page) + " in slot " + number(slot) +
                     " is newer than the copy in force, and the log ends before it");
            return told_cut;
        }
        const bool has_entry =
            entry(eu, slot) != entry_empty && entry(eu, slot) != entry_commit_mark;
        if (!told_cut && (has_entry || !is_erased_record(eu, slot))) {
            tell(page ? Kind::uncommitted : Kind::interrupted, log_entry_at(eu, slot), eu,
                 "log entry " + number(slot),
                 "the write of slot " + number(slot) + " was cut; the slot is given up");
            return true;
        }
        return told_cut;
    }

    bool is_erased_record(uint32_t eu, uint32_t slot) const {
        return is_erased(log_record_at(eu, slot), log_record_at(eu, slot) + record_size);
    }

    bool is_newer(uint32_t eu, uint32_t slot, uint32_t page) const {
        const auto &place = image_.pages[page];
        return !place ||
               (place->eu == eu ? place->slot < slot
                                : image_.eus[place->eu].sequence < image_.eus[eu].sequence);
    }

    bool is_in_force(PageRecord record, uint32_t page) const {
        const auto &place = image_.pages[page];
        return place && std::equal(record.begin(), record.begin() + page_size,
                                   at(log_record_at(place->eu, place->slot)));
    }

    // A committed slot that is not good: either it holds another page than its entry says, or its
    // bytes are not what was written. A page in force is the reader's to tell.
    bool look_at_bad(uint32_t eu, uint32_t slot, bool told_wrong) {
        if (const auto page = page_of(page_record(bytes_, log_record_at(eu, slot)), page_count())) {
            if (!told_wrong) {
                const uint32_t wrong = wrong_entry(eu, slot);
                tell(Kind::log_entry, log_entry_at(eu, wrong), eu, "log entry " + number(wrong),
                     "the entries lead to page " + number(*image_.eus[eu].pages[slot]) +
                         " in slot " + number(slot) + ", which holds page " + number(*page));
            }
            return true;
        }
        const AfsEu &held = image_.eus[eu];
        if (!held.slots.empty() && held.slots[slot] == AfsSlot::dead) {
            tell(Kind::rot, log_record_at(eu, slot), eu, "slot " + number(slot),
                 "an old copy of page " + number(*image_.eus[eu].pages[slot]) +
                     ", which nobody reads, fails its checksum");
        }
        return told_wrong;
    }

    // Which of the entries up to the slot is not what the pages in the slots ask for.
    uint32_t wrong_entry(uint32_t eu, uint32_t slot) const {
        for (uint32_t i = slot < 2 ? 0 : slot - 2; i < slot; ++i) {
            const auto page = page_of(page_record(bytes_, log_record_at(eu, i)), page_count());
            const auto before =
                i == 0 ? std::optional<uint16_t>(0)
                       : page_of(page_record(bytes_, log_record_at(eu, i - 1)), page_count());
            if (page && before && entry(eu, i) != (*page ^ link_of(*before))) {
                return i;
            }
        }
        return slot;
    }

    void look_at_data(uint32_t index) {
        const AfsEu &eu = image_.eus[index];
        for (uint32_t slot = 0; slot < eu.slots.size(); ++slot) {
            const size_t record = data_record_at(index, slot);
            const std::string what = "slot " + number(slot);
            const uint8_t status = *at(status_at(index, slot));
            switch (eu.slots[slot]) {
            case AfsSlot::live:
                break;
            case AfsSlot::free:
                if (const size_t end = record + record_size; !is_erased(record, end)) {
                    tell(Kind::not_erased, first_written(record, end), index, what,
                         "the slot is free and not erased: a write to it fails");
                }
                break;
            case AfsSlot::dead:
                look_at_dead(index, slot, status);
                break;
            case AfsSlot::outside:
                if (status != status_free || !is_erased(record, record + record_size)) {
                    tell(Kind::rot, record, index, what, "a slot that no chunk has is not erased");
                }
                break;
            }
        }
    }

    void look_at_dead(uint32_t eu, uint32_t slot, uint8_t status) {
        constexpr uint8_t written_bit = 0x80; // cleared first
        const std::string what = "status of slot " + number(slot);
        if ((status & written_bit) != 0) {
            tell(Kind::rot, status_at(eu, slot), eu, what,
                 "the byte is neither erased nor one that is written; the slot is out of use");
        } else if (status != status_complete) {
            tell(Kind::interrupted, status_at(eu, slot), eu, what,
                 "the write of the slot was cut; the slot is out of use until a reclaim");
        }
    }

    std::span<const uint8_t> bytes_;
    const AfsImage &image_;
    std::vector<AfsTrace> found_;
};

} // namespace

std::vector<AfsTrace> survey_afs_image(std::span<const uint8_t> bytes, const AfsImage &image) {
    return Survey(bytes, image).run();
}

} // namespace dolm
