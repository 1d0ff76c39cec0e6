#include "host/sku_merge.h"

#include <algorithm>
#include <iterator>
#include <map>
#include <tuple>

namespace dolm {

namespace {

// Everything that a table says of a file.
using Key = std::tuple<std::string, uint32_t, uint16_t, Store, uint16_t, uint32_t, bool, uint32_t,
                       uint32_t, uint32_t>;

Key key_of(const ManifestFile &file) {
    const EfsPlacement placement = file.efs.value_or(EfsPlacement());
    return {file.name,        file.number,       file.attributes,      file.store,
            file.id,          file.max_size,     file.efs.has_value(), placement.block,
            placement.offset, placement.max_size};
}

// The positions of the longest ascending run of numbers, which need not stand side by side.
std::vector<size_t> longest_ascending(const std::vector<size_t> &numbers) {
    std::vector<size_t> ends; // positions of the smallest ends of runs of each length
    std::vector<size_t> before(numbers.size());
    for (size_t i = 0; i < numbers.size(); ++i) {
        const auto end = std::lower_bound(
            ends.begin(), ends.end(), numbers[i],
            [&](size_t position, size_t number) { return numbers[position] < number; });
        before[i] = end == ends.begin() ? i : *std::prev(end);
        if (end == ends.end()) {
            ends.push_back(i);
        } else {
            *end = i;
        }
    }
    std::vector<size_t> run(ends.size());
    for (size_t i = run.size(), position = ends.empty() ? 0 : ends.back(); i-- > 0;) {
        run[i] = position;
        position = before[position];
    }
    return run;
}

struct Match {
    std::vector<size_t> in_row;
    std::vector<size_t> in_list;
};

// Files that stand in both, by their positions, in the order of the row.
Match match(const std::vector<ManifestFile> &list, const std::vector<ManifestFile> &row) {
    std::map<Key, std::vector<size_t>> known; // positions, the first one last
    for (size_t i = list.size(); i-- > 0;) {
        known[key_of(list[i])].push_back(i);
    }
    Match match;
    for (size_t i = 0; i < row.size(); ++i) {
        const auto found = known.find(key_of(row[i]));
        if (found != known.end() && !found->second.empty()) {
            match.in_row.push_back(i);
            match.in_list.push_back(found->second.back());
            found->second.pop_back();
        }
    }
    return match;
}

} // namespace

void merge_files(std::vector<ManifestFile> &list, std::vector<ManifestFile> row, uint32_t sku) {
    std::vector<ManifestFile> merged;
    size_t from_list = 0;
    size_t from_row = 0;
    const auto move_up_to = [&](std::vector<ManifestFile> &files, size_t &from, size_t end) {
        for (; from < end; ++from) {
            merged.push_back(std::move(files[from]));
        }
    };
    const Match shared = match(list, row);
    for (const size_t i : longest_ascending(shared.in_list)) {
        move_up_to(list, from_list, shared.in_list[i]);
        move_up_to(row, from_row, shared.in_row[i]);
        list[from_list].skus.push_back(sku);
        move_up_to(list, from_list, from_list + 1);
        ++from_row;
    }
    move_up_to(list, from_list, list.size());
    move_up_to(row, from_row, row.size());
    list = std::move(merged);
}

} // namespace dolm
