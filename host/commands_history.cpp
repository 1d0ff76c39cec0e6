// Earlier contents of files that still lie on a flash image.
#include <algorithm>
#include <functional>

#include "host/commands.h"
#include "host/errors.h"
#include "host/image_table.h"
#include "host/output.h"
#include "host/patterns.h"
#include "host/utf8.h"
#include "host/value_json.h"
#include "host/value_text.h"
#include "image/afs_history.h"
#include "image/afs_records.h"
#include "image/efs_history.h"
#include "image/member_kind.h"

namespace dolm {

namespace {

constexpr size_t history_value_columns = 60;

struct Held {
    Bytes bytes;
    size_t at = 0;     // offset of its first byte in the image; that of the metadata if it is empty
    std::string where; // in words
};

struct FileHistory {
    uint32_t number = 0; // in its store
    std::string name;
    std::string state;
    std::string why; // it is not sound
    std::optional<Held> current;
    std::vector<Held> earlier; // newest first
};

struct ImageHistory {
    std::string image; // file name
    const char *store;
    std::vector<FileHistory> files;
};

// The same bytes written again are no earlier content.
void add_earlier(FileHistory &file, Held content) {
    const Held *newer = !file.earlier.empty() ? &file.earlier.back()
                        : file.current        ? &*file.current
                                              : nullptr;
    if (newer == nullptr || newer->bytes != content.bytes) {
        file.earlier.push_back(std::move(content));
    }
}

void add_versions(FileHistory &file, bool has_current, std::vector<Held> contents) {
    for (Held &content : contents) {
        if (has_current && !file.current) {
            file.current = std::move(content);
        } else {
            add_earlier(file, std::move(content));
        }
    }
}

const char *state_name(HistoryState state) {
    switch (state) {
    case HistoryState::sound:
        return "sound";
    case HistoryState::absent:
        return "absent";
    case HistoryState::shared:
        return "shared";
    case HistoryState::doubtful:
        return "doubtful";
    case HistoryState::damaged:
        break;
    }
    return "damaged";
}

std::string slot_text(uint32_t eu, uint32_t slot) {
    return "EU " + std::to_string(eu) + ", slot " + std::to_string(slot);
}

Held to_held(const Bytes &image, const AfsVersion &version) {
    Held content{contents_of(image, version), 0, ""};
    if (!version.chunks_at.empty()) {
        content.at = version.chunks_at.front();
        const auto eu = static_cast<uint32_t>(content.at / afs::eu_size);
        const size_t slot = (content.at - afs::data_record_at(eu, 0)) / afs::record_size;
        content.where = "from " + slot_text(eu, static_cast<uint32_t>(slot)) + " on";
    } else if (version.since) {
        content.at = afs::log_record_at(version.since->eu, version.since->slot);
    }
    if (version.since) {
        content.where += (content.where.empty() ? "" : ", ") + std::string("by the metadata in ") +
                         slot_text(version.since->eu, version.since->slot);
    }
    return content;
}

Held to_held(const EfsVersion &version) {
    const std::string map = version.since ? "by entry " + std::to_string(version.since->entry) +
                                                " of BM " + std::to_string(version.since->bm)
                                          : "which no map names";
    return {version.contents, version.at, "block " + std::to_string(version.block) + ", " + map};
}

ImageHistory read_afs(const ImageFile &image) {
    const auto history = read_afs_history(image.bytes);
    if (!history) {
        throw Failure("no header of a file system is left in the AFS image");
    }
    const FileNames names = image.table.names_in(Store::afs);
    ImageHistory told{image.name, "afs", {}};
    for (const AfsFileHistory &file : history->files) {
        FileHistory shown{
            file.number, name_of(names, file.number), state_name(file.state), file.why, {}, {}};
        std::vector<Held> contents;
        for (const AfsVersion &version : file.versions) {
            contents.push_back(to_held(image.bytes, version));
        }
        add_versions(shown, file.has_current, std::move(contents));
        told.files.push_back(std::move(shown));
    }
    return told;
}

ImageHistory read_efs(const ImageFile &image) {
    const EfsHistory history = read_efs_history(image.bytes, image.table.efs_layout(image.name));
    const FileNames names = image.table.names_in(Store::efs);
    ImageHistory told{image.name, "efs", {}};
    for (const EfsFileHistory &file : history.files) {
        FileHistory shown{file.place.number,
                          name_of(names, file.place.number),
                          state_name(file.state),
                          file.why,
                          {},
                          {}};
        std::vector<Held> contents;
        for (const EfsVersion &version : file.versions) {
            contents.push_back(to_held(version));
        }
        add_versions(shown, file.has_current, std::move(contents));
        told.files.push_back(std::move(shown));
    }
    return told;
}

bool is_number(const std::string &word) {
    return !word.empty() && word.find_first_not_of("0123456789") == word.npos;
}

// Of the images of a set, or of one alone.
struct Histories {
    std::vector<ImageHistory> images;
    std::vector<Problem> unreadable;
};

// Leaves the files that the words mean, in the order of the images.
void choose(Histories &histories, const std::vector<std::string> &words) {
    std::vector<ImageHistory> &images = histories.images;
    std::vector<std::string> names;
    std::vector<std::string> numbers_known;
    for (const ImageHistory &history : images) {
        for (const FileHistory &file : history.files) {
            names.push_back(file.name);
            numbers_known.push_back(std::to_string(file.number));
        }
    }
    std::vector<std::string> names_asked;
    std::vector<std::string> numbers;
    for (const std::string &word : words) {
        (is_number(word) ? numbers : names_asked).push_back(word);
    }
    const NamesMeant meant = names_meant(names_asked, names);
    const auto has = [](const std::vector<std::string> &list, const std::string &word) {
        return std::find(list.begin(), list.end(), word) != list.end();
    };
    const std::string no_trace = !histories.unreadable.empty() ? "what can be read has no trace of "
                                 : images.size() == 1          ? "the image has no trace of "
                                                               : "the images have no trace of ";
    if (!meant.unknown.empty()) {
        throw Failure(no_trace + meant.unknown.front());
    }
    for (const std::string &number : numbers) {
        if (!has(numbers_known, number)) {
            throw Failure(std::string(no_trace).append("file ").append(number));
        }
    }
    for (ImageHistory &history : images) {
        std::erase_if(history.files, [&](const FileHistory &file) {
            return !has(numbers, std::to_string(file.number)) &&
                   (file.name.empty() || !has(meant.names, file.name));
        });
    }
}

Json to_json(const Held &content) {
    Json json = value_to_json(content.bytes);
    json["at"] = content.at;
    json["where"] = content.where;
    return json;
}

Json to_json(const ImageHistory &history) {
    Json json{{"store", history.store}, {"files", Json::array()}};
    for (const FileHistory &file : history.files) {
        Json told{{"number", file.number}, {"name", file.name}, {"state", file.state}};
        if (!file.why.empty()) {
            told["why"] = file.why;
        }
        told["current"] = file.current ? to_json(*file.current) : Json();
        told["earlier"] = Json::array();
        for (const Held &content : file.earlier) {
            told["earlier"].push_back(to_json(content));
        }
        json["files"].push_back(std::move(told));
    }
    return json;
}

void print_content(const char *when, const Held &content) {
    print_line(std::string("    ") + when + preview_value(content.bytes, history_value_columns) +
               "  (" + std::to_string(content.bytes.size()) + " bytes, " + content.where + ")");
}

void print_file(const FileHistory &file) {
    print_line("file " + std::to_string(file.number) + (file.name.empty() ? "" : " ") + file.name +
               (file.state == "sound" ? "" : ": " + file.state) +
               (file.why.empty() ? "" : ", " + file.why));
    if (file.current) {
        print_content("now      ", *file.current);
    }
    for (const Held &content : file.earlier) {
        print_content("earlier  ", content);
    }
}

ImageHistory read_history(const ImageFile &image) {
    const auto kind = recognise(image.bytes);
    if (kind && *kind != MemberKind::afs_image && *kind != MemberKind::efs_image) {
        throw UsageError(image.name + " is no flash image");
    }
    return kind == MemberKind::afs_image ? read_afs(image) : read_efs(image);
}

// A damaged image of a set may be like nothing known.
Histories read_set(const HistoryOptions &options) {
    Histories histories;
    for (const ImageFile &image : read_set_images(options)) {
        try {
            histories.images.push_back(image.name == "qfs.img" ? read_afs(image) : read_efs(image));
        } catch (const std::runtime_error &failure) {
            histories.unreadable.push_back({image.name, "", "", failure.what()});
        }
    }
    return histories;
}

void print_files(const ImageHistory &history, bool all) {
    for (const FileHistory &file : history.files) {
        if (all || !file.earlier.empty()) {
            print_file(file);
        }
    }
}

} // namespace

void show_history(const HistoryOptions &options) {
    const bool is_set = std::filesystem::is_directory(options.path);
    Histories histories =
        is_set ? read_set(options) : Histories{{read_history(read_image_file(options))}, {}};
    if (!options.names.empty() && !histories.images.empty()) {
        choose(histories, options.names);
    }
    if (tells_json() && !is_set) {
        print_json(to_json(histories.images.front()));
        return;
    }
    Json json{{"images", Json::array()}};
    for (const ImageHistory &history : histories.images) {
        if (tells_json()) {
            Json told = to_json(history);
            told["file"] = history.image;
            json["images"].push_back(std::move(told));
            continue;
        }
        if (is_set) {
            print_line(history.image + ":");
        }
        print_files(history, !options.names.empty());
    }
    if (tells_json()) {
        print_json(json);
    }
    if (!histories.unreadable.empty()) {
        flush_output();
        throw Failure(histories.unreadable);
    }
}

} // namespace dolm
