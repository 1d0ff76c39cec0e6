#include "FileIterator.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace image_editor {

namespace {

Directory *as_directory(IFile *node) {
    return node != nullptr && node->isDirectory() ? static_cast<Directory *>(node) : nullptr;
}

// The node at the iterator's position; null if the tree has shrunk under it.
IFile *node_at(const FileIterator &at) {
    const auto &children = at.current->children;
    const auto position = static_cast<size_t>(at.index); // a negative one lies past every end
    return position < children.size() ? children[position].get() : nullptr;
}

bool go_to_sibling(FileIterator &at) {
    const int64_t next = std::max<int64_t>(at.index, -1) + 1;
    if (next >= static_cast<int64_t>(at.current->children.size())) {
        return false;
    }
    at.index = static_cast<int32_t>(next);
    return true;
}

// Goes from a directory that has been walked to its own position in the directory above.
bool climb(FileIterator &at) {
    Directory *above = at.current->parent;
    if (above == nullptr) {
        return false;
    }
    at.index = -1;
    const auto &children = above->children;
    const auto self = std::find_if(children.begin(), children.end(), [&](const auto &child) {
        return std::strcmp(child->name, at.current->name) == 0;
    });
    if (self == children.end()) {
        return false;
    }
    at.index = static_cast<int32_t>(self - children.begin());
    at.current = above;
    return true;
}

} // namespace

FileIterator::FileIterator(std::shared_ptr<IFile> tree)
    : root(std::move(tree)), current(nullptr), index(0) {
    rewind();
}

bool FileIterator::rewind() noexcept {
    Directory *const top = as_directory(root.get());
    if (top == nullptr) {
        return false;
    }
    current = top;
    if (top->children.empty()) {
        return false;
    }
    index = 0;
    return true;
}

std::string FileIterator::firstFile() {
    return rewind() ? current->children.front()->name : std::string();
}

std::string FileIterator::nextFile() {
    if (current == nullptr || current->children.empty()) {
        return {};
    }
    Directory *const inner = as_directory(node_at(*this));
    if (inner != nullptr && !inner->children.empty()) {
        current = inner;
        index = 0;
        return inner->children.front()->getFullPath();
    }
    while (!go_to_sibling(*this)) {
        if (!climb(*this)) {
            return {};
        }
    }
    return node_at(*this)->getFullPath();
}

} // namespace image_editor
