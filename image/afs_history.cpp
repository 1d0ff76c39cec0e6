#include "image/afs_history.h"

#include <algorithm>
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
        : geometry_(geometry), pages_(geometry.page_count()), is_bad_(geometry.page_count()) {}

    // A page without a copy reads as zeros; of one whose newest copy is bad nothing is known.
    void put(uint32_t page, std::span<const uint8_t> data, bool is_good) {
        pages_[page] = data;
        is_bad_[page] = !is_good;
    }

    // From now on nothing is known but what is written again.
    void forget() { is_bad_.assign(is_bad_.size(), true); }

    static uint32_t page_of_entry(uint32_t cid) { return (fs_header_size + 2 * cid) / page_size; }

    bool is_known(uint32_t cid) const { return !is_bad_[page_of_entry(cid)]; }

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
        note_sequences();
        place_units_without_sequence();
        look_behind_the_log();
        replay();
        find_reclaimed_rows();
        AfsHistory history;
        history.file_count = geometry_.file_count;
        history.chunk_count = geometry_.chunk_count;
        history.doubts = remains_.doubts;
        const std::vector<Chain> now = read_all(counted_fat(remains_.log));
        const std::vector<uint32_t> claims = count_claims(now);
        for (uint32_t file = 0; file < geometry_.file_count; ++file) {
            AfsFileHistory found = judge(file, now[file], claims);
            add_versions(found, now[file]);
            if (found.state != AfsFileHistory::State::absent || !found.versions.empty()) {
                history.files.push_back(std::move(found));
            }
        }
        return history;
    }

  private:
    using State = AfsFileHistory::State;

    std::span<const uint8_t> page_bytes(const LogPage &page) const {
        return bytes_.subspan(log_record_at(page.eu, page.slot), page_size);
    }

    // What a mount reads.
    Fat counted_fat(const std::vector<LogUnit> &log) const {
        Fat fat(geometry_);
        uint32_t before = 0;
        for (const LogUnit &unit : log) {
            if (unit.counts) {
                begin(fat, unit, before);
                for (const LogPage &page : unit.pages) {
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
            if (!sequences_.contains(i)) {
                return true;
            }
        }
        return !unit.sequence;
    }

    void note_sequences() {
        for (const LogUnit &unit : remains_.log) {
            sequences_.insert(unit.sequence.value_or(0));
        }
        for (const auto &row : remains_.rows) {
            sequences_.insert(row ? row->sequence : 0);
        }
        sequences_.insert(remains_.spare_row ? remains_.spare_row->sequence : 0);
    }

    void put(Fat &fat, const LogPage &page) const {
        if (page.page == unknown_page) {
            fat.forget();
        } else {
            fat.put(page.page, page_bytes(page), page.is_good);
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

    // A log unit whose header does not tell its time is put where its pages contradict the others
    // least.
    void place_units_without_sequence() {
        std::vector<LogUnit> &log = remains_.log;
        const auto known = std::stable_partition(
            log.begin(), log.end(), [](const LogUnit &unit) { return unit.sequence.has_value(); });
        std::vector<LogUnit> unplaced(known, log.end());
        log.erase(known, log.end());
        for (const LogUnit &unit : unplaced) {
            if (unplaced.size() > 1 || !place(unit)) {
                remains_.doubts.push_back("the header of EU " + std::to_string(unit.eu) +
                                          " does not tell the time of its pages");
                remains_.is_log_whole = false;
            }
        }
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

    // False if what is newest depends on the place, and nothing speaks for one.
    bool place(const LogUnit &unit) {
        std::vector<LogUnit> &log = remains_.log;
        const auto last = std::find_if(log.rbegin(), log.rend(),
                                       [](const LogUnit &other) { return other.counts; });
        const bool has_head = last != log.rend() && !last->is_full;
        if (has_head && !unit.is_full) {
            return false;
        }
        size_t fewest = SIZE_MAX;
        std::vector<size_t> fitting;
        std::vector<Chain> best;
        bool is_certain = true;
        // The unit that has room is the last one.
        const size_t begin = unit.is_full ? 0 : log.size();
        const size_t end = has_head ? log.size() - 1 : log.size();
        for (size_t at = begin; at <= end; ++at) {
            std::vector<LogUnit> tried = log;
            tried.insert(tried.begin() + static_cast<std::ptrdiff_t>(at), unit);
            std::vector<Chain> chains = read_all(counted_fat(tried));
            const size_t contradictions = count_contradictions(chains);
            if (contradictions < fewest) {
                fewest = contradictions;
                fitting.assign(1, at);
                is_certain = true;
                best = std::move(chains);
            } else if (contradictions == fewest) {
                fitting.push_back(at);
                is_certain = is_certain && chains == best;
            }
        }
        if (is_certain) {
            log.insert(log.begin() + static_cast<std::ptrdiff_t>(fitting.back()), unit);
            is_order_known_ = is_order_known_ && fitting.size() == 1;
        }
        return is_certain;
    }

    // Chains that lead astray or to each other's chunks.
    size_t count_contradictions(const std::vector<Chain> &chains) const {
        const std::vector<uint32_t> claims = count_claims(chains);
        return static_cast<size_t>(
            std::count_if(chains.begin(), chains.end(), [&](const Chain &chain) {
                return chain.kind == Chain::Kind::astray ||
                       std::any_of(chain.chunks.begin(), chain.chunks.end(),
                                   [&](uint32_t chunk) { return claims[chunk] != 1; });
            }));
    }

    // Where a good and complete chunk lies in a unit.
    std::optional<size_t> place_in(const std::optional<DataUnit> &unit, uint32_t chunk) const {
        const uint32_t slot = chunk % data_slots;
        if (!unit || bytes_[status_at(unit->eu, slot)] != status_complete) {
            return std::nullopt;
        }
        const size_t at = data_record_at(unit->eu, slot);
        const bool is_good = page_is_good(page_record(bytes_, at), geometry_.page_count() + chunk);
        return is_good ? std::optional(at) : std::nullopt;
    }
    std::optional<size_t> place_of_chunk(uint32_t chunk) const {
        return place_in(remains_.rows[chunk / data_slots], chunk);
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
                bytes_[status_at(unit->eu, chunk % data_slots)] == status_free) {
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
        if (!unit) {
            return std::nullopt;
        }
        if (is_as_it_was(*unit, time)) {
            return place_in(unit, chunk);
        }
        if (time < last_gap_) {
            return std::nullopt;
        }
        const bool is_last = held + 1 == tenures.end();
        const bool is_held = held->end == forever && remains_.is_log_whole;
        if (is_last && (is_held || !is_reclaimed_[row])) {
            if (const auto at = place_in(unit, chunk)) {
                return at;
            }
        }
        // The spare has what the unit had before its last reclaim.
        const bool is_erased = bytes_[status_at(unit->eu, chunk % data_slots)] == status_free;
        if (remains_.spare_row && remains_.spare_row_index == row && held->end != forever &&
            (is_last ? is_erased : held + 2 == tenures.end())) {
            return place_in(remains_.spare_row, chunk);
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
        return unit.sequence != 0 && unit.is_certain &&
               (unit.sequence < remains_.eu_count || unit.sequence < times_[time].sequence);
    }

    AfsFileHistory judge(uint32_t file, const Chain &chain,
                         const std::vector<uint32_t> &claims) const {
        AfsFileHistory found;
        found.number = file;
        const auto say = [&](State state, std::string why) {
            found.state = state;
            found.why = std::move(why);
            return found;
        };
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
        bool is_certain = true;
        for (const uint32_t chunk : chain.chunks) {
            if (claims[chunk] > 1) {
                return say(State::shared,
                           "chunk " + std::to_string(chunk) + " belongs to another file too");
            }
            if (!place_of_chunk(chunk)) {
                return say(State::damaged,
                           "chunk " + std::to_string(chunk) +
                               (remains_.rows[chunk / data_slots] ? " is damaged"
                                                                  : " lies in no erase unit"));
            }
            is_certain = is_certain && remains_.rows[chunk / data_slots]->is_certain;
        }
        if (!remains_.is_log_whole) { // its chunks may have gone to others unseen
            return say(State::doubtful, remains_.doubts.front());
        }
        found.has_current = true;
        if (!is_certain) {
            return say(State::doubtful, "an erase unit may hold chunks of another time");
        }
        return remains_.doubts.empty() ? say(State::sound, "")
                                       : say(State::doubtful, remains_.doubts.front());
    }

    void add_versions(AfsFileHistory &found, const Chain &now) const {
        if (found.has_current) {
            AfsVersion version{{}, now.size(), {}};
            for (const uint32_t chunk : now.chunks) {
                version.chunks_at.push_back(*place_of_chunk(chunk));
            }
            found.versions.push_back(std::move(version));
        }
        if (!is_order_known_) {
            return; // nothing is known of what was when
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
    std::set<uint32_t> sequences_;               // of units that are there
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
