#include "common/crc.h"

namespace dolm {

namespace {

constexpr size_t slices = 16;

template <typename T>
using slicing_tables = std::array<std::array<T, 256>, slices>;

constexpr slicing_tables<uint16_t> make_crc16_tables() {
    slicing_tables<uint16_t> tables{};
    tables[0] = crc_table_msb_first<uint16_t>(crc16_ccitt_polynomial);
    for (size_t k = 1; k < slices; ++k) {
        for (size_t i = 0; i < 256; ++i) {
            const uint16_t reg = tables[k - 1][i];
            tables[k][i] = static_cast<uint16_t>(reg << 8 ^ tables[0][reg >> 8]);
        }
    }
    return tables;
}

constexpr slicing_tables<uint32_t> make_crc32_tables() {
    slicing_tables<uint32_t> tables{};
    tables[0] = crc32_table_reflected(crc32_reflected_polynomial);
    for (size_t k = 1; k < slices; ++k) {
        for (size_t i = 0; i < 256; ++i) {
            const uint32_t reg = tables[k - 1][i];
            tables[k][i] = reg >> 8 ^ tables[0][reg & 0xFF];
        }
    }
    return tables;
}

constexpr slicing_tables<uint16_t> crc16_tables = make_crc16_tables();
constexpr slicing_tables<uint32_t> crc32_tables = make_crc32_tables();

} // namespace

uint16_t crc16_ccitt(uint16_t crc, const uint8_t *data, size_t length) {
    for (; length >= slices; data += slices, length -= slices) {
        unsigned next =
            crc16_tables[15][data[0] ^ crc >> 8] ^ crc16_tables[14][data[1] ^ (crc & 0xFF)];
        for (size_t i = 2; i < slices; ++i) {
            next ^= crc16_tables[slices - 1 - i][data[i]];
        }
        crc = static_cast<uint16_t>(next);
    }
    for (; length > 0; ++data, --length) {
        crc = static_cast<uint16_t>(crc << 8 ^ crc16_tables[0][crc >> 8 ^ *data]);
    }
    return crc;
}

uint32_t crc32_reflected(uint32_t crc, const uint8_t *data, size_t length) {
    for (; length >= slices; data += slices, length -= slices) {
        const uint32_t head = crc ^ load_le32(data);
        crc = crc32_tables[15][head & 0xFF] ^ crc32_tables[14][head >> 8 & 0xFF] ^
              crc32_tables[13][head >> 16 & 0xFF] ^ crc32_tables[12][head >> 24];
        for (size_t i = 4; i < slices; ++i) {
            crc ^= crc32_tables[slices - 1 - i][data[i]];
        }
    }
    for (; length > 0; ++data, --length) {
        crc = crc >> 8 ^ crc32_tables[0][(crc ^ *data) & 0xFF];
    }
    return crc;
}

} // namespace dolm
