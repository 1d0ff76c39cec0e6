#include "image/afs_reader.h"

#include <algorithm>

#include "image/afs_records.h"

namespace dolm::afs {

namespace {

class Log {
  public:
    Log(std::span<const uint8_t> bytes, AfsImage &image) : bytes_(bytes), image_(image) {}

    // The log is the log EUs in the order of their headers, each read from its first slot on. The
    // head is the newest EU that it can go on in; of blank EUs, the oldest.
    void read(uint32_t page_count, bool provisional) {
        image_.pages.assign(page_count, std::nullopt);
        image_.head.reset();
        image_.head_slot = 0;
        std::vector<uint32_t> order;
        for (uint32_t i = 0; i < image_.eu_count; ++i) {
            if (image_.eus[i].role == AfsRole::log) {
                order.push_back(i);
            }
        }
        std::stable_sort(order.begin(), order.end(), [this](uint32_t a, uint32_t b) {
            return image_.eus[a].sequence < image_.eus[b].sequence;
        });
        const auto blank =
            std::ranges::find_if(order, [this](uint32_t eu) { return is_blank(eu); });
        const bool any_blank = blank != order.end();
        for (const uint32_t eu : order) {
            image_.eus[eu].pages.assign(log_slots, std::nullopt);
            if (is_blank(eu)) {
                continue;
            }
            const LogEnd end = replay_eu(eu, provisional);
            if (!end.closed || end.has_pages || !any_blank) {
                image_.head = eu;
                image_.head_slot = end.closed ? log_slots : end.slot;
            }
        }
        if (!image_.head && any_blank) {
            image_.head = *blank;
        }
    }

  private:
    uint16_t log_entry(uint32_t eu, uint32_t index) const {
        return get_le16(bytes_, log_entry_at(eu, index));
    }

    bool is_blank(uint32_t eu) const { return log_is_erased_from(bytes_, eu, 0); }

    struct LogEnd {
        bool has_pages = false;
        bool closed = false; // the EU takes no further pages
        uint32_t slot = 0;   // of the next page
    };

    // A run of entries can land in part. What it leaves behind a gap would commit pages that are
    // written there later, so such an EU is closed.
    LogEnd replay_eu(uint32_t eu, bool provisional) {
        LogEnd end;
        if (log_entry(eu, 0) == entry_empty) {
            end.closed = true;
            return end;
        }
        uint16_t last = 0;
        bool behind_cut = false;
        uint32_t gap_end = 0; // slot behind two that were given up
        uint32_t slot = 0;
        while (slot < log_slots) {
            const uint16_t entry = log_entry(eu, slot);
            const uint16_t next = log_entry(eu, slot + 1);
            if ((next & entry_uncommitted_bit) == 0) {
                const auto page = static_cast<uint16_t>(link_of(last) ^ entry);
                const bool astray = (behind_cut && page >= image_.pages.size()) ||
                                    (slot == gap_end && is_left_of_a_run(eu, slot, entry, page));
                if ((entry & entry_page_mask) != entry || astray) {
                    end.closed = true;
                    return end;
                }
                last = page;
                enter_page(last, eu, slot);
                end.has_pages = true;
                end.slot = ++slot;
                // Links lead back into a range that is too wide before they leave it.
                behind_cut = behind_cut && provisional;
                if (next == entry_commit_mark) {
                    end.closed = !log_is_erased_from(bytes_, eu, slot + 1);
                    return end;
                }
            } else if (entry == entry_empty) {
                behind_cut = false;
                ++slot;
            } else {
                // The write of this slot was cut; the slot after it goes with it.
                slot = std::min(slot + 2, log_slots);
                end.slot = gap_end = slot;
                behind_cut = true;
            }
        }
        return end;
    }

    // Behind a gap that no commit mark follows, an entry can be chained to one that did not land.
    // Then its slot holds another page, one that some link makes of it.
    bool is_left_of_a_run(uint32_t eu, uint32_t slot, uint16_t entry, uint32_t page) const {
        const PageRecord record = page_record(bytes_, log_record_at(eu, slot));
        bool is_left = slot > 0 && !page_is_good(record, page);
        for (uint32_t i = slot; is_left && i <= log_slots; ++i) {
            is_left = log_entry(eu, i) != entry_commit_mark;
        }
        for (uint32_t link = 0; is_left && link < image_.pages.size(); ++link) {
            const uint32_t other = link_of(static_cast<uint16_t>(link)) ^ entry;
            if (other < image_.pages.size() && page_is_good(record, other)) {
                return true;
            }
        }
        return false;
    }

    void enter_page(uint32_t page, uint32_t eu, uint32_t slot) {
        if (page >= image_.pages.size()) {
            image_.damages.push_back({.rule = AfsDamage::Rule::log_entry,
                                      .text = "EU " + std::to_string(eu) + ": the entry of slot " +
                                              std::to_string(slot) + " decodes to page " +
                                              std::to_string(page) +
                                              ", which the store does not have",
                                      .eu = eu,
                                      .slot = slot,
                                      .page = page});
            return;
        }
        image_.pages[page] = AfsPagePlace{eu, slot};
        image_.eus[eu].pages[slot] = static_cast<uint16_t>(page);
    }

    std::span<const uint8_t> bytes_;
    AfsImage &image_;
};

} // namespace

void read_log(std::span<const uint8_t> bytes, AfsImage &image, uint32_t page_count,
              bool provisional) {
    Log(bytes, image).read(page_count, provisional);
}

bool log_is_erased_from(std::span<const uint8_t> bytes, uint32_t eu, uint32_t slot) {
    for (uint32_t i = slot; i <= log_slots; ++i) {
        if (get_le16(bytes, log_entry_at(eu, i)) != entry_empty) {
            return false;
        }
    }
    return true;
}

} // namespace dolm::afs
