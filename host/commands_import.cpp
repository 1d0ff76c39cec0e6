#include <algorithm>

#include "EFS.h"
#include "efs_tools_utils.h"
#include "host/commands.h"
#include "host/errors.h"
#include "host/flash_files.h"
#include "host/flash_images.h"
#include "host/output.h"
#include "host/set_files.h"
#include "proof/afs_build.h"

namespace dolm {

namespace {

struct Import {
    const FlashFile *file;
    Bytes content; // with the trailer
};

Bytes read_content(const FlashFile &file, const std::string &path, bool with_trailer) {
    Bytes content = read_file(path, max_image_size);
    const size_t trailer = file.trailer();
    const size_t value = content.size() - (with_trailer ? std::min(trailer, content.size()) : 0);
    if (with_trailer && content.size() < trailer) {
        throw Failure(path + ": has no room for the trailer of " + std::to_string(trailer) +
                      " bytes of " + file.name);
    }
    if (file.max_size && value > *file.max_size) {
        throw Failure(file.name + ": the value has " + std::to_string(value) +
                      " bytes, over the limit of " + std::to_string(*file.max_size));
    }
    if (!with_trailer) {
        // The file keeps the trailer that it has.
        const bool has_trailer = file.content && file.content->size() >= trailer;
        const Bytes kept = has_trailer
                               ? Bytes(file.content->end() - static_cast<std::ptrdiff_t>(trailer),
                                       file.content->end())
                               : Bytes(trailer, trailer_filler);
        content.insert(content.end(), kept.begin(), kept.end());
    }
    return content;
}

// A name may hold the sign that ends it, so the first file that there is counts.
Import read_pair(const std::vector<FlashFile> &files, const std::string &pair, bool with_trailer) {
    for (size_t end = pair.find('='); end != pair.npos; end = pair.find('=', end + 1)) {
        const std::string name = pair.substr(0, end);
        const FlashFile *file = find_file(files, name);
        if (file != nullptr) {
            return {file, read_content(*file, pair.substr(end + 1), with_trailer)};
        }
    }
    if (pair.find('=') == pair.npos) {
        throw UsageError("'" + pair + "' is not of the form NAME=FILE");
    }
    throw UsageError("neither store has a file '" + pair.substr(0, pair.find('=')) + "'");
}

std::vector<Import> read_pairs(const std::vector<FlashFile> &files, const ImportOptions &options) {
    std::vector<Import> imports;
    for (const std::string &pair : options.pairs) {
        imports.push_back(read_pair(files, pair, options.with_trailer));
        const FlashFile &last = *imports.back().file;
        const auto twice = std::count_if(imports.begin(), imports.end(), [&](const Import &other) {
            return other.file->is_in_efs == last.is_in_efs && other.file->id == last.id;
        });
        if (twice > 1) {
            throw UsageError("'" + last.name + "' is given two contents");
        }
    }
    return imports;
}

void write_to_afs(Bytes &image, const std::vector<Import> &imports) {
    if (image.empty()) {
        throw Failure("the set has no AFS image");
    }
    AfsMount mount(image);
    require_done(mount.status(), "the mount of the AFS image");
    for (const auto &[file, content] : imports) {
        if (!file->is_in_efs) {
            const bool is_cut = file->content && content.size() < file->content->size();
            require_done(afs_writefile(mount.context(), file->id, 0,
                                       static_cast<uint32_t>(content.size()), content.data(),
                                       is_cut ? AFS_WRITE_TRUNCATE : 0),
                         "the write of " + file->name);
        }
    }
}

void write_to_efs(Bytes &image, const Bytes &ftbl, uint32_t sku,
                  const std::vector<Import> &imports) {
    require_done(load_file_table(ftbl.data(), sku, static_cast<uint32_t>(ftbl.size())),
                 "load_file_table");
    if (image.empty() || image.size() < EFS_get_efs_size()) {
        throw Failure("the set has no EFS image of the size that its file table says");
    }
    require_done(EFS_init_tools(image.data()), "the mount of the EFS image");
    for (const auto &[file, content] : imports) {
        if (file->is_in_efs) {
            Bytes data = content;
            data.push_back(0); // so that the data of an empty file is not null
            require_done(EFS_write(file->id, 0, static_cast<uint32_t>(content.size()), data.data()),
                         "the write of " + file->name);
        }
    }
}

void print_imported(const ImportOptions &options, const std::vector<Import> &imports) {
    Json files = Json::array();
    for (const auto &[file, content] : imports) {
        files.push_back({{"name", file->name}, {"size", content.size()}});
        if (!tells_json()) {
            print_line(file->name + ": " + std::to_string(content.size()) + " bytes in " +
                       (file->is_in_efs ? "EFS" : "AFS"));
        }
    }
    if (tells_json()) {
        print_json({{"set", options.folder.string()}, {"files", std::move(files)}});
    }
    flush_output();
}

} // namespace

void import_files(const ImportOptions &options) {
    SetFolder folder(options.folder, SetFolder::Use::change, options.lock_timeout);
    SetFiles set = folder.load();
    const uint32_t sku = choose_sku(set, options.sku);
    std::vector<Problem> problems;
    const std::vector<FlashFile> files = flash_files(set, sku, problems);
    const std::vector<Import> imports = read_pairs(files, options);
    const auto is_in_efs = [](const Import &import) { return import.file->is_in_efs; };
    if (!std::all_of(imports.begin(), imports.end(), is_in_efs)) {
        write_to_afs(set.qfs_image, imports);
    }
    if (std::any_of(imports.begin(), imports.end(), is_in_efs)) {
        write_to_efs(set.efs_image, set.ftbl, sku, imports);
    }
    folder.save(set, [&] { print_imported(options, imports); });
}

} // namespace dolm
