#include "host/assignments.h"
#include "host/commands.h"
#include "host/device_count.h"
#include "host/errors.h"
#include "host/output.h"
#include "host/set_files.h"
#include "host/tables.h"
#include "host/value_json.h"
#include "host/value_text.h"

namespace dolm {

namespace {

constexpr size_t set_value_columns = 28;

std::vector<Assignment> all_assignments(const ChangeOptions &options) {
    std::vector<Assignment> all;
    if (options.from) {
        all = read_assignments_file(*options.from);
    }
    for (Assignment &assignment : read_assignments(options.words)) {
        all.push_back(std::move(assignment));
    }
    for (const std::string &name : options.unset) {
        all.push_back({name, std::nullopt});
    }
    if (all.empty()) {
        throw UsageError("nothing to set: NAME VALUE, --from or --unset is required");
    }
    require_one_each(all);
    return all;
}

// Makes all changes in the set.
std::vector<ValueChange> change_values(SetFiles &set, uint32_t sku,
                                       const std::vector<Assignment> &assignments) {
    Library library(set, sku);
    std::vector<ValueChange> changes = assign(library, assignments);
    set.vync_cfg = with_vync_head(library.terminate());
    return changes;
}

Json to_json(const std::filesystem::path &folder, uint32_t sku,
             const std::vector<ValueChange> &changes) {
    Json list = Json::array();
    for (const ValueChange &change : changes) {
        list.push_back({{"name", change.name},
                        {"before", value_to_json(change.before)},
                        {"after", value_to_json(change.after)}});
    }
    return {{"set", folder.string()}, {"sku", sku}, {"changes", list}};
}

Json to_json(const DeviceCost &cost) {
    return {{"writes", cost.writes}, {"erases", cost.erases}, {"bytes", cost.bytes}};
}

std::string sizes_text(const ValueChange &change) {
    return change.name + ": " + std::to_string(change.before.size()) + " -> " +
           std::to_string(change.after.size()) + " bytes";
}

void print_changes(const std::filesystem::path &folder, uint32_t sku,
                   const std::vector<ValueChange> &changes) {
    if (tells_json()) {
        print_json(to_json(folder, sku, changes));
        return;
    }
    for (const ValueChange &change : changes) {
        print_line(sizes_text(change));
    }
}

void print_cost(const std::string &store, const DeviceCost &cost) {
    print_line(store + ": " + std::to_string(cost.writes) + " writes of " +
               std::to_string(cost.bytes) + " bytes in all, " + std::to_string(cost.erases) +
               " erases");
}

// All of it on a copy in memory.
void try_changes(const ChangeOptions &options, const std::vector<Assignment> &assignments) {
    SetFiles set = load_set(options.folder, options.lock_timeout);
    const uint32_t sku = choose_sku(set, options.sku);
    const size_t store_size = set.vync_cfg.size();
    const DeviceCount count(set);
    const std::vector<ValueChange> changes = change_values(set, sku, assignments);
    if (tells_json()) {
        Json json = to_json(options.folder, sku, changes);
        json["dry_run"] = true;
        json["cost"] = {{"afs", to_json(count.afs())}, {"efs", to_json(count.efs())}};
        print_json(json);
        return;
    }
    for (const ValueChange &change : changes) {
        print_line(sizes_text(change) + ", " + preview_value(change.before, set_value_columns) +
                   " -> " + preview_value(change.after, set_value_columns));
    }
    print_line("vync.cfg: " + std::to_string(store_size) + " -> " +
               std::to_string(set.vync_cfg.size()) + " bytes");
    print_cost("AFS", count.afs());
    print_cost("EFS", count.efs());
    print_line("nothing was changed");
}

bool is_same_folder(const std::filesystem::path &one, const std::filesystem::path &other) {
    std::error_code ignored;
    return std::filesystem::equivalent(one, other, ignored);
}

} // namespace

void set_nvars(const ChangeOptions &options) {
    using Use = SetFolder::Use;
    const std::vector<Assignment> assignments = all_assignments(options);
    if (options.dry_run) {
        try_changes(options, assignments);
        return;
    }
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
