#include "host/value_paths.h"

#include <algorithm>
#include <fstream>

#include "host/errors.h"
#include "host/value_text.h"

namespace dolm {

namespace fs = std::filesystem;

namespace {

bool is_plain(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
           c == '-' || c == '.';
}

// A part of a path that every file system takes and that is no way up. A dot at either end is not
// plain, nor is a part without a character.
std::string safe_part(std::string_view part) {
    constexpr std::string_view digits = "0123456789ABCDEF";
    std::string safe;
    for (size_t i = 0; i < part.size(); ++i) {
        const bool is_end_dot = part[i] == '.' && (i == 0 || i + 1 == part.size());
        if (is_plain(part[i]) && !is_end_dot) {
            safe += part[i];
        } else {
            const auto byte = static_cast<uint8_t>(part[i]);
            safe += {'%', digits[byte >> 4], digits[byte & 0xF]};
        }
    }
    return safe.empty() ? "%" : safe;
}

std::string lower(std::string text) {
    for (char &c : text) {
        c = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
    }
    return text;
}

} // namespace

std::string ValuePaths::take(std::string_view folder, std::string_view name,
                             std::string_view suffix) {
    std::string path(folder);
    const auto add_part = [&](std::string_view part) {
        path += (path.empty() ? "" : "/") + safe_part(part);
    };
    std::string_view rest = name.starts_with('/') ? name.substr(1) : name;
    for (size_t end = rest.find('/'); end != rest.npos; end = rest.find('/')) {
        add_part(rest.substr(0, end));
        rest.remove_prefix(end + 1);
        while (files_.contains(lower(path))) {
            path += "~";
        }
        folders_.insert(lower(path));
    }
    add_part(rest);
    std::string file = path + std::string(suffix);
    for (int i = 2; folders_.contains(lower(file)) || !files_.insert(lower(file)).second; ++i) {
        file = path + "~" + std::to_string(i) + std::string(suffix);
    }
    return file;
}

void write_value_file(const fs::path &path, const Bytes &content) {
    try {
        if (path.has_parent_path()) {
            fs::create_directories(path.parent_path());
        }
        if (fs::is_symlink(fs::symlink_status(path))) {
            fs::remove(path);
        }
    } catch (const std::system_error &failure) {
        throw Failure("cannot write " + path.string() + ": " + failure.code().message());
    }
    std::ofstream stream(path, std::ios::binary);
    const std::string_view bytes = to_text(content);
    stream.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    stream.close();
    if (!stream) {
        throw Failure("cannot write " + path.string());
    }
}

} // namespace dolm
