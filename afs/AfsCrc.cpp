#include "AfsCrc.h"

#include <algorithm>

#include "common/crc.h"

namespace {

size_t byte_count(int32_t length) {
    return static_cast<size_t>(std::max(length, 0));
}

} // namespace

constexpr uint8_t gCrc8_low[16] = {0x00, 0x07, 0x0E, 0x09, 0x1C, 0x1B, 0x12, 0x15,
                                   0x38, 0x3F, 0x36, 0x31, 0x24, 0x23, 0x2A, 0x2D};
constexpr uint8_t gCrc8_high[16] = {0x00, 0x70, 0xE0, 0x90, 0xC7, 0xB7, 0x27, 0x57,
                                    0x89, 0xF9, 0x69, 0x19, 0x4E, 0x3E, 0xAE, 0xDE};

namespace {

constexpr bool nibbles_fit_polynomial() {
    constexpr auto crc8_table = dolm::crc_table_msb_first<uint8_t>(dolm::crc8_polynomial);
    for (unsigned byte = 0; byte < 256; ++byte) {
        if ((gCrc8_high[byte >> 4] ^ gCrc8_low[byte & 15]) != crc8_table[byte]) {
            return false;
        }
    }
    return true;
}
static_assert(nibbles_fit_polynomial());

} // namespace

uint32_t crc8(const void *data, int32_t length) {
    return dolm::crc8_msb_first(0x01, static_cast<const uint8_t *>(data), byte_count(length));
}

uint32_t crc14(const void *data, int32_t length) {
    const auto *bytes = static_cast<const uint8_t *>(data);
    uint16_t crc = dolm::crc14_mask;
    for (size_t i = 0; i < byte_count(length); ++i) {
        crc = dolm::crc14_step(crc, bytes[i]);
    }
    return crc;
}

uint32_t crc16(const void *data, int32_t length, const void *tail) {
    uint16_t crc = 0xFFFF;
    crc = dolm::crc16_ccitt(crc, static_cast<const uint8_t *>(data), byte_count(length));
    return dolm::crc16_ccitt(crc, static_cast<const uint8_t *>(tail), 2);
}
