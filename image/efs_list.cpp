#include "image/efs_list.h"

#include <algorithm>
#include <set>
#include <utility>

#include "image/efs_records.h"
#include "image/efs_survey.h"
#include "image/file_table.h"

namespace dolm {

namespace {

using namespace efs;

constexpr uint32_t max_number = 0x7FF; // that an entry of a file can name

EfsPlace listed_place(std::span<const uint8_t> table, size_t at) {
    return {get_le16(table, at), table[at + ftbl::record_block_offset],
            get_le16(table, at + ftbl::record_start_offset),
            get_le16(table, at + ftbl::record_max_size_offset)};
}

// The places of the records from begin on that a list could have, up to two in a row that none
// could: a single one is damaged.
std::vector<EfsPlace> run_of_places(std::span<const uint8_t> table, size_t begin,
                                    const EfsLayout &layout, std::set<size_t> &tried) {
    std::vector<EfsPlace> run;
    std::set<uint32_t> numbers;
    std::set<std::pair<uint32_t, uint32_t>> begins;
    bool was_possible = true;
    for (size_t at = begin; at + ftbl::efst_record_size <= table.size();
         at += ftbl::efst_record_size) {
        const EfsPlace place = listed_place(table, at);
        const bool is_possible = place.number <= max_number && place.block < layout.valid_blocks &&
                                 place.offset <= record_room &&
                                 numbers.insert(place.number).second &&
                                 begins.emplace(place.block, place.offset).second;
        if (is_possible) {
            run.push_back(place);
            tried.insert(at);
        } else if (!was_possible) {
            break;
        }
        was_possible = is_possible;
    }
    return run;
}

// Goes through the blocks from their fronts, over one record after the other.
class PlaceFinder {
  public:
    PlaceFinder(std::span<const uint8_t> image, const EfsLayout &layout, uint32_t first_number)
        : bytes_(image), layout_(layout), image_(read_efs_image(image, layout)),
          number_(first_number) {}

    std::vector<EfsPlace> run() {
        for (uint32_t logical = 0; logical < image_.valid_map.size(); ++logical) {
            uint32_t offset = logical == continued_block_ ? continued_offset_ : 0;
            while (logical >= continued_block_ && offset <= record_room) {
                const size_t known = places_.size();
                offset = find_record(logical, offset);
                if (places_.size() > known) {
                    limit_before(known);
                }
            }
        }
        return std::move(places_);
    }

  private:
    std::span<const uint8_t> area(uint32_t logical) const {
        const size_t at = size_t{layout_.bm_num + image_.valid_map[logical]} * block_size;
        return bytes_.subspan(at + data_offset, data_size);
    }

    // Where to look next.
    uint32_t find_record(uint32_t logical, uint32_t offset) {
        const auto record = area(logical).subspan(offset);
        const uint32_t size = get_le16(record, 0);
        const uint32_t length = size == no_file ? 0 : size;
        const uint32_t payload = std::min(length, record_room - offset);
        if (all(record, 0) || !record_is_good(record, logical, payload) ||
            !goes_on(logical + 1, length - payload)) {
            return offset + 1;
        }
        places_.push_back({number_++, logical, offset, length});
        return offset + record_head_size + payload;
    }

    // Whether the rest of a file lies at the front of the blocks that follow.
    bool goes_on(uint32_t logical, uint32_t rest) {
        uint32_t payload = 0;
        for (; rest > 0; rest -= payload, ++logical) {
            payload = std::min(rest, record_room);
            if (logical >= image_.valid_map.size() || get_le16(area(logical), 0) != no_file ||
                !record_is_good(area(logical), logical, payload)) {
                return false;
            }
            continued_block_ = logical;
            continued_offset_ = record_head_size + payload;
        }
        return true;
    }

    // A file has the room up to the next one in its block.
    void limit_before(size_t index) {
        const EfsPlace &next = places_[index];
        if (index != 0 && places_[index - 1].block == next.block) {
            EfsPlace &place = places_[index - 1];
            place.max_size = next.offset - place.offset - record_head_size;
        }
    }

    std::span<const uint8_t> bytes_;
    const EfsLayout &layout_;
    const EfsImage image_;
    uint32_t number_;
    uint32_t continued_block_ = 0; // the last one that a file reaches into, and how far
    uint32_t continued_offset_ = 0;
    std::vector<EfsPlace> places_;
};

} // namespace

std::vector<EfsPlace> find_listed_places(std::span<const uint8_t> table,
                                         std::span<const uint8_t> image, const EfsLayout &layout) {
    constexpr size_t by_chance = 1; // zeros lead to the front of the first block
    const EfsImage read = read_efs_image(image, layout);
    const auto is_good = [&](const EfsPlace &place) {
        return is_good_record(image, layout, read, place);
    };
    std::vector<EfsPlace> best;
    size_t best_good = by_chance;
    std::set<size_t> tried; // records of runs
    for (size_t begin = 0; begin + ftbl::efst_record_size <= table.size(); ++begin) {
        if (tried.contains(begin) || !is_good(listed_place(table, begin))) {
            continue;
        }
        std::vector<EfsPlace> run = run_of_places(table, begin, layout, tried);
        const auto good = static_cast<size_t>(std::count_if(run.begin(), run.end(), is_good));
        if (good > best_good) {
            best_good = good;
            const auto last_good = std::find_if(run.rbegin(), run.rend(), is_good);
            run.erase(last_good.base(), run.end());
            best = std::move(run);
        }
    }
    return best;
}

std::vector<EfsPlace> find_places_in_image(std::span<const uint8_t> image, const EfsLayout &layout,
                                           uint32_t first_number) {
    return PlaceFinder(image, layout, first_number).run();
}

} // namespace dolm
