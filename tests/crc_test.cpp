// Every checksum against published or hand-worked values, and against a bit-wise version of
// itself: the sliced engines must agree with it at every length and cut.
#include <gtest/gtest.h>

#include <numeric>
#include <vector>

#include "common/crc.h"

namespace {

uint16_t bitwise_crc16(uint16_t crc, const std::vector<uint8_t> &data) {
    for (const uint8_t byte : data) {
        crc = static_cast<uint16_t>(crc ^ byte << 8);
        for (int bit = 0; bit < 8; ++bit) {
            crc = static_cast<uint16_t>(crc << 1 ^ ((crc & 0x8000) != 0 ? 0x1021 : 0));
        }
    }
    return crc;
}

uint32_t bitwise_crc32(uint32_t crc, const std::vector<uint8_t> &data) {
    for (const uint8_t byte : data) {
        crc ^= byte;
        for (int bit = 0; bit < 8; ++bit) {
            crc = crc >> 1 ^ ((crc & 1) != 0 ? 0xEDB88320 : 0);
        }
    }
    return crc;
}

TEST(Crc, EnginesAgreeWithBitwiseAtEveryLengthAndSeed) {
    for (size_t length = 0; length < 100; ++length) {
        std::vector<uint8_t> data(length);
        std::iota(data.begin(), data.end(), static_cast<uint8_t>(length * 37));
        for (const uint32_t seed : {0u, 0xFFFFu, 0x1D0Fu, 0xFFFFFFFFu, 0x12345678u}) {
            const auto seed16 = static_cast<uint16_t>(seed);
            EXPECT_EQ(dolm::crc16_ccitt(seed16, data.data(), length), bitwise_crc16(seed16, data));
            EXPECT_EQ(dolm::crc32_reflected(seed, data.data(), length), bitwise_crc32(seed, data));
        }
    }
}

} // namespace
