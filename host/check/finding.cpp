#include "host/check/finding.h"

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <set>
#include <tuple>

namespace dolm {

namespace {

using Key = std::tuple<std::string, std::string, std::string, std::string>;

Key key_of(const Remark &remark) {
    return {remark.file, remark.place, remark.text, remark.nvar};
}

void keep_first_of_each(std::vector<Remark> &remarks) {
    std::set<Key> seen;
    std::erase_if(remarks,
                  [&](const Remark &remark) { return !seen.insert(key_of(remark)).second; });
}

} // namespace

const char *to_string(Finding::Severity severity) {
    return severity == Finding::Severity::error ? "error" : "note";
}

Finding &Findings::error(Remark remark, const std::string &subject) {
    if (Finding *cause = find(remark.file, subject)) {
        cause->consequences.push_back(std::move(remark));
        return *cause;
    }
    found_.push_back({.cause = std::move(remark), .subject = subject});
    return found_.back();
}

Finding *Findings::find(const std::string &file, const std::string &subject) {
    const auto found = std::find_if(found_.begin(), found_.end(), [&](const Finding &finding) {
        return finding.severity == Finding::Severity::error && !subject.empty() &&
               finding.subject == subject && finding.cause.file == file;
    });
    return found == found_.end() ? nullptr : &*found;
}

bool Findings::has_error_about(const std::string &file, const std::string &subject) {
    return find(file, subject) != nullptr;
}

void Findings::follow(std::initializer_list<const char *> files, Remark remark) {
    for (Finding &finding : found_) {
        if (finding.severity == Finding::Severity::error &&
            std::find(files.begin(), files.end(), finding.cause.file) != files.end()) {
            finding.consequences.push_back(std::move(remark));
            return;
        }
    }
    error(std::move(remark));
}

Finding &Findings::explain(Remark cause, const std::function<bool(const Finding &)> &follows) {
    Finding explained{.cause = std::move(cause)};
    std::deque<Finding> others;
    for (Finding &finding : found_) {
        if (!follows(finding)) {
            others.push_back(std::move(finding));
            continue;
        }
        if (key_of(finding.cause) != key_of(explained.cause)) {
            explained.consequences.push_back(std::move(finding.cause));
        }
        std::move(finding.consequences.begin(), finding.consequences.end(),
                  std::back_inserter(explained.consequences));
    }
    others.push_front(std::move(explained));
    found_ = std::move(others);
    return found_.front();
}

void Findings::note(Remark remark) {
    found_.push_back({.severity = Finding::Severity::note, .cause = std::move(remark)});
}

bool Findings::has_error_in(const std::string &file) const {
    return std::any_of(found_.begin(), found_.end(), [&](const Finding &finding) {
        return finding.severity == Finding::Severity::error && finding.cause.file == file;
    });
}

bool Findings::has_errors() const {
    return std::any_of(found_.begin(), found_.end(), [](const Finding &finding) {
        return finding.severity == Finding::Severity::error;
    });
}

std::vector<Finding> Findings::sorted() && {
    std::vector<Finding> sorted;
    std::set<Key> seen;
    for (const auto severity : {Finding::Severity::error, Finding::Severity::note}) {
        for (Finding &finding : found_) {
            if (finding.severity == severity && seen.insert(key_of(finding.cause)).second) {
                keep_first_of_each(finding.consequences);
                sorted.push_back(std::move(finding));
            }
        }
    }
    return sorted;
}

std::string hex(uint64_t value) {
    char text[20];
    std::snprintf(text, sizeof text, "0x%llX", static_cast<unsigned long long>(value));
    return text;
}

std::string at_offset(uint64_t offset, const std::string &what) {
    return hex(offset) + (what.empty() ? "" : ", " + what);
}

std::string how_to_restore(const std::string &image) {
    return "bring back " + image +
           " from a backup or read it again from the device; dolm inspect shows what is left";
}

std::string listed(const std::vector<std::string> &items, size_t most) {
    std::string text;
    for (size_t i = 0; i < std::min(items.size(), most); ++i) {
        text += (i == 0 ? "" : ", ") + items[i];
    }
    if (items.size() > most) {
        text += " and " + std::to_string(items.size() - most) + " more";
    }
    return text;
}

} // namespace dolm
