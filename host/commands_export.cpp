#include "host/commands.h"
#include "host/errors.h"
#include "host/export_writer.h"
#include "host/output.h"
#include "host/set_files.h"
#include "host/set_manifest.h"

namespace dolm {

namespace {

void print_exported(const ExportOptions &options, const SetDescription &found, size_t values) {
    const Manifest &manifest = found.manifest;
    if (tells_json()) {
        Json hidden = Json::array();
        for (const Problem &problem : found.hidden) {
            hidden.push_back(
                {{"file", problem.source}, {"name", problem.name}, {"text", problem.text}});
        }
        print_json({{"set", options.folder.string()},
                    {"output", options.output.string()},
                    {"files", manifest.files.size()},
                    {"values", values},
                    {"skus", manifest.skus},
                    {"default_sku", manifest.default_sku},
                    {"as_found", manifest.as_found},
                    {"hidden", std::move(hidden)}});
    } else {
        print_line(options.output.string() + ": " + std::to_string(manifest.files.size()) +
                   " files, " + std::to_string(values) + " values, " +
                   std::to_string(manifest.skus.size()) + " SKUs");
    }
    flush_output();
}

} // namespace

void export_set(const ExportOptions &options) {
    SetFolder folder(options.folder, SetFolder::Use::read, options.lock_timeout);
    std::vector<Problem> missing;
    const SetFiles set = folder.load_readable(missing);
    SetDescription found = describe_set(set);
    found.hidden.insert(found.hidden.begin(), missing.begin(), missing.end());
    const std::vector<Problem> refused = prepare_for_build(found.manifest);
    found.hidden.insert(found.hidden.end(), refused.begin(), refused.end());
    for (const auto &[table, change] : set.changed_tables) {
        found.notes.push_back(table + " is not what set.json has checksums of");
    }
    const size_t values = write_export(found.manifest, options.output, options.replace);
    for (const std::string &note : found.notes) {
        tell_notice(note);
    }
    print_exported(options, found, values);
    if (!found.hidden.empty()) {
        throw Failure(found.hidden);
    }
}

} // namespace dolm
