#include "File.h"

#include <cstring>
#include <stdexcept>

#include "common/little_endian.h"

namespace image_editor {

File::File(const void *data, uint32_t size, const char *file_name) : IFile(data, size) {
    if (file_name == nullptr) {
        throw std::invalid_argument("a file has a name");
    }
    std::memcpy(name, file_name, strnlen(file_name, max_name_length));
}

bool File::isDirectory() const {
    return false;
}

uint32_t File::getSize() const {
    return static_cast<uint32_t>(block.size());
}

bool File::addFile(const std::string &, const std::shared_ptr<IFile> &) {
    return false;
}

bool File::deleteFile(const std::string &) {
    return false;
}

bool File::getFile(const std::string &, std::shared_ptr<IFile> *) {
    return false;
}

void File::serialize(std::vector<_cfg_file_entry_t> &entries, std::vector<uint8_t> &data) {
    dolm::store_le32(block.data() + offsetof(_cfg_file_entry_t, offset),
                     static_cast<uint32_t>(data.size()));
    entries.push_back(*entry);
    const auto payload = block.begin() + sizeof(_cfg_file_entry_t);
    data.insert(data.end(), payload,
                payload + dolm::load_le16(block.data() + offsetof(_cfg_file_entry_t, size)));
}

} // namespace image_editor
