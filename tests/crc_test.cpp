// Every checksum against published or hand-worked values, and against a bit-wise version of
// itself: the fast engines must agree with it at every length and cut.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

#include "AfsCrc.h"
#include "common/crc.h"
#include "common/crc_kernels.h"

namespace {

template <typename T>
T bitwise_msb_first(T polynomial, T crc, const std::vector<uint8_t> &data) {
    constexpr int width = sizeof(T) * 8;
    for (const uint8_t byte : data) {
        crc = static_cast<T>(crc ^ byte << (width - 8));
        for (int bit = 0; bit < 8; ++bit) {
            crc = static_cast<T>(crc << 1 ^ (crc >> (width - 1) != 0 ? polynomial : 0));
        }
    }
    return crc;
}

uint16_t bitwise_crc16(uint16_t crc, const std::vector<uint8_t> &data) {
    return bitwise_msb_first<uint16_t>(0x1021, crc, data);
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

std::vector<uint8_t> random_bytes(std::mt19937 &random, size_t length) {
    std::vector<uint8_t> data(length);
    std::generate(data.begin(), data.end(), [&] { return static_cast<uint8_t>(random()); });
    return data;
}

TEST(Crc, EnginesAgreeWithBitwiseAtEveryLengthAndSeed) {
    std::mt19937 random(1);
    for (size_t length = 0; length < 600; ++length) {
        const std::vector<uint8_t> data = random_bytes(random, length);
        for (const uint32_t seed : {0u, 0xFFFFu, 0x1D0Fu, 0xFFFFFFFFu, 0x12345678u}) {
            const auto seed8 = static_cast<uint8_t>(seed);
            const auto seed16 = static_cast<uint16_t>(seed);
            EXPECT_EQ(dolm::crc8_msb_first(seed8, data.data(), length),
                      bitwise_msb_first<uint8_t>(0x07, seed8, data));
            EXPECT_EQ(dolm::crc16_ccitt(seed16, data.data(), length), bitwise_crc16(seed16, data));
            EXPECT_EQ(dolm::crc32_reflected(seed, data.data(), length), bitwise_crc32(seed, data));
        }
    }
}

void expect_kernels_agree_with_bitwise(const dolm::crc_kernels &kernels) {
    std::mt19937 random(2);
    const std::vector<uint8_t> bytes = random_bytes(random, 320);
    for (size_t alignment = 0; alignment < 16; ++alignment) {
        const auto start = bytes.begin() + static_cast<std::ptrdiff_t>(alignment);
        for (size_t length = 0; length <= 300; ++length) {
            const auto seed = static_cast<uint32_t>(random());
            const std::vector<uint8_t> data(start, start + static_cast<std::ptrdiff_t>(length));
            EXPECT_EQ(kernels.crc32_reflected(seed, bytes.data() + alignment, length),
                      bitwise_crc32(seed, data));
        }
        for (size_t at = alignment; at + 64 <= bytes.size(); at += 16) {
            const auto page = static_cast<uint16_t>(random());
            const auto first = bytes.begin() + static_cast<std::ptrdiff_t>(at);
            std::vector<uint8_t> data(first, first + 64);
            data.push_back(static_cast<uint8_t>(page));
            data.push_back(static_cast<uint8_t>(page >> 8));
            EXPECT_EQ(kernels.crc16_page(bytes.data() + at, page), bitwise_crc16(0xFFFF, data));
        }
    }
}

TEST(Crc, PortableKernelsAgreeWithBitwise) {
    expect_kernels_agree_with_bitwise(dolm::portable_kernels);
}

TEST(Crc, CarryLessKernelsAgreeWithBitwise) {
    const dolm::crc_kernels *const kernels = dolm::carry_less_kernels();
    if (kernels == nullptr) {
        GTEST_SKIP() << "the processor has no carry-less multiplication";
    }
    expect_kernels_agree_with_bitwise(*kernels);
}

// Published values, and the start values for no data.
TEST(Crc, AfsChecksumsHaveTheirKnownValues) {
    const uint8_t zeros[2] = {};
    const uint8_t header[16] = {0x87, 0x78, 0x55, 0xAA, 1, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0};
    EXPECT_EQ(crc8("abc", 3), 0x34u);
    EXPECT_EQ(crc8(header, 16), 0xB1u);
    EXPECT_EQ(crc14("abc", 3), 0x3A71u);
    EXPECT_EQ(crc16("1234567", 7, "89"), 0x29B1u);
    for (const int32_t length : {0, -5}) {
        EXPECT_EQ(crc8("abc", length), 0x01u);
        EXPECT_EQ(crc14("abc", length), 0x3FFFu);
        EXPECT_EQ(crc16("abc", length, zeros), bitwise_crc16(0xFFFF, {0, 0}));
    }
}

} // namespace
