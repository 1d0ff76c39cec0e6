#include "host/assignments.h"
#include "host/commands.h"
#include "host/errors.h"
#include "host/output.h"
#include "host/set_files.h"
#include "host/tables.h"
#include "host/value_json.h"

namespace dolm {

namespace {

std::vector<std::string> words_of(const ChangeOptions &options) {
    std::vector<std::string> words{options.name, options.value};
    words.insert(words.end(), options.more.begin(), options.more.end());
    return words;
}

void print_changes(const std::filesystem::path &folder, uint32_t sku,
                   const std::vector<ValueChange> &changes) {
    if (!tells_json()) {
        for (const ValueChange &change : changes) {
            print_line(change.name + ": " + std::to_string(change.before.size()) + " -> " +
                       std::to_string(change.after.size()) + " bytes");
        }
        return;
    }
    Json list = Json::array();
    for (const ValueChange &change : changes) {
        list.push_back({{"name", change.name},
                        {"before", value_to_json(change.before)},
                        {"after", value_to_json(change.after)}});
    }
    print_json({{"set", folder.string()}, {"sku", sku}, {"changes", list}});
}

// Makes all changes in the set.
std::vector<ValueChange> change_values(SetFiles &set, uint32_t sku,
                                       const std::vector<Assignment> &assignments) {
    Library library(set, sku);
    std::vector<ValueChange> changes = assign(library, assignments);
    set.vync_cfg = with_vync_head(library.terminate());
    return changes;
}

bool is_same_folder(const std::filesystem::path &one, const std::filesystem::path &other) {
    std::error_code ignored;
    return std::filesystem::equivalent(one, other, ignored);
}

} // namespace

void set_nvars(const ChangeOptions &options) {
    using Use = SetFolder::Use;
    const std::vector<Assignment> assignments = read_assignments(words_of(options));
    if (options.output) {
        refuse_other_set(*options.output, options.replace);
    }
    const bool in_place = !options.output || is_same_folder(*options.output, options.folder);
    std::optional<SetFolder> folder(std::in_place, options.folder,
                                    in_place ? Use::change : Use::read, options.lock_timeout);
    SetFiles set = folder->load();
    if (!in_place) {
        // Its lock goes first, so that two commands that copy crosswise do not block each other.
        folder.emplace(*options.output, Use::change, options.lock_timeout);
        refuse_other_set(*options.output, options.replace);
    }
    const uint32_t sku = choose_sku(set, options.sku);
    const std::vector<ValueChange> changes = change_values(set, sku, assignments);
    if (!set.sku) {
        set.sku = sku;
    }
    // What cannot be told does not happen either.
    folder->save(set, [&] {
        print_changes(folder->path(), sku, changes);
        flush_output();
    });
}

} // namespace dolm
