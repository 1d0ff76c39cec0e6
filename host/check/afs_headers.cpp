// The headers of the EUs, and which of them is the spare.
#include <algorithm>

#include "host/check/afs_check.h"
#include "image/afs_records.h"

namespace dolm {

// Which EUs have lost their headers, and what lay in them.
void AfsCheck::tell_headers() {
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

std::span<const uint8_t> AfsCheck::header(uint32_t eu) const {
    return std::span(bytes_).subspan(afs::header_at(eu), afs::header_size);
}

bool AfsCheck::is_erased(uint32_t eu) const {
    return std::ranges::all_of(header(eu), [](uint8_t byte) { return byte == 0xFF; });
}

// Of several EUs without a valid header: the one that was given up or erased on purpose. The
// newest header names it, unless that is the one that was lost.
std::optional<uint32_t> AfsCheck::likely_spare(const std::vector<uint32_t> &invalid) const {
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
std::optional<uint32_t> AfsCheck::newest_named_among(const std::vector<uint32_t> &eus) const {
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

std::optional<uint32_t> AfsCheck::newest_named() const {
    const AfsEu *newest = nullptr;
    for (const AfsEu &eu : image_.eus) {
        if (eu.sequence != 0 && !eu.pending &&
            (newest == nullptr || eu.sequence > newest->sequence)) {
            newest = &eu;
        }
    }
    return newest == nullptr ? std::nullopt : std::optional<uint32_t>(newest->next_spare);
}

const char *AfsCheck::state_of_header(uint32_t eu) const {
    return is_erased(eu)                                   ? "is erased"
           : afs::judge_header(header(eu)).given_up        ? "says that the EU was given up"
           : get_le32(header(eu), 0) == afs::magic_written ? "fails its checksum"
                                                           : "has a wrong magic";
}

// Of neighbouring EUs, the cause of whose loss is likely the same.
void AfsCheck::tell_headers(uint32_t first, uint32_t last, size_t invalid) {
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

bool AfsCheck::chunk_lies_in(uint32_t chunk, uint16_t va_base) const {
    const uint32_t page = image_.data_va_start / afs::page_size + chunk;
    return page >= va_base && page < va_base + afs::data_slots;
}

void AfsCheck::tell_spare() {
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

} // namespace dolm
