#include "afs/ftl_format.h"

#include <cstring>

namespace dolm {

namespace {

// Whether the checksum fits the header with another magic in place of its own.
bool eu_crc_matches(const uint8_t *bytes, uint32_t magic) {
    uint8_t with_magic[eu_crc_offset];
    std::memcpy(with_magic, bytes, sizeof with_magic);
    store_le32(with_magic + eu_magic_offset, magic);
    return crc8(with_magic, sizeof with_magic) == bytes[eu_crc_offset];
}

} // namespace

bool eu_header_is_valid(const uint8_t *bytes) {
    const afs_eu_header header = load_eu_header(bytes);
    if (header.sequence == 0 || header.erase_count == 0) {
        return false;
    }
    switch (header.magic) {
    case eu_magic:
    case eu_magic_partial:
        return eu_crc_matches(bytes, eu_magic);
    case eu_magic_alt:
        return eu_crc_matches(bytes, eu_magic_alt) || eu_crc_matches(bytes, eu_magic);
    default:
        return false;
    }
}

bool spare_erase_count_is_good(const uint8_t *bytes) {
    return load_le32(bytes + eu_magic_offset) == 0 &&
           (eu_crc_matches(bytes, eu_magic) || eu_crc_matches(bytes, eu_magic_alt));
}

} // namespace dolm
