#include "Directory.h"

#include <algorithm>

#include "common/little_endian.h"

namespace image_editor {

namespace {

// A walk, not a binary search: whoever links a tree by hand may rename a child that is already in
// its place, and still finds it here.
auto find_child(std::deque<std::shared_ptr<IFile>> &children, const std::string &name) {
    return std::find_if(children.begin(), children.end(),
                        [&](const std::shared_ptr<IFile> &child) { return name == child->name; });
}

} // namespace

Directory::Directory() = default;

Directory::Directory(const void *data, uint32_t size) : IFile(data, size) {}

bool Directory::isDirectory() const {
    return true;
}

uint32_t Directory::getSize() const {
    size_t size = block.size();
    if (name[0] != '\0') {
        size += sizeof(_cfg_file_entry_t);
    }
    for (const auto &child : children) {
        size += child->getSize();
    }
    return static_cast<uint32_t>(size);
}

bool Directory::addFile(const std::string &, const std::shared_ptr<IFile> &file) {
    if (file == nullptr) {
        return false;
    }
    if (children.empty() || !fileCompare(file, children.back())) {
        children.push_back(file);
        return true;
    }
    // The place in the order costs log n comparisons, where sorting again would cost n log n for
    // each file.
    children.insert(std::upper_bound(children.begin(), children.end(), file, fileCompare), file);
    return true;
}

bool Directory::deleteFile(const std::string &path) {
    const size_t slash = path.find('/');
    const std::string first = path.substr(0, slash);
    const std::string rest = slash == std::string::npos ? "" : path.substr(slash + 1);
    if (first.empty()) {
        return false;
    }
    const auto child = find_child(children, first);
    if (child == children.end()) {
        return false;
    }
    if (!rest.empty()) {
        return (*child)->deleteFile(rest);
    }
    children.erase(child);
    return true;
}

bool Directory::getFile(const std::string &path, std::shared_ptr<IFile> *out) {
    if (out == nullptr) {
        return false;
    }
    const auto child = find_child(children, path);
    if (child == children.end()) {
        return false;
    }
    *out = *child;
    return true;
}

void Directory::serialize(std::vector<_cfg_file_entry_t> &entries, std::vector<uint8_t> &data) {
    if (name[0] != '\0' && entry != nullptr) {
        dolm::store_le32(block.data() + offsetof(_cfg_file_entry_t, offset), 0);
        entries.push_back(*entry);
    }
    for (const auto &child : children) {
        child->serialize(entries, data);
    }
}

} // namespace image_editor
