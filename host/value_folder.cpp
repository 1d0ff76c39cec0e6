#include "host/value_folder.h"

#include <cerrno>
#include <cstdio>
#include <system_error>

#include "host/errors.h"

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

std::string ValueFolder::take_path(std::string_view kind, std::string_view name,
                                   std::string_view suffix) {
    std::string path(kind);
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

std::string ValueFolder::add(std::string_view kind, std::string_view name, std::string_view suffix,
                             const Bytes &value) {
    std::string path = take_path(kind, name, suffix);
    write(path, value);
    return path;
}

void ValueFolder::write(const std::string &path, const Bytes &content) {
    const fs::path whole = folder_ / path;
    const auto fail = [&](const std::string &why) {
        throw Failure("cannot write " + whole.string() + ": " + why);
    };
    std::error_code error;
    const size_t name = path.rfind('/');
    if (made_.insert(name == path.npos ? "" : path.substr(0, name)).second) {
        fs::create_directories(whole.parent_path(), error);
        if (error) {
            fail(error.message());
        }
    }
    // A new file, so that nothing is written through a link.
    std::FILE *file = std::fopen(whole.string().c_str(), "wbx");
    if (file == nullptr && errno == EEXIST) {
        fs::remove(whole, error);
        file = std::fopen(whole.string().c_str(), "wbx");
    }
    if (file == nullptr) {
        fail(std::generic_category().message(errno));
    }
    std::setvbuf(file, nullptr, _IONBF, 0);
    const bool is_written = std::fwrite(content.data(), 1, content.size(), file) == content.size();
    const int why = errno;
    if (std::fclose(file) != 0 || !is_written) {
        fail(std::generic_category().message(is_written ? errno : why));
    }
}

} // namespace dolm
