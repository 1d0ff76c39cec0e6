#include "image/afs_reader.h"

#include <algorithm>

#include "image/afs_records.h"

namespace dolm::afs {

namespace {

class Slots {
  public:
    Slots(std::span<const uint8_t> bytes, AfsImage &image, const DataArea &area)
        : bytes_(bytes), image_(image), area_(area) {}

    void read() {
        count_data_slots();
        count_log_slots();
    }

  private:
    static void add_slot(AfsEu &eu, AfsSlot slot) {
        eu.slots.push_back(slot);
        eu.live += slot == AfsSlot::live;
        eu.dead += slot == AfsSlot::dead;
        eu.free += slot == AfsSlot::free;
    }

    void count_data_slots() {
        for (uint32_t row = 0; row < area_.eus.size(); ++row) {
            if (!area_.eus[row]) {
                continue;
            }
            AfsEu &eu = image_.eus[*area_.eus[row]];
            for (uint32_t slot = 0; slot < data_slots; ++slot) {
                const uint32_t chunk = row * data_slots + slot;
                const uint8_t status = bytes_[status_at(*area_.eus[row], slot)];
                if (chunk >= image_.chunk_count) {
                    add_slot(eu, AfsSlot::outside);
                } else if (area_.owners[chunk]) {
                    add_slot(eu, AfsSlot::live);
                } else {
                    add_slot(eu, status == status_free ? AfsSlot::free : AfsSlot::dead);
                }
            }
            image_.used_chunks += eu.live;
            image_.free_chunks += eu.free;
        }
    }

    // A whole page of chain entries none of whose chunks is in use is not carried along by a
    // reclaim, even where the log still has a copy of it.
    bool page_is_stale(uint32_t page) const {
        const uint32_t chains_start = fs_header_size + 2 * image_.file_count;
        const uint32_t va = page * page_size;
        if (va < chains_start || va + page_size >= image_.data_va_start) {
            return false;
        }
        const auto first = area_.owners.begin() + (va - chains_start) / 2;
        return std::none_of(first, first + page_size / 2,
                            [](const auto &owner) { return owner.has_value(); });
    }

    void count_log_slots() {
        for (uint32_t i = 0; i < image_.eu_count; ++i) {
            AfsEu &eu = image_.eus[i];
            if (eu.role != AfsRole::log) {
                continue;
            }
            const uint32_t end = log_is_erased_from(bytes_, i, 0) ? 0
                                 : i == image_.head               ? image_.head_slot
                                                                  : log_slots;
            eu.slots.assign(log_slots, AfsSlot::free);
            std::fill_n(eu.slots.begin(), end, AfsSlot::dead);
            eu.dead = end;
            eu.free = log_slots - end;
        }
        for (uint32_t page = 0; page < image_.pages.size(); ++page) {
            if (const auto &place = image_.pages[page]; place && !page_is_stale(page)) {
                AfsEu &eu = image_.eus[place->eu];
                eu.slots[place->slot] = AfsSlot::live;
                ++eu.live;
                --eu.dead;
            }
        }
    }

    std::span<const uint8_t> bytes_;
    AfsImage &image_;
    const DataArea &area_;
};

} // namespace

void read_slots(std::span<const uint8_t> bytes, AfsImage &image, const DataArea &area) {
    Slots(bytes, image, area).read();
}

} // namespace dolm::afs
