#include "host/check/afs_check.h"

#include <algorithm>

#include "image/afs_records.h"

namespace dolm {

AfsCheck::AfsCheck(const SetView &view, Findings &findings)
    : bytes_(view.files.qfs_image), image_(view.afs), names_(view.afs_names), findings_(findings),
      traces_(survey_afs_image(bytes_, image_)) {}

void AfsCheck::run() {
    tell_size();
    tell_headers();
    tell_log();
    tell_pages();
    tell_rest();
    tell_chunks();
    tell_traces();
    tell_use();
}

Finding &AfsCheck::error(std::string place, std::string text, const std::string &subject) {
    Finding &finding = findings_.error({qfs_img, std::move(place), std::move(text)}, subject);
    finding.advice = how_to_restore(qfs_img);
    return finding;
}

void AfsCheck::follow(Finding &cause, std::string text) {
    cause.consequences.push_back({qfs_img, "", std::move(text)});
}

std::vector<const AfsDamage *> AfsCheck::damages_of(Rule rule) const {
    return damages([=](const AfsDamage &damage) { return damage.rule == rule; });
}

std::string AfsCheck::file_name(uint32_t file) const {
    const std::string name = name_in(names_, file);
    return name.empty() ? "file " + std::to_string(file) : name;
}

// "23 files lie in it: ...", one line for all.
void AfsCheck::follow_with_files(Finding &cause, const std::set<uint32_t> &files,
                                 const char *text) {
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

void AfsCheck::tell_size() {
    for (const AfsDamage *damage : damages_of(Rule::size)) {
        error(at_offset(bytes_.size(), "end of the file"),
              counted(bytes_.size(), "byte") + ": " + damage->text);
    }
    rest_ = bytes_.size() % afs::eu_size;
    if (rest_ != 0 && image_.eu_count != 0 &&
        (rest_ % afs::erase_block_size != 0 || !image_.damages.empty())) {
        error(at_offset(bytes_.size(), "end of the file"),
              "the image ends inside " + eu_name(image_.eu_count) + ": " +
                  counted(bytes_.size(), "byte") + " are no whole number of units",
              "size");
    }
}

// A commit mark that was lost takes a whole page back, as a cut of power does in front of it. Only
// damage takes files along that the tables have had before.
bool AfsCheck::takes_files_back(const AfsTrace &trace) {
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

void AfsCheck::tell_traces() {
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
void AfsCheck::tell_use() {
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

void check_afs(const SetView &view, Findings &findings) {
    if (!view.files.qfs_image.empty()) {
        AfsCheck(view, findings).run();
    }
}

} // namespace dolm
