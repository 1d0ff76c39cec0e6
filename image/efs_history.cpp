#include "image/efs_history.h"

#include <algorithm>

#include "image/efs_records.h"
#include "image/efs_survey.h"

namespace dolm {
namespace {

using namespace efs;

// A map that can have been in force.
struct Map {
    EfsMapPlace place;
    std::vector<uint32_t> valid;
};

// What a file has by a map.
struct Reading {
    enum class Kind : uint8_t { absent, contents, damaged };

    Kind kind = Kind::damaged;
    std::vector<uint8_t> contents;
    uint32_t block = 0;
    size_t at = 0;
};

class History {
  public:
    // What was cut off the end is as good as erased.
    History(std::span<const uint8_t> bytes, const EfsLayout &layout)
        : bytes_(bytes.begin(), bytes.end()), layout_(layout) {
        bytes_.resize(std::max<size_t>(bytes.size(), layout.image_size()), 0xFF);
        image_ = read_efs_image(bytes_, layout);
    }

    EfsHistory run() {
        read_maps();
        choose_map_in_force();
        find_spans();
        EfsHistory history;
        history.doubts = doubts_;
        for (const EfsPlace &place : layout_.files) {
            EfsFileHistory found = judge(place);
            add_versions(found);
            history.files.push_back(std::move(found));
        }
        return history;
    }

  private:
    using State = EfsFileHistory::State;

    std::span<const uint8_t> unit(uint32_t index) const {
        return std::span(bytes_).subspan(size_t{index} * block_size, block_size);
    }
    std::span<const uint8_t> block(uint32_t number) const { return unit(layout_.bm_num + number); }
    uint32_t entry_size() const { return layout_.data_blocks() + entry_words_size; }

    // The sequence of a BM that a mount finds, or would find but for one wrong byte.
    std::optional<uint32_t> sequence_of(uint32_t bm) const {
        const EfsBm &known = image_.bms[bm];
        if (known.state == EfsBmState::good) {
            return known.sequence;
        }
        std::vector<uint8_t> header(unit(bm).begin(), unit(bm).begin() + header_size);
        const bool is_erased_now = get_le32(header, 12) == 0; // or retired
        if (const auto wrong = wrong_byte(header); wrong && !is_erased_now) {
            header[wrong->at] ^= wrong->bits;
            return get_le32(header, 4);
        }
        return std::nullopt;
    }

    // All maps, the oldest first. A BM follows the one before it in the ring.
    void read_maps() {
        std::optional<uint32_t> newest;
        uint32_t highest = 0;
        for (uint32_t bm = 0; bm < layout_.bm_num; ++bm) {
            const uint32_t sequence = sequence_of(bm).value_or(0);
            if (sequence > highest) {
                highest = sequence;
                newest = bm;
            }
        }
        const bool is_told = newest.has_value();
        if (!is_told) {
            newest = newest_by_content();
        }
        for (uint32_t step = 1; step <= layout_.bm_num; ++step) {
            const uint32_t bm = (newest.value_or(0) + step) % layout_.bm_num;
            const bool never_counted =
                image_.bms[bm].state == EfsBmState::erased && is_told && bm != newest;
            if (!never_counted) {
                const std::vector<Map> maps = maps_in(bm);
                maps_.insert(maps_.end(), maps.begin(), maps.end());
            }
        }
    }

    // Without headers: of the BMs the one whose last map leads to most files, and whose first map
    // follows most closely on the last one of the BM before.
    std::optional<uint32_t> newest_by_content() const {
        std::optional<uint32_t> newest;
        std::pair<size_t, size_t> best;
        for (uint32_t bm = 0; bm < layout_.bm_num; ++bm) {
            const std::vector<Map> maps = maps_in(bm);
            if (maps.empty()) {
                continue;
            }
            const std::vector<Map> before = maps_in((bm + layout_.bm_num - 1) % layout_.bm_num);
            const std::pair rank{count_readable(maps.back()),
                                 before.empty() ? 0 : count_same(before.back(), maps.front())};
            if (!newest || rank > best) {
                newest = bm;
                best = rank;
            }
        }
        return newest;
    }

    size_t count_readable(const Map &map) const {
        return static_cast<size_t>(
            std::count_if(layout_.files.begin(), layout_.files.end(), [&](const EfsPlace &place) {
                return read(place, [&](uint32_t logical) {
                           return std::optional(map.valid[logical]);
                       }).kind != Reading::Kind::damaged;
            }));
    }

    static size_t count_same(const Map &a, const Map &b) {
        size_t same = 0;
        for (size_t logical = 0; logical < a.valid.size(); ++logical) {
            same += a.valid[logical] == b.valid[logical] ? 1 : 0;
        }
        return same;
    }

    std::vector<Map> maps_in(uint32_t bm) const {
        std::vector<Map> maps;
        for (uint32_t slot = 0; slot < entries_in_bm(layout_.data_blocks()); ++slot) {
            const auto entry = unit(bm).subspan(header_size + slot * entry_size(), entry_size());
            if (is_sealed(entry)) {
                add_map(maps, {bm, slot}, entry);
            } else if (const auto wrong = wrong_byte(entry); wrong && !all(entry, 0xFF)) {
                std::vector<uint8_t> mended(entry.begin(), entry.end());
                mended[wrong->at] ^= wrong->bits;
                add_map(maps, {bm, slot}, mended);
            }
        }
        return maps;
    }

    void add_map(std::vector<Map> &maps, EfsMapPlace place, std::span<const uint8_t> entry) const {
        std::vector<bool> seen(layout_.data_blocks());
        for (const uint8_t number : entry.first(layout_.data_blocks())) {
            if (number >= layout_.data_blocks() || seen[number]) {
                return;
            }
            seen[number] = true;
        }
        maps.push_back({place, {entry.begin(), entry.begin() + layout_.valid_blocks}});
    }

    // The map that a mount takes, if it takes one and no newer one is damaged; else the newest.
    void choose_map_in_force() {
        if (maps_.empty()) {
            doubts_.emplace_back("no block map is left");
            return;
        }
        map_in_force_ = maps_.size() - 1;
        if (image_.valid_map.empty()) {
            doubts_.emplace_back("no block map is in force");
            return;
        }
        const auto traces = survey_efs_image(bytes_, layout_, image_);
        const bool is_lost = std::any_of(traces.begin(), traces.end(),
                                         [](const EfsTrace &trace) {
                                             return trace.kind == EfsTrace::Kind::lost_map;
                                         }) ||
                             lies_behind_a_gap(maps_.back());
        const auto taken = std::find_if(maps_.begin(), maps_.end(), [&](const Map &map) {
            return map.place.bm == image_.bm_in_force && map.place.entry == image_.entry_in_force;
        });
        if (is_lost || taken == maps_.end()) { // zeros, say, have the checksum of a map
            doubts_.emplace_back("the newest block map is damaged");
        }
        if (taken == maps_.end()) {
            return;
        }
        const auto index = static_cast<size_t>(taken - maps_.begin());
        const bool is_newest = index + 1 == maps_.size();
        if (is_newest || !is_lost) {
            map_in_force_ = index;
            maps_.erase(taken + 1, maps_.end());
        }
    }

    // A mount looks no further than the first erased entry, and at no BM whose header is damaged.
    bool lies_behind_a_gap(const Map &map) const {
        const uint32_t bm = *image_.bm_in_force;
        return map.place.bm != bm || map.place.entry > image_.bms[bm].entries;
    }

    // A block holds what it was given last: of the maps that name it, the last run of those that
    // name it for the same logical block.
    void find_spans() {
        spans_.resize(layout_.data_blocks());
        for (size_t i = 0; i < maps_.size(); ++i) {
            for (uint32_t logical = 0; logical < layout_.valid_blocks; ++logical) {
                Span &span = spans_[maps_[i].valid[logical]];
                const bool goes_on = span.is_known && span.logical == logical && span.last + 1 == i;
                span = {true, logical, goes_on ? span.first : i, i};
            }
        }
        for (uint32_t number = 0; number < layout_.data_blocks(); ++number) {
            if (spans_[number].is_known && is_elsewhere(number)) {
                spans_[number].is_known = false;
            }
        }
    }

    // A whole block without a record of the logical block that the maps say is not in its place, or
    // was written since the last of them.
    bool is_elsewhere(uint32_t number) const {
        const Fit told = files_in(number, spans_[number].logical);
        if (told.good != 0 || !is_whole(number)) {
            return false;
        }
        bool fits_another = false;
        for (uint32_t logical = 0; logical < layout_.valid_blocks; ++logical) {
            const Fit fit = files_in(number, logical);
            fits_another = fits_another || (fit.all != 0 && fit.good == fit.all);
        }
        return told.all != 0 || fits_another;
    }

    // How many files begin in a logical block, and how many of them have good records in a block.
    struct Fit {
        size_t good = 0;
        size_t all = 0;
    };
    Fit files_in(uint32_t number, uint32_t logical) const {
        Fit fit;
        for (const EfsPlace &place : layout_.files) {
            if (place.block == logical) {
                ++fit.all;
                fit.good += begins_well(block(number).subspan(data_offset), place) ? 1 : 0;
            }
        }
        return fit;
    }

    bool holds_since(uint32_t number, size_t map) const {
        const Span &span = spans_[number];
        return span.is_known && span.first <= map && map <= span.last;
    }

    // What a file has where each logical block stands for the block that `of` gives, if any.
    Reading read(const EfsPlace &place, const auto &of) const {
        Reading reading;
        if (place.block >= layout_.valid_blocks || place.offset > record_room) {
            return reading;
        }
        const auto first_block = of(place.block);
        if (!first_block) {
            return reading;
        }
        const auto first = block(*first_block).subspan(data_offset + place.offset);
        const uint32_t size = get_le16(first, 0);
        const uint32_t length = size == no_file ? 0 : size;
        if (length > place.max_size) {
            return reading;
        }
        uint32_t offset = place.offset;
        for (uint32_t logical = place.block;
             logical == place.block || reading.contents.size() < length; ++logical) {
            const auto left = length - static_cast<uint32_t>(reading.contents.size());
            const uint32_t payload = std::min(left, record_room - offset);
            const auto number = logical < layout_.valid_blocks ? of(logical) : std::nullopt;
            if (!number) {
                return reading;
            }
            const auto record = block(*number).subspan(data_offset + offset);
            // Zeros are the record of an empty file in block 0, and what damage leaves.
            const bool is_good = record_is_good(record, logical, payload) &&
                                 (!all(record.first(record_head_size), 0) || is_whole(*number));
            if (!is_good && !(size == no_file && is_whole(*number))) {
                return reading;
            }
            const auto part = record.subspan(record_head_size, payload);
            reading.contents.insert(reading.contents.end(), part.begin(), part.end());
            offset = 0;
        }
        reading.kind = size == no_file ? Reading::Kind::absent : Reading::Kind::contents;
        reading.block = *first_block;
        reading.at =
            size_t{layout_.bm_num + *first_block} * block_size + data_offset + place.offset;
        return reading;
    }

    // Zeros have the checksum 0, and are never written.
    bool is_whole(uint32_t number) const {
        const auto area = block(number).subspan(data_offset);
        return is_sealed(area) && !all(area, 0);
    }

    // What was true when a map was in force.
    Reading read_by(size_t map, const EfsPlace &place) const {
        return read(place, [&](uint32_t logical) -> std::optional<uint32_t> {
            const uint32_t number = maps_[map].valid[logical];
            return holds_since(number, map) ? std::optional(number) : std::nullopt;
        });
    }

    EfsFileHistory judge(const EfsPlace &place) const {
        EfsFileHistory found;
        found.place = place;
        const auto say = [&](State state, std::string why) {
            found.state = state;
            found.why = std::move(why);
            return found;
        };
        if (!map_in_force_) {
            return say(State::damaged, doubts_.front());
        }
        const Reading reading = read_by(*map_in_force_, place);
        if (reading.kind == Reading::Kind::damaged) {
            return say(State::damaged, "its record fails its checksum");
        }
        const std::string why = doubts_.empty() ? "" : doubts_.front();
        if (reading.kind == Reading::Kind::absent) {
            return say(State::absent, why);
        }
        found.has_current = true;
        return say(doubts_.empty() ? State::sound : State::doubtful, why);
    }

    void add_versions(EfsFileHistory &found) const {
        const EfsPlace &place = found.place;
        for (size_t map = maps_.size(); map > 0; --map) {
            Reading reading = read_by(map - 1, place);
            if (reading.kind == Reading::Kind::contents) {
                add(found, std::move(reading), maps_[map - 1].place);
            }
        }
        for (uint32_t number = 0; number < layout_.data_blocks(); ++number) {
            if (!spans_[number].is_known && is_whole(number)) {
                Reading reading = read_spare(number, place);
                if (reading.kind == Reading::Kind::contents) {
                    add(found, std::move(reading), std::nullopt);
                }
            }
        }
    }

    // The same block as in a newer map is the same content.
    static void add(EfsFileHistory &found, Reading reading, std::optional<EfsMapPlace> since) {
        const auto same = std::find_if(
            found.versions.begin(), found.versions.end(), [&](const EfsVersion &version) {
                return version.at == reading.at && version.contents == reading.contents;
            });
        if (same != found.versions.end()) {
            same->since = since;
            return;
        }
        found.versions.push_back({std::move(reading.contents), reading.block, reading.at, since});
    }

    // A spare that no map names stands for a logical block if all files that begin there have good
    // records in it. Where the file goes on it may do so in any such block.
    Reading read_spare(uint32_t number, const EfsPlace &place) const {
        const Fit fit = files_in(number, place.block);
        if (fit.good != fit.all) {
            return {};
        }
        Reading reading = read(place, [&](uint32_t logical) {
            return logical == place.block ? std::optional(number) : std::nullopt;
        });
        if (reading.kind != Reading::Kind::damaged) {
            return reading;
        }
        for (uint32_t next = 0; next < layout_.data_blocks(); ++next) {
            if (next == number || spans_[next].is_known || !is_whole(next)) {
                continue;
            }
            reading = read(place, [&](uint32_t logical) {
                return logical == place.block
                           ? number
                           : (logical == place.block + 1 ? std::optional(next)
                                                         : std::optional<uint32_t>());
            });
            if (reading.kind == Reading::Kind::contents) {
                return reading;
            }
        }
        return {};
    }

    static bool begins_well(std::span<const uint8_t> area, const EfsPlace &place) {
        if (place.offset > record_room) {
            return true;
        }
        const auto record = area.subspan(place.offset);
        const uint32_t size = get_le16(record, 0);
        const uint32_t length = size == no_file ? 0 : size;
        return length <= place.max_size &&
               record_is_good(record, place.block, std::min(length, record_room - place.offset));
    }

    struct Span {
        bool is_known = false; // a map names the block
        uint32_t logical = 0;
        size_t first = 0; // of the maps that name it
        size_t last = 0;
    };

    std::vector<uint8_t> bytes_;
    const EfsLayout &layout_;
    EfsImage image_;
    std::vector<Map> maps_;
    std::optional<size_t> map_in_force_;
    std::vector<Span> spans_; // by block
    std::vector<std::string> doubts_;
};

} // namespace

EfsHistory read_efs_history(std::span<const uint8_t> bytes, const EfsLayout &layout) {
    return History(bytes, layout).run();
}

} // namespace dolm
