#include "host/close_words.h"

#include <algorithm>
#include <numeric>
#include <utility>

namespace dolm {

size_t distance(std::string_view one, std::string_view other) {
    std::vector<size_t> row(other.size() + 1);
    std::iota(row.begin(), row.end(), size_t{0});
    for (size_t i = 0; i < one.size(); ++i) {
        size_t diagonal = row[0];
        row[0] = i + 1;
        for (size_t j = 0; j < other.size(); ++j) {
            const size_t replaced = diagonal + (one[i] == other[j] ? 0 : 1);
            diagonal = row[j + 1];
            row[j + 1] = std::min({replaced, diagonal + 1, row[j] + 1});
        }
    }
    return row.back();
}

std::vector<std::string> nearest(std::string_view word, std::vector<std::string> words,
                                 size_t count) {
    std::vector<std::pair<size_t, std::string>> ranked;
    for (std::string &other : words) {
        const size_t steps = distance(word, other);
        ranked.emplace_back(steps, std::move(other));
    }
    std::stable_sort(ranked.begin(), ranked.end(),
                     [](const auto &a, const auto &b) { return a.first < b.first; });
    std::vector<std::string> found;
    for (size_t i = 0; i < std::min(count, ranked.size()); ++i) {
        found.push_back(std::move(ranked[i].second));
    }
    return found;
}

} // namespace dolm
