#include "image/afs_history.h"

#include <algorithm>
#include <map>

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
        place_units_without_sequence();
        replay();
        find_reclaimed_rows();
        AfsHistory history;
        history.file_count = geometry_.file_count;
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
        for (const LogUnit &unit : log) {
            for (const LogPage &page : unit.pages) {
                if (unit.counts) {
                    fat.put(page.page, page_bytes(page), page.is_good);
                }
            }
        }
        return fat;
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

    // A log unit whose header does not tell its time is put where most files can be read.
    void place_units_without_sequence() {
        std::vector<LogUnit> &log = remains_.log;
        const auto known = std::stable_partition(
            log.begin(), log.end(), [](const LogUnit &unit) { return unit.sequence.has_value(); });
        std::vector<LogUnit> unplaced(known, log.end());
        log.erase(known, log.end());
        for (const LogUnit &unit : unplaced) {
            place(unit);
        }
        if (unplaced.size() > 1) {
            remains_.doubts.emplace_back("the order of the log is not known");
        }
        for (const LogUnit &unit : log) {
            if (unit.has_lost && unit.counts) {
                remains_.doubts.emplace_back("a page of metadata is lost, and which one is not "
                                             "known");
            }
        }
    }

    void place(const LogUnit &unit) {
        std::vector<LogUnit> &log = remains_.log;
        size_t best_score = 0;
        size_t best_at = 0;
        std::vector<Chain> best;
        bool is_certain = true;
        for (size_t at = 0; at <= log.size(); ++at) {
            std::vector<LogUnit> tried = log;
            tried.insert(tried.begin() + static_cast<std::ptrdiff_t>(at), unit);
            std::vector<Chain> chains = read_all(counted_fat(tried));
            const size_t score = count_readable(chains);
            if (best.empty() || score > best_score) {
                best_score = score;
                best_at = at;
                is_certain = true;
                best = std::move(chains);
            } else if (score == best_score) {
                is_certain = is_certain && chains == best;
            }
        }
        if (!is_certain) {
            remains_.doubts.push_back("the header of EU " + std::to_string(unit.eu) +
                                      " does not tell the time of its pages");
        }
        log.insert(log.begin() + static_cast<std::ptrdiff_t>(best_at), unit);
    }

    size_t count_readable(const std::vector<Chain> &chains) const {
        const std::vector<uint32_t> claims = count_claims(chains);
        size_t readable = 0;
        for (const Chain &chain : chains) {
            const bool is_read =
                chain.kind == Chain::Kind::file &&
                std::all_of(chain.chunks.begin(), chain.chunks.end(), [&](uint32_t chunk) {
                    return claims[chunk] == 1 && place_of_chunk(chunk).has_value();
                });
            readable += is_read ? 1 : 0;
        }
        return readable;
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
        for (const LogUnit &unit : remains_.log) {
            for (const LogPage &page : unit.pages) {
                times_.push_back({unit.sequence.value_or(0), page});
                fat.put(page.page, page_bytes(page), page.is_good);
                for (uint32_t file = 0; file < geometry_.file_count; ++file) {
                    if (touches(chains[file], file, page.page)) {
                        follow(file, chains[file], read_chain(fat, geometry_, file));
                    }
                }
            }
        }
    }

    static bool touches(const Chain &chain, uint32_t file, uint32_t page) {
        return Fat::page_of_entry(file) == page ||
               std::find(chain.pages.begin(), chain.pages.end(), page) != chain.pages.end();
    }

    void follow(uint32_t file, Chain &known, Chain chain) {
        const bool is_told = chain.kind == Chain::Kind::file || chain.kind == Chain::Kind::absent;
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
        const bool is_last = held + 1 == tenures.end();
        if (is_last && (held->end == forever || !is_reclaimed_since(row, *unit, held->end))) {
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

    bool is_reclaimed_since(uint32_t row, const DataUnit &unit, size_t time) const {
        const bool is_as_formatted = unit.sequence != 0 && unit.sequence < remains_.eu_count;
        const bool is_older = unit.sequence != 0 && unit.sequence < times_[time].sequence;
        return !is_as_formatted && !is_older && is_reclaimed_[row];
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
