#include "host/commands.h"
#include "host/errors.h"
#include "host/flash_files.h"
#include "host/output.h"
#include "host/value_folder.h"
#include "host/value_text.h"

namespace dolm {

namespace {

Bytes wanted_part(const FlashFile &file, bool with_trailer) {
    Bytes content = *file.content;
    if (!with_trailer) {
        content.resize(content.size() - std::min(content.size(), file.trailer()));
    }
    return content;
}

std::vector<const FlashFile *> all_in_flash(const std::vector<FlashFile> &files) {
    std::vector<const FlashFile *> present;
    for (const FlashFile &file : files) {
        if (file.content || !file.damages.empty()) {
            present.push_back(&file);
        }
    }
    return present;
}

class Extraction {
  public:
    // image_problems may be why a file cannot be had.
    Extraction(const ExtractOptions &options, std::vector<Problem> image_problems)
        : options_(options), image_problems_(std::move(image_problems)), folder_(options.output) {}

    void take(const FlashFile &file) {
        if (!file.content) {
            const bool is_damaged = !file.damages.empty();
            problems_.push_back({file.is_in_efs ? "efs.img" : "qfs.img", "", file.name,
                                 is_damaged ? file.damages.front() : "the file is not in flash"});
            return;
        }
        const Bytes content = wanted_part(file, options_.with_trailer);
        if (options_.output == "-") {
            print_raw(to_text(content));
            return;
        }
        const std::string path = folder_.add("", file.name, "", content);
        files_.push_back({{"name", file.name}, {"file", path}, {"size", content.size()}});
        if (!tells_json()) {
            print_line(path + ": " + std::to_string(content.size()) + " bytes");
        }
    }

    void finish() {
        if (tells_json() && options_.output != "-") {
            print_json({{"set", options_.folder.string()},
                        {"output", options_.output.string()},
                        {"files", std::move(files_)}});
        }
        flush_output();
        if (options_.all || !problems_.empty()) {
            problems_.insert(problems_.begin(), image_problems_.begin(), image_problems_.end());
        }
        if (!problems_.empty()) {
            throw Failure(problems_);
        }
    }

  private:
    const ExtractOptions &options_;
    const std::vector<Problem> image_problems_;
    ValueFolder folder_;
    Json files_ = Json::array();
    std::vector<Problem> problems_;
};

} // namespace

void extract_files(const ExtractOptions &options) {
    if (options.all == !options.names.empty()) {
        throw UsageError("either names or --all are needed");
    }
    const SetFiles set = load_set(options.folder, options.lock_timeout);
    std::vector<Problem> problems;
    const std::vector<FlashFile> files = flash_files(set, choose_sku(set, options.sku), problems);
    const auto wanted = options.all ? all_in_flash(files) : files_meant(files, options.names);
    if (options.output == "-" && (wanted.size() != 1 || tells_json())) {
        throw UsageError("standard output takes one file, and no JSON beside it");
    }
    Extraction extraction(options, problems);
    for (const FlashFile *file : wanted) {
        extraction.take(*file);
    }
    extraction.finish();
}

} // namespace dolm
