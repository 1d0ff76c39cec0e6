// The log, the metadata in it, and the chunks of the files.
#include <algorithm>

#include "host/check/afs_check.h"
#include "image/afs_records.h"

namespace dolm {

// Entries of the log that are not what was written lead astray all that comes behind them.
void AfsCheck::tell_log() {
    for (const AfsTrace &trace : traces_) {
        if (trace.kind == AfsTrace::Kind::log_entry || trace.kind == AfsTrace::Kind::lost_page) {
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
uint32_t AfsCheck::wrong_entry(uint32_t eu, uint32_t slot) const {
    const uint32_t pages = image_.has_file_system
                               ? image_.data_va_start / afs::page_size
                               : static_cast<uint32_t>(bytes_.size() / afs::page_size);
    for (uint32_t i = slot < 2 ? 0 : slot - 2; i < slot; ++i) {
        const auto page = afs::page_of(afs::page_record(bytes_, afs::log_record_at(eu, i)), pages);
        const auto before =
            i == 0 ? std::optional<uint16_t>(0)
                   : afs::page_of(afs::page_record(bytes_, afs::log_record_at(eu, i - 1)), pages);
        const uint16_t entry = get_le16(bytes_, afs::log_entry_at(eu, i));
        if (page && before && entry != (*page ^ afs::link_of(*before))) {
            return i;
        }
    }
    return slot;
}

// The error from which all follows that is wrong with the metadata.
Finding *AfsCheck::metadata_cause() {
    if (lost_log_ && header_cause_ != nullptr) {
        return header_cause_;
    }
    return log_cause_;
}

void AfsCheck::tell_pages() {
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

uint32_t AfsCheck::page_of_entry(uint32_t id) {
    return (afs::fs_header_size + 2 * id) / afs::page_size;
}

bool AfsCheck::touches(const AfsFile &file, uint32_t page) const {
    return page_of_entry(file.number) == page ||
           std::any_of(file.chunks.begin(), file.chunks.end(), [&](uint32_t chunk) {
               return page_of_entry(image_.file_count + chunk) == page;
           });
}

std::set<uint32_t> AfsCheck::files_on(uint32_t page) const {
    std::set<uint32_t> files;
    for (const AfsFile &file : image_.files) {
        if (touches(file, page)) {
            files.insert(file.number);
        }
    }
    return files;
}

void AfsCheck::tell_rest() {
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

void AfsCheck::tell_chain(const AfsDamage &damage) {
    const auto bad = bad_pages_.find(*damage.page);
    if (bad != bad_pages_.end()) {
        follow(*bad->second, damage.text);
    } else if (Finding *cause = metadata_cause()) {
        follow(*cause, damage.text);
    } else {
        error(place_of_page(*damage.page), damage.text).cause.nvar = name_in(names_, *damage.file);
    }
}

std::string AfsCheck::place_of_page(uint32_t page) const {
    const auto &place = image_.pages[page];
    const std::string what = "FAT page " + std::to_string(page);
    return place ? at_offset(afs::log_record_at(place->eu, place->slot),
                             eu_name(place->eu) + ", slot " + std::to_string(place->slot) + ", " +
                                 what)
                 : what;
}

// Chunks that fail, all of an EU under one error.
void AfsCheck::tell_chunks() {
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
        Finding &cause =
            error("EU headers", "chunks of files lie in no EU", rest_ == 0 ? "data eus" : "size");
        follow_with_files(cause, lost, "cannot be read whole");
    }
}

Finding *AfsCheck::cause_of_chunk(const AfsDamage &damage) {
    const auto file =
        std::find_if(image_.files.begin(), image_.files.end(),
                     [&](const AfsFile &candidate) { return candidate.number == *damage.file; });
    for (const auto &[page, cause] : bad_pages_) {
        if (file != image_.files.end() && touches(*file, page)) {
            return cause;
        }
    }
    return damage.eu ? metadata_cause() : nullptr;
}

void AfsCheck::tell_chunks_of(uint32_t eu, const std::vector<const AfsDamage *> &damages) {
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
        follow(cause, "so do others in " + eu_name(eu) + ": " + counted(damages.size(), "failure") +
                          " from slot " + std::to_string(slot) + " on");
    }
    if (files.size() > 1) {
        follow_with_files(cause, files, "cannot be read whole");
    }
    if (is_status) {
        follow(cause, "the store does not mount");
    }
}

} // namespace dolm
