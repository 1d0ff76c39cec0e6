// Checksums by carry-less multiplication, which is the multiplication of polynomials over bits: a
// word that stands d bits in front of the end of a message is worth word * (x^d mod P).
#include "common/crc.h"
#include "common/crc_kernels.h"

#if defined(__x86_64__)

#include <immintrin.h>

namespace dolm {

namespace {

#define DOLM_CARRY_LESS __attribute__((target("pclmul,ssse3")))

DOLM_CARRY_LESS __m128i load(const uint8_t *bytes) {
    return _mm_loadu_si128(reinterpret_cast<const __m128i *>(bytes));
}

DOLM_CARRY_LESS __m128i words(uint64_t high, uint64_t low) {
    return _mm_set_epi64x(static_cast<int64_t>(high), static_cast<int64_t>(low));
}

// Both words of `a`, each times its word of `b`.
DOLM_CARRY_LESS __m128i multiply_words(__m128i a, __m128i b) {
    return _mm_xor_si128(_mm_clmulepi64_si128(a, b, 0x11), _mm_clmulepi64_si128(a, b, 0x00));
}

// ---- CRC-16 of a page. The bit of the highest power is the first one of the message, so a word is
// big-endian.

constexpr uint64_t crc16_modulus = uint64_t{1} << 16 | crc16_ccitt_polynomial;

struct quotient_and_rest {
    uint64_t quotient;
    uint64_t rest;
};

// x^exponent by the modulus. The quotient is good for exponents below 80.
constexpr quotient_and_rest divide_power(unsigned exponent) {
    quotient_and_rest result{0, 1};
    for (; exponent > 0; --exponent) {
        result = {result.quotient << 1, result.rest << 1};
        if ((result.rest >> 16) != 0) {
            result = {result.quotient | 1, result.rest ^ crc16_modulus};
        }
    }
    return result;
}

// Variables, as the powers below: a call may be left to run time, which takes longer than what the
// multiplication saves.
template <unsigned exponent>
constexpr uint64_t crc16_power = divide_power(exponent).rest;

// The words at data and data + 8, which stand `distance` and `distance - 64` bits in front of the
// end. The bytes in `start` go into the first ones.
template <unsigned distance>
DOLM_CARRY_LESS __m128i page_words(const uint8_t *data, uint64_t start = 0) {
    const __m128i reversed = _mm_set_epi8(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15);
    const __m128i pair = _mm_xor_si128(_mm_shuffle_epi8(load(data), reversed), words(start, 0));
    return multiply_words(pair, words(crc16_power<distance>, crc16_power<distance - 64>));
}

// Behind the page come its number and the checksum itself, 16 bits each.
DOLM_CARRY_LESS uint16_t crc16_page(const uint8_t *data, uint16_t page) {
    constexpr uint64_t start = uint64_t{0xFFFF} << 48;
    const __m128i sum =
        _mm_xor_si128(_mm_xor_si128(page_words<480>(data, start), page_words<352>(data + 16)),
                      _mm_xor_si128(page_words<224>(data + 32), page_words<96>(data + 48)));
    // 80 bits are left, then 64, then the rest of a division by the modulus.
    const __m128i above = _mm_clmulepi64_si128(sum, words(0, crc16_power<64>), 0x01);
    const auto tail = static_cast<uint16_t>(page << 8 | page >> 8);
    const __m128i left = _mm_xor_si128(_mm_xor_si128(sum, above), words(0, uint64_t{tail} << 16));
    constexpr uint64_t quotient_of_64 = divide_power(64).quotient;
    const __m128i divisor = words(quotient_of_64, crc16_modulus);
    const __m128i quotient =
        _mm_srli_si128(_mm_clmulepi64_si128(_mm_srli_epi64(left, 16), divisor, 0x10), 6);
    const __m128i product = _mm_clmulepi64_si128(quotient, divisor, 0x00);
    return static_cast<uint16_t>(_mm_cvtsi128_si32(_mm_xor_si128(left, product)));
}

// ---- CRC-32. The bits are reflected: bit j of a word stands for x^(63 - j), bit j of a pair of
// words for x^(127 - j). The product of two words is a pair with one power less than that.

template <unsigned exponent>
constexpr uint64_t crc32_power = [] {
    uint64_t power = uint64_t{1} << 63;
    for (unsigned i = 0; i < exponent; ++i) {
        power >>= 1;
        if ((power >> 31 & 1) != 0) {
            power ^= uint64_t{1} << 31 ^ uint64_t { crc32_reflected_polynomial } << 32;
        }
    }
    return power;
}();

// Takes 16 bytes `distance` bits on, into those that stand there.
template <unsigned distance>
DOLM_CARRY_LESS __m128i fold(__m128i bytes, __m128i into) {
    const __m128i powers = words(crc32_power<distance - 1>, crc32_power<distance + 63>);
    return _mm_xor_si128(multiply_words(bytes, powers), into);
}

constexpr size_t row = 64; // bytes, in four lanes that do not wait for each other

DOLM_CARRY_LESS uint32_t crc32(uint32_t crc, const uint8_t *data, size_t length) {
    if (length < row) {
        return portable_kernels.crc32_reflected(crc, data, length);
    }
    __m128i lanes[4] = {_mm_xor_si128(load(data), words(0, crc)), load(data + 16), load(data + 32),
                        load(data + 48)};
    for (data += row, length -= row; length >= row; data += row, length -= row) {
        for (size_t i = 0; i < 4; ++i) {
            lanes[i] = fold<8 * row>(lanes[i], load(data + 16 * i));
        }
    }
    const __m128i last = fold<128>(fold<128>(fold<128>(lanes[0], lanes[1]), lanes[2]), lanes[3]);
    uint8_t bytes[16];
    _mm_storeu_si128(reinterpret_cast<__m128i *>(bytes), last);
    crc = portable_kernels.crc32_reflected(0, bytes, sizeof bytes);
    return portable_kernels.crc32_reflected(crc, data, length);
}

constexpr crc_kernels kernels{crc16_page, crc32};

} // namespace

const crc_kernels *carry_less_kernels() {
    __builtin_cpu_init();
    return __builtin_cpu_supports("pclmul") && __builtin_cpu_supports("ssse3") ? &kernels : nullptr;
}

} // namespace dolm

#else

const dolm::crc_kernels *dolm::carry_less_kernels() {
    return nullptr;
}

#endif
