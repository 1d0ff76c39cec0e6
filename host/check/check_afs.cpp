// The AFS image: which record is damaged, and what follows from that.
#include <algorithm>

#include "host/check/set_view.h"
#include "image/afs_records.h"
#include "image/afs_survey.h"

namespace dolm {

namespace {

using Rule = AfsDamage::Rule;

constexpr const char *restore_image = "bring back qfs.img from a backup or read it again from the "
                                      "device; dolm inspect shows what is left";

std::string eu_name(uint32_t eu) {
    return "EU " + std::to_string(eu);
}

std::string eu_subject(uint32_t eu) {
    return "eu " + std::to_string(eu);
}

constexpr size_t erase_block_size = 4096; // half an EU

class AfsCheck {
  public:
    AfsCheck(const SetView &view, Findings &findings)
        : bytes_(view.files.qfs_image), image_(view.afs), names_(view.afs_names),
          findings_(findings), traces_(survey_afs_image(bytes_, image_)) {}

    void run() {
        tell_size();
        tell_headers();
        tell_log();
        tell_pages();
        tell_rest();
        tell_chunks();
        tell_traces();
        tell_use();
    }

  private:
    Finding &error(std::string place, std::string text, const std::string &subject = {}) {
        Finding &finding = findings_.error({qfs_img, std::move(place), std::move(text)}, subject);
        finding.advice = restore_image;
        return finding;
    }

    static void follow(Finding &cause, std::string text) {
        cause.consequences.push_back({qfs_img, "", std::move(text)});
    }

    template <typename Wanted>
    std::vector<const AfsDamage *> damages(Wanted wanted) const {
        std::vector<const AfsDamage *> found;
        for (const AfsDamage &damage : image_.damages) {
            if (wanted(damage)) {
                found.push_back(&damage);
            }
        }
        return found;
    }

    std::vector<const AfsDamage *> damages_of(Rule rule) const {
        return damages([=](const AfsDamage &damage) { return damage.rule == rule; });
    }

    std::string file_name(uint32_t file) const {
        const std::string name = name_in(names_, file);
        return name.empty() ? "file " + std::to_string(file) : name;
    }

    // "23 files lie in it: ...", one line for all.
    void follow_with_files(Finding &cause, const std::set<uint32_t> &files, const char *text) {
        if (files.empty()) {
            return;
        }
        std::vector<std::string> names;
        for (const uint32_t file : files) {
            names.push_back(file_name(file));
        }
        follow(cause, counted(files.size(), "file") + " " + text + ": " + listed(names));
        if (files.size() == 1) {
            cause.consequences.back().nvar = name_in(names_, *files.begin());
        }
    }

    void tell_size() {
        for (const AfsDamage *damage : damages_of(Rule::size)) {
            error(at_offset(bytes_.size(), "end of the file"),
                  counted(bytes_.size(), "byte") + ": " + damage->text);
        }
        rest_ = bytes_.size() % afs::eu_size;
        if (rest_ != 0 && image_.eu_count != 0 &&
            (rest_ % erase_block_size != 0 || !image_.damages.empty())) {
            error(at_offset(bytes_.size(), "end of the file"),
                  "the image ends inside " + eu_name(image_.eu_count) + ": " +
                      counted(bytes_.size(), "byte") + " are no whole number of units",
                  "size");
        }
    }

    // Which EUs have lost their headers, and what lay in them.
    void tell_headers() {
        if (damages_of(Rule::headers).empty()) {
            tell_spare();
            return;
        }
        const std::vector<uint32_t> invalid =
            eus_in([&](uint32_t eu) { return image_.eus[eu].sequence == 0; });
        const std::optional<uint32_t> spare = likely_spare(invalid);
        for (size_t i = 0; i < invalid.size(); ++i) {
            if (invalid[i] == spare) {
                continue;
            }
            size_t last = i; // of a run of neighbours
            while (last + 1 < invalid.size() && invalid[last + 1] == invalid[last] + 1 &&
                   invalid[last + 1] != spare) {
                ++last;
            }
            tell_headers(invalid[i], invalid[last], invalid.size());
            i = last;
        }
        const std::vector<uint32_t> pending =
            eus_in([&](uint32_t eu) { return image_.eus[eu].pending; });
        for (const uint32_t eu : pending.size() > 1 ? pending : std::vector<uint32_t>()) {
            error(at_offset(afs::header_at(eu) + afs::state_offset,
                            eu_name(eu) + ", state byte of the header"),
                  "the header is marked as not committed, as " + eu_name(pending.front()) +
                      "'s is; at most one can be",
                  eu_subject(eu));
        }
    }

    template <typename Wanted>
    std::vector<uint32_t> eus_in(Wanted wanted) const {
        std::vector<uint32_t> found;
        for (uint32_t eu = 0; eu < image_.eu_count; ++eu) {
            if (wanted(eu)) {
                found.push_back(eu);
            }
        }
        return found;
    }

    std::span<const uint8_t> header(uint32_t eu) const {
        return std::span(bytes_).subspan(afs::header_at(eu), afs::header_size);
    }

    bool is_erased(uint32_t eu) const {
        return std::ranges::all_of(header(eu), [](uint8_t byte) { return byte == 0xFF; });
    }

    // Of several EUs without a valid header: the one that was given up or erased on purpose. The
    // newest header names it, unless that is the one that was lost.
    std::optional<uint32_t> likely_spare(const std::vector<uint32_t> &invalid) const {
        std::vector<uint32_t> candidates;
        for (const uint32_t eu : invalid) {
            if (afs::judge_header(header(eu)).given_up) {
                candidates.push_back(eu);
            }
        }
        if (candidates.size() == 1) {
            return candidates.front();
        }
        const auto &from = candidates.empty() ? invalid : candidates;
        if (const auto named = newest_named_among(from)) {
            return named;
        }
        const auto erased =
            std::find_if(from.begin(), from.end(), [&](uint32_t eu) { return is_erased(eu); });
        return erased != from.end() ? *erased : from.back();
    }

    // The EU that the newest of all headers which name one of them names, those that were given up
    // included: one of them may be the newest, wrongly so.
    std::optional<uint32_t> newest_named_among(const std::vector<uint32_t> &eus) const {
        std::optional<uint32_t> named;
        uint32_t newest = 0;
        for (uint32_t eu = 0; eu < image_.eu_count; ++eu) {
            const uint32_t sequence = get_le32(header(eu), 4);
            const uint32_t spare = get_le16(header(eu), 12);
            const bool is_known = afs::judge_header(header(eu)).erase_count_known;
            if (is_known && sequence > newest && spare != eu &&
                std::find(eus.begin(), eus.end(), spare) != eus.end()) {
                newest = sequence;
                named = spare;
            }
        }
        return named;
    }

    std::optional<uint32_t> newest_named() const {
        const AfsEu *newest = nullptr;
        for (const AfsEu &eu : image_.eus) {
            if (eu.sequence != 0 && !eu.pending &&
                (newest == nullptr || eu.sequence > newest->sequence)) {
                newest = &eu;
            }
        }
        return newest == nullptr ? std::nullopt : std::optional<uint32_t>(newest->next_spare);
    }

    const char *state_of_header(uint32_t eu) const {
        return is_erased(eu)                                   ? "is erased"
               : afs::judge_header(header(eu)).given_up        ? "says that the EU was given up"
               : get_le32(header(eu), 0) == afs::magic_written ? "fails its checksum"
                                                               : "has a wrong magic";
    }

    // Of neighbouring EUs, the cause of whose loss is likely the same.
    void tell_headers(uint32_t first, uint32_t last, size_t invalid) {
        const std::string name = eu_name(first);
        const std::string others = last == first ? "" : " to " + std::to_string(last);
        Finding &cause = error(at_offset(afs::header_at(first), name + others + ", header"),
                               name + others + (last == first ? " has" : " have") +
                                   " no valid header: " + (last == first ? "it " : "the first ") +
                                   state_of_header(first),
                               rest_ == 0 ? eu_subject(first) : "size");
        header_cause_ = header_cause_ == nullptr ? &cause : header_cause_;
        std::set<uint32_t> files;
        for (uint32_t eu = first; eu <= last; ++eu) {
            const uint16_t va_base = get_le16(header(eu), 14);
            lost_log_ = lost_log_ || (va_base == 0 && !is_erased(eu));
            for (const AfsDamage *damage : damages_of(Rule::chunk)) {
                if (!damage->eu && (invalid <= 2 || chunk_lies_in(*damage->chunk, va_base))) {
                    files.insert(*damage->file);
                }
            }
        }
        follow_with_files(cause, files, last == first ? "lie in it" : "lie in them");
        follow(cause, "the store does not mount");
    }

    bool chunk_lies_in(uint32_t chunk, uint16_t va_base) const {
        const uint32_t page = image_.data_va_start / afs::page_size + chunk;
        return page >= va_base && page < va_base + afs::data_slots;
    }

    void tell_spare() {
        const std::optional<uint32_t> named = newest_named();
        for (const AfsDamage *damage : damages_of(Rule::spare)) {
            if (named && *named >= image_.eu_count) {
                error(at_offset(bytes_.size(), "end of the file"),
                      "the image ends in front of its spare, " + eu_name(*named), "size");
            } else if (damage->eu) {
                const bool pending = image_.eus[*damage->eu].pending;
                error(at_offset(afs::header_at(*damage->eu) + (pending ? afs::state_offset : 0),
                                eu_name(*damage->eu) +
                                    (pending ? ", state byte of the header" : ", header")),
                      damage->text, eu_subject(*damage->eu));
            } else {
                error(at_offset(0, "headers"), damage->text, "size");
            }
        }
    }

    // Entries of the log that are not what was written lead astray all that comes behind them.
    void tell_log() {
        for (const AfsTrace &trace : traces_) {
            if (trace.kind == AfsTrace::Kind::log_entry ||
                trace.kind == AfsTrace::Kind::lost_page) {
                Finding &cause = error(at_offset(trace.at, eu_name(trace.eu) + ", " + trace.what),
                                       trace.text, eu_subject(trace.eu));
                log_cause_ = log_cause_ == nullptr ? &cause : log_cause_;
            }
        }
        for (const AfsDamage *damage : damages_of(Rule::log_entry)) {
            if (Finding *cause = metadata_cause()) {
                follow(*cause, damage->text);
                continue;
            }
            const uint32_t entry = wrong_entry(*damage->eu, *damage->slot);
            log_cause_ =
                &error(at_offset(afs::log_entry_at(*damage->eu, entry),
                                 eu_name(*damage->eu) + ", log entry " + std::to_string(entry)),
                       damage->text, eu_subject(*damage->eu));
            follow(*log_cause_, "the store does not mount");
        }
    }

    // The entry that leads to a page which cannot be: the one of the slot, or one of the two before
    // it whose slot holds another page than it says.
    uint32_t wrong_entry(uint32_t eu, uint32_t slot) const {
        const uint32_t pages = image_.has_file_system
                                   ? image_.data_va_start / afs::page_size
                                   : static_cast<uint32_t>(bytes_.size() / afs::page_size);
        for (uint32_t i = slot < 2 ? 0 : slot - 2; i < slot; ++i) {
            const auto page =
                afs::page_of(afs::page_record(bytes_, afs::log_record_at(eu, i)), pages);
            const auto before =
                i == 0
                    ? std::optional<uint16_t>(0)
                    : afs::page_of(afs::page_record(bytes_, afs::log_record_at(eu, i - 1)), pages);
            const uint16_t entry = get_le16(bytes_, afs::log_entry_at(eu, i));
            if (page && before && entry != (*page ^ afs::link_of(*before))) {
                return i;
            }
        }
        return slot;
    }

    // The error from which all follows that is wrong with the metadata.
    Finding *metadata_cause() {
        if (lost_log_ && header_cause_ != nullptr) {
            return header_cause_;
        }
        return log_cause_;
    }

    void tell_pages() {
        for (const AfsDamage *damage : damages_of(Rule::page)) {
            if (Finding *cause = metadata_cause()) {
                follow(*cause, damage->text);
                continue;
            }
            Finding &cause =
                error(at_offset(afs::log_record_at(*damage->eu, *damage->slot),
                                eu_name(*damage->eu) + ", slot " + std::to_string(*damage->slot)),
                      damage->text, "page " + std::to_string(*damage->page));
            bad_pages_.emplace(*damage->page, &cause);
            follow_with_files(cause, files_on(*damage->page), "have entries on it");
            follow(cause, "the store does not mount");
        }
        for (const AfsDamage *damage : damages_of(Rule::file_system)) {
            if (const auto bad = bad_pages_.find(0); bad != bad_pages_.end()) {
                follow(*bad->second, damage->text);
            } else if (Finding *cause = metadata_cause()) {
                follow(*cause, damage->text);
            } else if (damage->eu) {
                error(at_offset(afs::log_record_at(*damage->eu, *damage->slot),
                                eu_name(*damage->eu) + ", slot " + std::to_string(*damage->slot)),
                      damage->text);
            } else {
                error(at_offset(0, "log"), damage->text + ": no log EU holds the page");
            }
        }
    }

    static uint32_t page_of_entry(uint32_t id) {
        return (afs::fs_header_size + 2 * id) / afs::page_size;
    }

    bool touches(const AfsFile &file, uint32_t page) const {
        return page_of_entry(file.number) == page ||
               std::any_of(file.chunks.begin(), file.chunks.end(), [&](uint32_t chunk) {
                   return page_of_entry(image_.file_count + chunk) == page;
               });
    }

    std::set<uint32_t> files_on(uint32_t page) const {
        std::set<uint32_t> files;
        for (const AfsFile &file : image_.files) {
            if (touches(file, page)) {
                files.insert(file.number);
            }
        }
        return files;
    }

    void tell_rest() {
        for (const AfsDamage *damage : damages([](const AfsDamage &damage) {
                 return damage.rule == Rule::order || damage.rule == Rule::data_eu;
             })) {
            if (header_cause_ != nullptr) {
                follow(*header_cause_, damage->text);
            } else if (Finding *cause = metadata_cause()) {
                follow(*cause, damage->text);
            } else if (damage->eu) {
                error(at_offset(afs::header_at(*damage->eu), eu_name(*damage->eu) + ", header"),
                      damage->text, eu_subject(*damage->eu));
            } else if (findings_.has_error_in(qfs_img)) {
                findings_.follow({qfs_img}, {qfs_img, "", damage->text});
            } else {
                error("EU headers", damage->text, rest_ == 0 ? "data eus" : "size");
            }
        }
        for (const AfsDamage *damage : damages_of(Rule::chain)) {
            tell_chain(*damage);
        }
    }

    void tell_chain(const AfsDamage &damage) {
        const auto bad = bad_pages_.find(*damage.page);
        if (bad != bad_pages_.end()) {
            follow(*bad->second, damage.text);
        } else if (Finding *cause = metadata_cause()) {
            follow(*cause, damage.text);
        } else {
            error(place_of_page(*damage.page), damage.text).cause.nvar =
                name_in(names_, *damage.file);
        }
    }

    std::string place_of_page(uint32_t page) const {
        const auto &place = image_.pages[page];
        const std::string what = "FAT page " + std::to_string(page);
        return place ? at_offset(afs::log_record_at(place->eu, place->slot),
                                 eu_name(place->eu) + ", slot " + std::to_string(place->slot) +
                                     ", " + what)
                     : what;
    }

    // Chunks that fail, all of an EU under one error.
    void tell_chunks() {
        std::map<uint32_t, std::vector<const AfsDamage *>> by_eu;
        std::map<Finding *, std::set<uint32_t>> by_cause; // files
        std::set<uint32_t> lost;
        for (const AfsDamage *damage : damages_of(Rule::chunk)) {
            if (Finding *cause = cause_of_chunk(*damage)) {
                by_cause[cause].insert(*damage->file);
            } else if (damage->eu) {
                by_eu[*damage->eu].push_back(damage);
            } else if (header_cause_ == nullptr) {
                lost.insert(*damage->file);
            }
        }
        for (const auto &[cause, files] : by_cause) {
            follow_with_files(*cause, files, "cannot be read whole");
        }
        for (const auto &[eu, damages] : by_eu) {
            tell_chunks_of(eu, damages);
        }
        if (!lost.empty()) {
            Finding &cause = error("EU headers", "chunks of files lie in no EU",
                                   rest_ == 0 ? "data eus" : "size");
            follow_with_files(cause, lost, "cannot be read whole");
        }
    }

    Finding *cause_of_chunk(const AfsDamage &damage) {
        const auto file =
            std::find_if(image_.files.begin(), image_.files.end(), [&](const AfsFile &candidate) {
                return candidate.number == *damage.file;
            });
        for (const auto &[page, cause] : bad_pages_) {
            if (file != image_.files.end() && touches(*file, page)) {
                return cause;
            }
        }
        return damage.eu ? metadata_cause() : nullptr;
    }

    void tell_chunks_of(uint32_t eu, const std::vector<const AfsDamage *> &damages) {
        const AfsDamage &first = *damages.front();
        std::set<uint32_t> files;
        for (const AfsDamage *damage : damages) {
            files.insert(*damage->file);
        }
        const uint32_t slot = *first.slot;
        const bool is_status = bytes_[afs::status_at(eu, slot)] != afs::status_complete;
        const size_t at = is_status ? afs::status_at(eu, slot) : afs::data_record_at(eu, slot);
        Finding &cause =
            error(at_offset(at, eu_name(eu) + (is_status ? ", status of slot " : ", slot ") +
                                    std::to_string(slot)),
                  first.text, "");
        cause.cause.nvar = name_in(names_, *first.file);
        if (damages.size() > 1) {
            follow(cause, "so do others in " + eu_name(eu) + ": " +
                              counted(damages.size(), "failure") + " from slot " +
                              std::to_string(slot) + " on");
        }
        if (files.size() > 1) {
            follow_with_files(cause, files, "cannot be read whole");
        }
        if (is_status) {
            follow(cause, "the store does not mount");
        }
    }

    // A commit mark that was lost takes a whole page back, as a cut of power does in front of it.
    // Only
    // damage takes files along that the tables have had before.
    bool takes_files_back(const AfsTrace &trace) {
        Bytes committed = bytes_;
        put_le(committed, trace.at + 2, afs::entry_commit_mark, 2);
        const AfsImage other = read_afs_image(committed);
        std::set<uint32_t> lost;
        for (const AfsFile &file : other.files) {
            const bool is_there =
                std::any_of(image_.files.begin(), image_.files.end(),
                            [&](const AfsFile &known) { return known.number == file.number; });
            if (!is_there && names_.contains(file.number)) {
                lost.insert(file.number);
            }
        }
        if (!other.damages.empty() || lost.empty()) {
            return false;
        }
        Finding &cause = error(at_offset(trace.at + 2, eu_name(trace.eu) + ", " + trace.what),
                               "the commit mark behind this entry is gone, and with it the last "
                               "page that was written");
        follow_with_files(cause, lost, "are lost with it");
        return true;
    }

    void tell_traces() {
        for (const AfsTrace &trace : traces_) {
            std::string place = at_offset(trace.at, eu_name(trace.eu) + ", " + trace.what);
            switch (trace.kind) {
            case AfsTrace::Kind::header:
                error(std::move(place), trace.text, eu_subject(trace.eu));
                break;
            case AfsTrace::Kind::not_erased:
                error(std::move(place), trace.text, eu_subject(trace.eu) + " free");
                break;
            case AfsTrace::Kind::uncommitted:
                if (takes_files_back(trace)) {
                    break;
                }
                [[fallthrough]];
            case AfsTrace::Kind::interrupted:
            case AfsTrace::Kind::rot:
                findings_.note({qfs_img, std::move(place), trace.text});
                break;
            case AfsTrace::Kind::log_entry:
            case AfsTrace::Kind::lost_page:
                break; // told before
            }
        }
    }

    // Room and wear, as far as they call for attention.
    void tell_use() {
        if (!image_.has_file_system || findings_.has_error_in(qfs_img)) {
            return;
        }
        const AfsWear wear = afs_wear(image_);
        constexpr uint32_t levelled = 100; // from here on the store evens wear out by itself
        if (wear.highest - wear.lowest > 2 * levelled) {
            findings_.note({qfs_img, "EU headers",
                            "wear is uneven: erase counts from " + std::to_string(wear.lowest) +
                                " to " + std::to_string(wear.highest)});
        }
        uint32_t unreached = 0;
        for (const AfsEu &eu : image_.eus) {
            unreached += eu.role == AfsRole::data ? eu.dead : 0;
        }
        if (unreached != 0) {
            findings_.note({qfs_img, "data EUs",
                            counted(unreached, "chunk") +
                                " that no file reaches: old contents, or of a file that was lost; "
                                "reclaims free them"});
        }
        if (image_.chunk_count != 0 && image_.used_chunks >= image_.chunk_count / 10 * 9) {
            findings_.note({qfs_img, "data EUs",
                            std::to_string(image_.used_chunks) + " of " +
                                std::to_string(image_.chunk_count) +
                                " chunks are in use: room is nearly used up"});
        }
    }

    const Bytes &bytes_;
    const AfsImage &image_;
    const std::map<uint32_t, std::string> &names_;
    Findings &findings_;
    const std::vector<AfsTrace> traces_;
    size_t rest_ = 0; // bytes behind the last whole EU
    Finding *header_cause_ = nullptr;
    bool lost_log_ = false; // one of them held the log
    Finding *log_cause_ = nullptr;
    std::map<uint32_t, Finding *> bad_pages_;
};

} // namespace

void check_afs(const SetView &view, Findings &findings) {
    if (!view.files.qfs_image.empty()) {
        AfsCheck(view, findings).run();
    }
}

} // namespace dolm
