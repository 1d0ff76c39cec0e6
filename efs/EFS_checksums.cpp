#include "EFS.h"
#include "common/crc.h"
#include "common/repeat.h"

namespace {

constexpr auto crc32_table = dolm::crc32_table_reflected(dolm::crc32_reflected_polynomial);
constexpr auto crc16_table = dolm::crc_table_msb_first<uint16_t>(dolm::crc16_ccitt_polynomial);

constexpr uint32_t crc32_entry(size_t i) {
    return crc32_table[i];
}
constexpr uint16_t crc16_entry(size_t i) {
    return crc16_table[i];
}

} // namespace

constinit const uint32_t gCrc32_table[256] = {DOLM_REPEAT_256(crc32_entry)};
constinit const uint16_t gCrc16_table[256] = {DOLM_REPEAT_256(crc16_entry)};

uint32_t EFS_crc16(uint16_t seed, const void *data, uint32_t length) {
    if (data == nullptr) {
        return seed;
    }
    return dolm::crc16_ccitt(seed, static_cast<const uint8_t *>(data), length);
}

uint32_t EFS_crc32(uint32_t seed, const void *data, uint32_t length) {
    if (data == nullptr) {
        return seed;
    }
    return dolm::crc32_reflected(seed, static_cast<const uint8_t *>(data), length);
}
