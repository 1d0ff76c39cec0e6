#include "host/value_folder.h"

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <system_error>

#include "host/errors.h"
#include "host/value_text.h"

namespace dolm {

namespace fs = std::filesystem;

namespace {

bool is_plain(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
           c == '-' || c == '.';
}

std::string lower(std::string text) {
    for (char &c : text) {
        c = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
    }
    return text;
}

// Names of devices, whatever stands behind a dot.
bool is_reserved(std::string_view part) {
    const std::string stem = lower(std::string(part.substr(0, part.find('.'))));
    const bool is_numbered =
        stem.size() == 4 && (stem.starts_with("com") || stem.starts_with("lpt"));
    return stem == "con" || stem == "prn" || stem == "aux" || stem == "nul" || is_numbered;
}

// A part of a path that every file system takes and that is no way up. A dot at either end is not
// plain, nor are a part without a character and the first one of a reserved name.
std::string safe_part(std::string_view part) {
    constexpr std::string_view digits = "0123456789ABCDEF";
    std::string safe;
    for (size_t i = 0; i < part.size(); ++i) {
        const bool is_end_dot = part[i] == '.' && (i == 0 || i + 1 == part.size());
        if (is_plain(part[i]) && !is_end_dot && !(i == 0 && is_reserved(part))) {
            safe += part[i];
        } else {
            const auto byte = static_cast<uint8_t>(part[i]);
            safe += {'%', digits[byte >> 4], digits[byte & 0xF]};
        }
    }
    return safe.empty() ? "%" : safe;
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
    const std::string parent = name == path.npos ? "" : path.substr(0, name);
    if (!known_.contains(parent)) {
        known_[parent] = fs::create_directories(whole.parent_path(), error);
        if (error) {
            fail(error.message());
        }
    }
    if (!known_[parent]) {
        fs::remove(whole, error); // rather than writing through a link
    }
    written_.push_back(path);
    std::ofstream stream;
    stream.rdbuf()->pubsetbuf(nullptr, 0); // each value is written at once
    stream.open(whole, std::ios::binary);
    const std::string_view bytes = to_text(content);
    stream.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    stream.close();
    if (!stream) {
        fail(std::generic_category().message(errno));
    }
}

void ValueFolder::discard() {
    std::error_code ignored;
    for (const std::string &path : written_) {
        fs::path gone = path;
        while (!gone.empty() && fs::remove(folder_ / gone, ignored)) {
            gone = gone.parent_path();
        }
    }
}

} // namespace dolm
