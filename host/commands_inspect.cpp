#include <algorithm>
#include <sstream>

#include "host/commands.h"
#include "host/errors.h"
#include "host/inspect.h"
#include "host/output.h"
#include "host/set_files.h"
#include "host/table_entries.h"
#include "host/utf8.h"
#include "image/efs_layout.h"

namespace dolm {

namespace {

namespace fs = std::filesystem;

// What an image is read with: the table that was named, or that of the set which the image lies in.
struct Table {
    Bytes ftbl; // empty if there is none
    std::optional<uint32_t> sku;
};

Table find_table(const InspectOptions &options, const std::optional<SetFolder> &set) {
    Table table;
    if (options.ftbl) {
        table.ftbl = read_file(*options.ftbl, max_table_size);
    } else if (set && fs::exists(set->path() / "ftbl.bin")) {
        table.ftbl = read_file(set->path() / "ftbl.bin", max_table_size);
    }
    table.sku = options.sku;
    if (!table.sku && !options.ftbl && set) {
        if (const auto settings = set->settings()) {
            table.sku = settings->sku;
        }
    }
    return table;
}

FileNames names_from(const Table &table, Store store) {
    return table.ftbl.empty() || !table.sku ? FileNames{}
                                            : names_in_store(table.ftbl, *table.sku, store);
}

// An AFS image has headers of its own; an EFS image can only be told from noise with its geometry.
bool is_afs(const AfsImage &image) {
    return std::any_of(image.eus.begin(), image.eus.end(), [](const AfsEu &eu) {
        return eu.role == AfsRole::log || eu.role == AfsRole::data;
    });
}

void print_with_damages(const InspectOptions &options, Json json,
                        const std::vector<std::string> &broken, auto &&write_text) {
    if (tells_json()) {
        json["broken"] = broken;
        print_json(json);
    } else {
        std::ostringstream text;
        write_text(text);
        for (const std::string &rule : broken) {
            text << "Broken: " << escape(rule) << '\n';
        }
        print_text(text.str());
    }
    if (!broken.empty()) {
        flush_output();
        throw Failure(options.image.string() + " breaks its format: " + broken.front() +
                      (broken.size() == 1
                           ? ""
                           : "; and " + std::to_string(broken.size() - 1) + " more rules"));
    }
}

} // namespace

void inspect_image(const InspectOptions &options) {
    std::optional<SetFolder> set;
    const fs::path folder = options.image.parent_path().empty() ? "." : options.image.parent_path();
    if (options.image != "-" && holds_set(folder)) {
        set.emplace(folder, SetFolder::Use::read, options.lock_timeout);
    }
    const Bytes bytes = read_file(options.image, max_image_size);
    const Table table = find_table(options, set);
    set.reset();
    const AfsImage afs = read_afs_image(bytes);
    if (is_afs(afs)) {
        const FileNames names = names_from(table, Store::afs);
        print_with_damages(options, afs_to_json(afs, names), check_invariants(afs),
                           [&](std::ostream &out) { print_afs(out, afs, bytes.size(), names); });
        return;
    }
    if (table.ftbl.empty() || !table.sku) {
        throw UsageError(options.image.string() +
                         " is no AFS image; for an EFS image give its file table with --ftbl and "
                         "--sku");
    }
    const EfsLayout layout = read_efs_layout(table.ftbl, *table.sku);
    const EfsImage efs = read_efs_image(bytes, layout);
    const FileNames names = names_from(table, Store::efs);
    print_with_damages(options, efs_to_json(efs, layout, names), efs_damages(efs),
                       [&](std::ostream &out) { print_efs(out, efs, layout, names); });
}

} // namespace dolm
