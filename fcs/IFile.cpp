#include "IFile.h"

#include <cstring>
#include <stdexcept>

#include "common/little_endian.h"

namespace image_editor {

namespace {

std::vector<uint8_t> copy_block(const void *data, uint32_t size) {
    if (data == nullptr || size < sizeof(_cfg_file_entry_t)) {
        throw std::invalid_argument("a node's block starts with a whole record");
    }
    const auto *bytes = static_cast<const uint8_t *>(data);
    return {bytes, bytes + size};
}

} // namespace

IFile::IFile() : name{}, entry(nullptr), parent(nullptr) {}

IFile::IFile(const void *data, uint32_t size)
    : block(copy_block(data, size)), name{},
      entry(reinterpret_cast<_cfg_file_entry_t *>(block.data())), parent(nullptr) {
    // Serialising trusts this field, so it never comes from the caller's record.
    dolm::store_le16(block.data() + offsetof(_cfg_file_entry_t, size),
                     static_cast<uint16_t>(size - sizeof(_cfg_file_entry_t)));
}

IFile::~IFile() = default;

std::string IFile::getFullPath() const {
    return parentPath.empty() ? name : parentPath + "/" + name;
}

bool fileCompare(const std::shared_ptr<IFile> &a, const std::shared_ptr<IFile> &b) {
    return std::strcmp(a->name, b->name) < 0;
}

} // namespace image_editor
