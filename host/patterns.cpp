#include "host/patterns.h"

#include <algorithm>
#include <iterator>
#include <unordered_set>

namespace dolm {

namespace {

constexpr std::string_view home_prefix = "/home/";

// What one character of a pattern, or one set of them, asks of a character of the name.
struct Step {
    bool fits = false;
    size_t length = 1; // in the pattern
};

// A set without an end is no set: its bracket stands for itself.
Step step_of_set(std::string_view pattern, char character) {
    const bool negated = pattern.size() > 1 && pattern[1] == '!';
    const size_t first = negated ? 2 : 1;
    const size_t end = pattern.find(']', first + 1); // one in the first place is of the set
    if (end == pattern.npos) {
        return {character == '['};
    }
    bool found = false;
    const auto code = static_cast<unsigned char>(character);
    for (size_t i = first; i < end; ++i) {
        const bool range = i + 2 < end && pattern[i + 1] == '-';
        const auto low = static_cast<unsigned char>(pattern[i]);
        const auto high = static_cast<unsigned char>(pattern[range ? i + 2 : i]);
        found = found || (low <= code && code <= high);
        i += range ? 2 : 0;
    }
    return {found != negated, end + 1};
}

Step step_of(std::string_view pattern, char character) {
    return pattern.front() == '[' ? step_of_set(pattern, character)
                                  : Step{pattern.front() == '?' || pattern.front() == character};
}

// Only the last * has to be tried again: what an earlier one could take more, it can take as well.
bool fits_whole(std::string_view pattern, std::string_view text) {
    std::string_view behind_star;
    std::string_view retry;
    bool starred = false;
    while (!text.empty()) {
        if (pattern.starts_with('*')) {
            pattern.remove_prefix(1);
            behind_star = pattern;
            retry = text;
            starred = true;
            continue;
        }
        const Step step = pattern.empty() ? Step{} : step_of(pattern, text.front());
        if (step.fits) {
            pattern.remove_prefix(step.length);
            text.remove_prefix(1);
        } else if (starred) {
            retry.remove_prefix(1);
            text = retry;
            pattern = behind_star;
        } else {
            return false;
        }
    }
    return pattern.find_first_not_of('*') == pattern.npos;
}

} // namespace

std::string full_name(const std::string &name) {
    return name.starts_with(home_prefix) ? name : std::string(home_prefix) + name;
}

std::string_view short_name(std::string_view name) {
    return name.starts_with(home_prefix) ? name.substr(home_prefix.size()) : name;
}

bool is_pattern(std::string_view word) {
    return word.find_first_of("*?[") != word.npos;
}

bool fits(std::string_view pattern, std::string_view name) {
    return fits_whole(pattern, name) || fits_whole(pattern, short_name(name));
}

NamesMeant names_meant(const std::vector<std::string> &words,
                       const std::vector<std::string> &names) {
    const std::unordered_set<std::string_view> known(names.begin(), names.end());
    const auto all_meant_by = [&](const std::string &word) {
        std::vector<std::string_view> all;
        for (const std::string &name : {word, full_name(word)}) {
            if (const auto same = known.find(name); same != known.end()) {
                return std::vector{*same};
            }
        }
        if (is_pattern(word)) {
            std::copy_if(names.begin(), names.end(), std::back_inserter(all),
                         [&](const std::string &name) { return fits(word, name); });
        }
        return all;
    };
    NamesMeant meant;
    std::unordered_set<std::string_view> chosen;
    for (const std::string &word : words) {
        const auto all = all_meant_by(word);
        if (all.empty()) {
            meant.unknown.push_back(word);
        }
        for (const std::string_view name : all) {
            if (chosen.insert(name).second) {
                meant.names.emplace_back(name);
            }
        }
    }
    return meant;
}

} // namespace dolm
