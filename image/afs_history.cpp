#include "image/afs_history.h"

#include <algorithm>
#include <map>
#include <set>

#include "image/afs_records.h"
#include "image/afs_remains.h"
#include "image/bytes.h"

namespace dolm {
namespace {

using namespace afs;

constexpr size_t forever = SIZE_MAX;

// The metadata at one time.
class Fat {
  public:
    explicit Fat(const Geometry &geometry)
        : geometry_(geometry), pages_(geometry.page_count()), is_bad_(geometry.page_count()),
          is_mended_(geometry.page_count()) {}

    // A page without a copy reads as zeros; of one whose newest copy is bad nothing is known.
    void put(const LogPage &page, std::span<const uint8_t> data) {
        pages_[page.page] = data;
        is_bad_[page.page] = !page.is_good;
        is_mended_[page.page] = page.is_mended;
    }

    // From now on nothing is known but what is written again.
    void forget() { is_bad_.assign(is_bad_.size(), true); }

    static uint32_t page_of_entry(uint32_t cid) { return (fs_header_size + 2 * cid) / page_size; }

    bool is_known(uint32_t cid) const { return !is_bad_[page_of_entry(cid)]; }
    bool is_mended(uint32_t page) const { return is_mended_[page]; }

    uint16_t entry(uint32_t cid) const {
        const auto page = pages_[page_of_entry(cid)];
        return page.empty() ? uint16_t{0} : get_le16(page, (fs_header_size + 2 * cid) % page_size);
    }

    bool is_chunk(uint32_t cid) const {
        return cid >= geometry_.file_count && cid < geometry_.file_count + geometry_.chunk_count;
    }

  private:
    const Geometry &geometry_;
    std::vector<std::span<const uint8_t>> pages_;
    std::vector<bool> is_bad_;
    std::vector<bool> is_mended_;
};

// What the metadata say of a file.
struct Chain {
    enum class Kind : uint8_t { absent, file, unknown, astray };

    Kind kind = Kind::absent;
    std::vector<uint32_t> chunks; // relative numbers, as far as the chain can be followed
    uint32_t last = 0;            // bytes in the last one
    std::vector<uint32_t> pages;  // of metadata that it was read from

    bool operator==(const Chain &other) const {
        return kind == other.kind && chunks == other.chunks && last == other.last;
    }
    uint32_t size() const {
        return chunks.empty() ? 0 : static_cast<uint32_t>(chunks.size() - 1) * page_size + last;
    }
};

Chain read_chain(const Fat &fat, const Geometry &geometry, uint32_t file) {
    Chain chain;
    uint32_t cid = file;
    while (true) {
        const uint32_t page = Fat::page_of_entry(cid);
        if (chain.pages.empty() || chain.pages.back() != page) {
            chain.pages.push_back(page);
        }
        if (!fat.is_known(cid)) {
            chain.kind = Chain::Kind::unknown;
            return chain;
        }
        const uint16_t entry = fat.entry(cid);
        if (cid == file && (entry == 0 || entry == slot_zombie || entry == slot_empty_file)) {
            chain.kind = entry == slot_empty_file ? Chain::Kind::file : Chain::Kind::absent;
            return chain;
        }
        if (cid != file && entry <= page_size) {
            chain.kind = Chain::Kind::file;
            chain.last = entry;
            return chain;
        }
        if (!fat.is_chunk(entry) || chain.chunks.size() == geometry.chunk_count) {
            chain.kind = Chain::Kind::astray;
            return chain;
        }
        chain.chunks.push_back(entry - geometry.file_count);
        cid = entry;
    }
}

// The files that a chunk belonged to, in the order of time. Times count the pages of the log.
struct Tenure {
    uint32_t file = 0;
    size_t begin = 0;
    size_t end = forever;
};

// A content that a file had at some time.
struct Version {
    Chain chain;
    size_t begin = 0;
};

class History {
  public:
    History(std::span<const uint8_t> bytes, Remains remains)
        : bytes_(bytes), remains_(std::move(remains)), geometry_(remains_.geometry) {}

    AfsHistory run() {
        mend_pages();
        remains_.is_log_whole = remains_.is_log_whole || knows_all_chunks();
        place_units_without_sequence();
        look_behind_the_log();
        replay();
        find_reclaimed_rows();
        AfsHistory history;
        history.eu_count = remains_.eu_count;
        history.file_count = geometry_.file_count;
        history.chunk_count = geometry_.chunk_count;
        history.doubts = remains_.doubts;
        const Fat fat = counted_fat(in_order(remains_.log));
        const std::vector<Chain> now = read_all(fat);
        const std::vector<uint32_t> claims = count_claims(now);
        for (uint32_t file = 0; file < geometry_.file_count; ++file) {
            AfsFileHistory found = judge(file, now[file], fat, claims);
            add_versions(found, now[file]);
            if (found.state != AfsFileHistory::State::absent || !found.versions.empty()) {
                history.files.push_back(std::move(found));
            }
        }
        return history;
    }

  private:
    using State = AfsFileHistory::State;
    using Log = std::vector<LogUnit>;
    using Order = std::vector<const LogUnit *>;

    std::span<const uint8_t> page_bytes(const LogPage &page) const {
        const size_t at = log_record_at(page.eu, page.slot);
        return page.is_mended ? mended_pages_.at(at) : bytes_.subspan(at, page_size);
    }

    // A page of the log with one wrong bit.
    void mend_pages() {
        for (LogUnit &unit : remains_.log) {
            for (LogPage &page : unit.pages) {
                const size_t at = log_record_at(page.eu, page.slot);
                if (page.is_good || page.page == unknown_page) {
                    continue;
                }
                if (auto mended = with_bit_put_right(page_record(bytes_, at), page.page)) {
                    mended_pages_.emplace(at, std::move(*mended));
                    page.is_good = true;
                    page.is_mended = true;
                }
            }
        }
    }

    // What a mount reads.
    Fat counted_fat(const Order &order) const {
        Fat fat(geometry_);
        uint32_t before = 0;
        for (const LogUnit *unit : order) {
            if (unit->counts) {
                begin(fat, *unit, before);
                for (const LogPage &page : unit->pages) {
                    put(fat, page);
                }
            }
        }
        return fat;
    }

    // A unit that is lost may have stood between two that do not follow each other.
    void begin(Fat &fat, const LogUnit &unit, uint32_t &before) const {
        if (!remains_.is_log_whole && is_gap(before, unit)) {
            fat.forget();
        }
        before = unit.sequence.value_or(before);
    }

    // Whether a unit with pages of the log may have stood between two, and been reclaimed or lost.
    bool is_gap(uint32_t before, const LogUnit &unit) const {
        for (uint32_t i = before + 1; unit.sequence && i < *unit.sequence; ++i) {
            if (!remains_.sequences.contains(i)) {
                return true;
            }
        }
        return !unit.sequence;
    }

    void put(Fat &fat, const LogPage &page) const {
        if (page.page == unknown_page) {
            fat.forget();
        } else {
            fat.put(page, page_bytes(page));
        }
    }

    std::vector<Chain> read_all(const Fat &fat) const {
        std::vector<Chain> chains;
        for (uint32_t file = 0; file < geometry_.file_count; ++file) {
            chains.push_back(read_chain(fat, geometry_, file));
        }
        return chains;
    }

    std::vector<uint32_t> count_claims(const std::vector<Chain> &chains) const {
        std::vector<uint32_t> claims(geometry_.chunk_count);
        for (const Chain &chain : chains) {
            for (const uint32_t chunk : chain.chunks) {
                ++claims[chunk];
            }
        }
        return claims;
    }

    static Order in_order(const Log &log) {
        Order order;
        for (const LogUnit &unit : log) {
            order.push_back(&unit);
        }
        return order;
    }

    // Log units whose headers do not tell their time are put where their pages contradict the
    // others least, and change least from one copy to the next. Where several orders do not
    // contradict, a file is known that they agree on.
    void place_units_without_sequence() {
        if (std::all_of(remains_.log.begin(), remains_.log.end(),
                        [](const LogUnit &unit) { return unit.sequence.has_value(); })) {
            return;
        }
        const Log log = std::move(remains_.log);
        Order known;
        Order unplaced;
        for (const LogUnit &unit : log) {
            (unit.sequence ? known : unplaced).push_back(&unit);
        }
        Orders orders = possible_orders(known, unplaced);
        size_t fewest = SIZE_MAX;
        Orders fitting;
        std::vector<std::vector<Chain>> readings;
        for (Order &order : orders.all) {
            std::vector<Chain> chains = read_all(counted_fat(order));
            const size_t contradictions = count_contradictions(chains);
            if (contradictions < fewest) {
                fewest = contradictions;
                fitting.all.clear();
                readings.clear();
            }
            if (contradictions == fewest) {
                fitting.all.push_back(std::move(order));
                readings.push_back(std::move(chains));
            }
        }
        is_order_known_ = orders.is_complete && fitting.all.size() == 1;
        if (!is_order_known_) {
            remains_.doubts.push_back("the header of EU " + std::to_string(unplaced.front()->eu) +
                                      " does not tell the time of its pages");
        }
        if (fitting.all.empty()) {
            remains_.is_log_whole = false;
            fitting.all.push_back(known);
        }
        const auto smoothest = std::min_element(
            fitting.all.begin(), fitting.all.end(),
            [&](const Order &a, const Order &b) { return count_changes(a) < count_changes(b); });
        remains_.log.clear();
        for (const LogUnit *unit : *smoothest) {
            remains_.log.push_back(*unit);
        }
        note_disputes(readings);
    }

    // Of the readings by several orders one can be wrong by chunks that another file has since.
    void note_disputes(const std::vector<std::vector<Chain>> &readings) {
        if (readings.size() < 2) {
            return;
        }
        std::vector<std::set<uint32_t>> owners(geometry_.chunk_count);
        for (const std::vector<Chain> &chains : readings) {
            for (uint32_t file = 0; file < geometry_.file_count; ++file) {
                for (const uint32_t chunk : chains[file].chunks) {
                    owners[chunk].insert(file);
                }
            }
        }
        for (uint32_t file = 0; file < geometry_.file_count; ++file) {
            is_disputed_.push_back(
                std::any_of(readings.begin(), readings.end(), [&](const auto &chains) {
                    const Chain &chain = chains[file];
                    return !(chain == readings.front()[file]) &&
                           std::any_of(chain.chunks.begin(), chain.chunks.end(),
                                       [&](uint32_t chunk) { return owners[chunk].size() > 1; });
                }));
        }
    }

    struct Orders {
        std::vector<Order> all;
        bool is_complete = false; // no other is possible
    };

    // All, or if there are too many the one with the fewest changes and what is near to it.
    Orders possible_orders(const Order &known, const Order &unplaced) const {
        constexpr size_t max_orders = 1000;
        std::vector<Order> orders{known};
        for (const LogUnit *unit : unplaced) {
            std::vector<Order> longer;
            for (const Order &order : orders) {
                for (size_t at = 0; at <= order.size() && longer.size() <= max_orders; ++at) {
                    longer.push_back(with_unit(order, unit, at));
                }
            }
            orders = std::move(longer);
        }
        if (orders.size() > max_orders) {
            return {orders_near_smoothest(known, unplaced), false};
        }
        std::erase_if(orders, [&](const Order &order) { return !is_possible(order); });
        return {std::move(orders), true};
    }

    static Order with_unit(Order order, const LogUnit *unit, size_t at) {
        order.insert(order.begin() + static_cast<std::ptrdiff_t>(at), unit);
        return order;
    }

    std::vector<Order> orders_near_smoothest(Order order, const Order &unplaced) const {
        constexpr size_t max_units = 64;
        constexpr int max_rounds = 4;
        if (order.size() + unplaced.size() > max_units) {
            return {};
        }
        for (const LogUnit *unit : unplaced) {
            const auto longer = possible_places(order, unit);
            if (longer.empty()) {
                return {};
            }
            order = smoothest(longer);
        }
        std::vector<Order> near;
        bool is_settled = false;
        for (int round = 0; round < max_rounds && !is_settled; ++round) {
            is_settled = true;
            near.clear();
            for (const LogUnit *unit : unplaced) {
                Order others = order;
                std::erase(others, unit);
                std::vector<Order> longer = possible_places(others, unit);
                const Order &best = smoothest(longer);
                if (count_changes(best) < count_changes(order)) {
                    order = best;
                    is_settled = false;
                }
                near.insert(near.end(), longer.begin(), longer.end());
            }
        }
        return near;
    }

    std::vector<Order> possible_places(const Order &order, const LogUnit *unit) const {
        std::vector<Order> longer;
        for (size_t at = 0; at <= order.size(); ++at) {
            longer.push_back(with_unit(order, unit, at));
        }
        std::erase_if(longer, [&](const Order &candidate) { return !is_possible(candidate); });
        return longer;
    }

    const Order &smoothest(const std::vector<Order> &orders) const {
        return *std::min_element(orders.begin(), orders.end(), [&](const Order &a, const Order &b) {
            return count_changes(a) < count_changes(b);
        });
    }

    // Entries in which a page differs from its copy before: a write changes few of them.
    size_t count_changes(const Order &order) const {
        std::vector<std::span<const uint8_t>> newest(geometry_.page_count());
        size_t changes = 0;
        for (const LogUnit *unit : order) {
            for (const LogPage &page : unit->pages) {
                if (!page.is_good) {
                    continue;
                }
                const auto bytes = page_bytes(page);
                auto &before = newest[page.page];
                for (size_t at = 0; at < before.size(); at += 2) {
                    changes += get_le16(before, at) != get_le16(bytes, at) ? 1 : 0;
                }
                before = bytes;
            }
        }
        return changes;
    }

    // Whoever wrote pages of the log that are lost wrote chunks too, which no page that is left
    // knows.
    bool knows_all_chunks() const {
        std::vector<bool> is_known(geometry_.chunk_count);
        for (const LogUnit &unit : remains_.log) {
            for (const LogPage &page : unit.pages) {
                const auto bytes = page.is_good ? page_bytes(page) : std::span<const uint8_t>();
                for (size_t at = page.page == 0 ? fs_header_size : 0; at < bytes.size(); at += 2) {
                    const uint32_t entry = get_le16(bytes, at);
                    if (entry >= geometry_.file_count &&
                        entry < geometry_.file_count + geometry_.chunk_count) {
                        is_known[entry - geometry_.file_count] = true;
                    }
                }
            }
        }
        for (uint32_t chunk = 0; chunk < geometry_.chunk_count; ++chunk) {
            if (!is_known[chunk] && place_of_chunk(chunk)) {
                return false;
            }
        }
        return true;
    }

    // The unit that has room is the last one, and a unit without a sequence had one that no header
    // has.
    bool is_possible(const Order &order) const {
        const auto last = std::find_if(order.rbegin(), order.rend(),
                                       [](const LogUnit *unit) { return unit->counts; });
        uint32_t before = 0;
        uint32_t untold = 0;
        for (const LogUnit *unit : order) {
            if (unit->counts && !unit->is_full && unit != *last) {
                return false;
            }
            if (!unit->sequence) {
                ++untold;
                continue;
            }
            if (untold > count_free_sequences(before, *unit->sequence)) {
                return false;
            }
            before = *unit->sequence;
            untold = 0;
        }
        return true;
    }

    uint32_t count_free_sequences(uint32_t before, uint32_t behind) const {
        const auto taken = std::distance(remains_.sequences.upper_bound(before),
                                         remains_.sequences.lower_bound(behind));
        return behind - before - 1 - static_cast<uint32_t>(taken);
    }

    // Pages that are newer than the log, as far as its entries tell it. A cut leaves copies of
    // pages there that the log has.
    void look_behind_the_log() {
        std::set<std::vector<uint8_t>> known;
        for (const LogUnit &unit : remains_.log) {
            for (const LogPage &page : unit.pages) {
                known.emplace(page_bytes(page).begin(), page_bytes(page).end());
            }
        }
        for (LogUnit &unit : remains_.log) {
            const bool is_cut =
                std::any_of(unit.behind.begin(), unit.behind.end(), [&](const LogPage &page) {
                    const auto bytes = page_bytes(page);
                    return unit.counts && !known.contains({bytes.begin(), bytes.end()});
                });
            if (is_cut) {
                unit.pages.push_back({unknown_page, unit.eu, log_slots - 1, false});
                remains_.doubts.push_back("pages of metadata lie behind the end of the log in EU " +
                                          std::to_string(unit.eu));
            }
        }
    }

    // Chains that lead astray, to each other's chunks or to what is none.
    size_t count_contradictions(const std::vector<Chain> &chains) const {
        const std::vector<uint32_t> claims = count_claims(chains);
        return static_cast<size_t>(
            std::count_if(chains.begin(), chains.end(), [&](const Chain &chain) {
                return chain.kind == Chain::Kind::astray ||
                       std::any_of(chain.chunks.begin(), chain.chunks.end(), [&](uint32_t chunk) {
                           return claims[chunk] != 1 || !place_of_chunk(chunk);
                       });
            }));
    }

    // Where a good chunk lies in a unit, whatever its status says.
    std::optional<size_t> place_in(const std::optional<DataUnit> &unit, uint32_t chunk) const {
        if (!unit) {
            return std::nullopt;
        }
        const size_t at = data_record_at(unit->eu, chunk % data_slots);
        const bool is_good = page_is_good(page_record(bytes_, at), geometry_.page_count() + chunk);
        return is_good && !is_erased(page_record(bytes_, at)) ? std::optional(at) : std::nullopt;
    }
    std::optional<size_t> place_of_chunk(uint32_t chunk) const {
        const auto &unit = remains_.rows[chunk / data_slots];
        auto at = place_in(unit, chunk);
        const auto [first, last] = remains_.rivals.equal_range(chunk / data_slots);
        for (auto rival = first; rival != last && !at && has_erased(*unit, chunk); ++rival) {
            at = place_in(rival->second, chunk);
        }
        return at;
    }

    bool has_erased(const DataUnit &unit, uint32_t chunk) const {
        return is_erased(page_record(bytes_, data_record_at(unit.eu, chunk % data_slots)));
    }

    // Whether all units that may be that of a chunk's row have the same in its place, or nothing.
    bool is_same_in_all(uint32_t chunk, size_t place) const {
        const auto [first, last] = remains_.rivals.equal_range(chunk / data_slots);
        return first != last && std::all_of(first, last, [&](const auto &rival) {
                   const size_t at = data_record_at(rival.second.eu, chunk % data_slots);
                   return has_erased(rival.second, chunk) ||
                          std::ranges::equal(page_record(bytes_, at), page_record(bytes_, place));
               });
    }
    std::optional<size_t> complete_place_in(const std::optional<DataUnit> &unit,
                                            uint32_t chunk) const {
        return is_complete(unit, chunk) ? place_in(unit, chunk) : std::nullopt;
    }
    bool is_complete(const std::optional<DataUnit> &unit, uint32_t chunk) const {
        return unit && bytes_[status_at(unit->eu, chunk % data_slots)] == status_complete;
    }

    // Goes through the log and notes what every file had, and when.
    void replay() {
        tenures_.resize(geometry_.chunk_count);
        versions_.resize(geometry_.file_count);
        Fat fat(geometry_);
        std::vector<Chain> chains(geometry_.file_count);
        uint32_t before = 0;
        for (const LogUnit &unit : remains_.log) {
            const uint32_t sequence = unit.sequence.value_or(0);
            if (is_gap(before, unit)) {
                fat.forget();
                forget(chains);
            }
            before = sequence;
            for (const LogPage &page : unit.pages) {
                times_.push_back({sequence, page});
                put(fat, page);
                for (uint32_t file = 0; file < geometry_.file_count; ++file) {
                    if (page.page == unknown_page || touches(chains[file], file, page.page)) {
                        follow(file, chains[file], read_chain(fat, geometry_, file));
                    }
                }
            }
        }
    }

    // What every file had is not known behind a gap in the log.
    void forget(std::vector<Chain> &chains) {
        last_gap_ = times_.size();
        chains.assign(chains.size(), Chain());
        for (std::vector<Tenure> &tenures : tenures_) {
            for (Tenure &tenure : tenures) {
                tenure.end = std::min(tenure.end, last_gap_);
            }
        }
    }

    static bool touches(const Chain &chain, uint32_t file, uint32_t page) {
        return Fat::page_of_entry(file) == page ||
               std::find(chain.pages.begin(), chain.pages.end(), page) != chain.pages.end();
    }

    void follow(uint32_t file, Chain &known, Chain chain) {
        const bool is_told = chain.kind == Chain::Kind::file || chain.kind == Chain::Kind::absent;
        if (!is_told) {
            last_gap_ = times_.size(); // its chunks may go to others unseen
        }
        if (!is_told || chain == known) {
            known.pages = std::move(chain.pages);
            return; // what cannot be read now may be what it was
        }
        const size_t now = times_.size() - 1;
        hand_over(file, known.chunks, chain.chunks, now);
        versions_[file].push_back({chain, now});
        known = std::move(chain);
    }

    void hand_over(uint32_t file, const std::vector<uint32_t> &before,
                   const std::vector<uint32_t> &after, size_t now) {
        std::vector<uint32_t> old_chunks = before;
        std::vector<uint32_t> new_chunks = after;
        std::sort(old_chunks.begin(), old_chunks.end());
        std::sort(new_chunks.begin(), new_chunks.end());
        std::vector<uint32_t> changed;
        std::set_difference(old_chunks.begin(), old_chunks.end(), new_chunks.begin(),
                            new_chunks.end(), std::back_inserter(changed));
        for (const uint32_t chunk : changed) {
            for (Tenure &tenure : tenures_[chunk]) {
                if (tenure.file == file && tenure.end == forever) {
                    tenure.end = now;
                }
            }
        }
        changed.clear();
        std::set_difference(new_chunks.begin(), new_chunks.end(), old_chunks.begin(),
                            old_chunks.end(), std::back_inserter(changed));
        for (const uint32_t chunk : changed) {
            tenures_[chunk].push_back({file, now, forever});
        }
    }

    // A row in which a chunk is erased that a file once had was reclaimed since.
    void find_reclaimed_rows() {
        is_reclaimed_.resize(remains_.rows.size());
        for (uint32_t chunk = 0; chunk < geometry_.chunk_count; ++chunk) {
            const auto &unit = remains_.rows[chunk / data_slots];
            if (unit && !tenures_[chunk].empty() &&
                bytes_[status_at(unit->eu, chunk % data_slots)] == status_free &&
                is_erased(page_record(bytes_, data_record_at(unit->eu, chunk % data_slots)))) {
                is_reclaimed_[chunk / data_slots] = true;
            }
        }
    }

    // The unit of a row holds what its chunk held at a time: nobody has the chunk since, and the
    // unit was not reclaimed after it had been given up.
    std::optional<size_t> place_at(uint32_t chunk, uint32_t file, size_t time) const {
        const std::vector<Tenure> &tenures = tenures_[chunk];
        const auto held = std::find_if(tenures.begin(), tenures.end(), [&](const Tenure &tenure) {
            return tenure.file == file && tenure.begin <= time && time < tenure.end;
        });
        if (held == tenures.end() || is_overlapped(tenures, *held)) {
            return std::nullopt;
        }
        const uint32_t row = chunk / data_slots;
        const auto &unit = remains_.rows[row];
        if (!unit || !unit->is_certain || (!is_order_known_ && !is_first(*unit))) {
            return std::nullopt;
        }
        if (is_as_it_was(*unit, time)) {
            return complete_place_in(unit, chunk);
        }
        if (time < last_gap_) {
            return std::nullopt;
        }
        const bool is_last = held + 1 == tenures.end();
        const bool is_held = held->end == forever && remains_.is_log_whole;
        if (is_last && (is_held || !is_reclaimed_[row])) {
            if (const auto at = complete_place_in(unit, chunk)) {
                return at;
            }
        }
        // The spare has what the unit had before its last reclaim.
        const bool is_erased = bytes_[status_at(unit->eu, chunk % data_slots)] == status_free;
        if (remains_.spare_row && remains_.spare_row_index == row && held->end != forever &&
            (is_last ? is_erased : held + 2 == tenures.end())) {
            return complete_place_in(remains_.spare_row, chunk);
        }
        return std::nullopt;
    }

    static bool is_overlapped(const std::vector<Tenure> &tenures, const Tenure &held) {
        return std::any_of(tenures.begin(), tenures.end(), [&](const Tenure &other) {
            return &other != &held && other.begin < held.end && held.begin < other.end;
        });
    }

    // The unit is older than the time, and between two reclaims a chunk is written once.
    bool is_as_it_was(const DataUnit &unit, size_t time) const {
        return is_first(unit) || (unit.sequence != 0 && unit.sequence < times_[time].sequence);
    }

    // No unit was reclaimed into it since the format: every chunk in it was written once.
    bool is_first(const DataUnit &unit) const {
        return unit.sequence != 0 && unit.sequence < remains_.eu_count;
    }

    AfsFileHistory judge(uint32_t file, const Chain &chain, const Fat &fat,
                         const std::vector<uint32_t> &claims) const {
        AfsFileHistory found;
        found.number = file;
        const auto say = [&](State state, std::string why) {
            found.state = state;
            found.why = std::move(why);
            return found;
        };
        if (!is_disputed_.empty() && is_disputed_[file]) {
            return say(State::damaged, remains_.doubts.front());
        }
        if (chain.kind == Chain::Kind::unknown) {
            return say(State::damaged, "page " + std::to_string(chain.pages.back()) +
                                           " of the metadata fails its checksum");
        }
        if (chain.kind == Chain::Kind::astray) {
            return say(State::damaged, "its chain leads to no chunk");
        }
        if (chain.kind == Chain::Kind::absent) {
            return remains_.doubts.empty() ? found : say(State::absent, remains_.doubts.front());
        }
        std::string doubt = remains_.doubts.empty() ? "" : remains_.doubts.front();
        for (const uint32_t chunk : chain.chunks) {
            if (claims[chunk] > 1) {
                return say(State::shared,
                           "chunk " + std::to_string(chunk) + " belongs to another file too");
            }
            const auto at = place_of_chunk(chunk);
            if (!at) {
                return say(State::damaged,
                           "chunk " + std::to_string(chunk) +
                               (remains_.rows[chunk / data_slots] ? " is damaged"
                                                                  : " lies in no erase unit"));
            }
            const auto &unit = remains_.rows[chunk / data_slots];
            if (!unit->is_certain) {
                doubt = "an erase unit may hold chunks of another time";
                if (!is_same_in_all(chunk, *at)) {
                    return say(State::doubtful, doubt);
                }
            } else if (!is_complete(unit, chunk)) {
                doubt = "the status of chunk " + std::to_string(chunk) + " is damaged";
            }
        }
        for (const uint32_t page : chain.pages) {
            if (fat.is_mended(page)) {
                doubt = "page " + std::to_string(page) + " of the metadata had a wrong bit";
            }
        }
        if (!remains_.is_log_whole && !is_head_known()) {
            return say(State::doubtful, remains_.doubts.front());
        }
        found.has_current = true;
        const State state = doubt.empty() ? State::sound : State::doubtful;
        return say(state, std::move(doubt));
    }

    // A unit that has room is the last one of the log: whatever may be lost is older than its
    // pages.
    bool is_head_known() const {
        const auto last =
            std::find_if(remains_.log.rbegin(), remains_.log.rend(),
                         [](const LogUnit &unit) { return unit.counts && unit.sequence; });
        return last != remains_.log.rend() && !last->is_full;
    }

    void add_versions(AfsFileHistory &found, const Chain &now) const {
        if (found.has_current) {
            AfsVersion version{{}, now.size(), {}};
            for (const uint32_t chunk : now.chunks) {
                version.chunks_at.push_back(*place_of_chunk(chunk));
            }
            found.versions.push_back(std::move(version));
        }
        const std::vector<Version> &had = versions_[found.number];
        for (auto version = had.rbegin(); version != had.rend(); ++version) {
            if (version->chain.kind != Chain::Kind::file) {
                continue;
            }
            const LogPage &page = times_[version->begin].page;
            const AfsPagePlace since{page.eu, page.slot};
            if (found.has_current && version == had.rbegin() && version->chain == now) {
                found.versions.front().since = since;
            } else if (auto placed = place(found.number, *version)) {
                placed->since = since;
                found.versions.push_back(std::move(*placed));
            }
        }
    }

    std::optional<AfsVersion> place(uint32_t file, const Version &version) const {
        AfsVersion placed{{}, version.chain.size(), {}};
        for (const uint32_t chunk : version.chain.chunks) {
            const auto at = place_at(chunk, file, version.begin);
            if (!at) {
                return std::nullopt;
            }
            placed.chunks_at.push_back(*at);
        }
        return placed;
    }

    std::map<size_t, std::vector<uint8_t>> mended_pages_; // by their offset

    struct Time {
        uint32_t sequence; // of the unit in which the page lies
        LogPage page;
    };

    std::span<const uint8_t> bytes_;
    Remains remains_;
    const Geometry &geometry_;
    std::vector<Time> times_;
    std::vector<std::vector<Tenure>> tenures_;   // by chunk
    std::vector<std::vector<Version>> versions_; // by file
    std::vector<bool> is_reclaimed_;             // by row
    bool is_order_known_ = true;                 // of the log
    std::vector<bool> is_disputed_;              // by file: it depends on that order
    size_t last_gap_ = 0;                        // time behind the last gap in the log
};

} // namespace

std::optional<AfsHistory> read_afs_history(std::span<const uint8_t> bytes) {
    const auto geometry = find_geometry(bytes);
    if (!geometry) {
        return std::nullopt;
    }
    return History(bytes, read_remains(bytes, *geometry)).run();
}

std::vector<uint8_t> contents_of(std::span<const uint8_t> bytes, const AfsVersion &version) {
    std::vector<uint8_t> contents;
    for (const size_t at : version.chunks_at) {
        const auto chunk = bytes.subspan(at, afs::page_size);
        contents.insert(contents.end(), chunk.begin(), chunk.end());
    }
    contents.resize(version.size);
    return contents;
}

} // namespace dolm
