#include "common/crc.h"

#include <cstring>

#include "common/crc_kernels.h"

namespace dolm {

namespace {

constexpr size_t slices = 16;

template <typename T>
using slicing_tables = std::array<std::array<T, 256>, slices>;

template <typename T>
constexpr slicing_tables<T> make_tables_msb_first(T polynomial) {
    constexpr unsigned top_byte = sizeof(T) * 8 - 8;
    slicing_tables<T> tables{};
    tables[0] = crc_table_msb_first<T>(polynomial);
    for (size_t k = 1; k < slices; ++k) {
        for (size_t i = 0; i < 256; ++i) {
            const T reg = tables[k - 1][i];
            tables[k][i] = static_cast<T>(reg << 8 ^ tables[0][reg >> top_byte]);
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

constexpr slicing_tables<uint8_t> crc8_tables = make_tables_msb_first<uint8_t>(crc8_polynomial);
constexpr slicing_tables<uint16_t> crc16_tables =
    make_tables_msb_first<uint16_t>(crc16_ccitt_polynomial);
constexpr slicing_tables<uint32_t> crc32_tables = make_crc32_tables();

// Folding. The polynomial is P = x^16 + x^12 + x^5 + 1, and over bits a square only spreads the
// terms: x^16n + x^12n + x^5n + 1 is a multiple of P for every power of two n. So, with W = 4n and
// modulo P,
//
//     x^4W = x^3W + x^(5W/4) + 1
//
// and a word of W bits can go from the front of a message into those behind it: into the next one,
// into the one four behind, and shifted into the two between. Eight words, the first one in front,
// become the last four.
template <typename Word>
void fold_words(Word (&words)[8]) {
    constexpr unsigned width = sizeof(Word) * 8;
    for (size_t i = 0; i < 4; ++i) {
        words[i + 1] ^= words[i];
        words[i + 2] ^= words[i] >> (width - width / 4);
        words[i + 3] ^= words[i] << width / 4;
        words[i + 4] ^= words[i];
    }
}

constexpr uint32_t load_be32(const uint8_t *bytes) {
    return static_cast<uint32_t>(bytes[0]) << 24 | static_cast<uint32_t>(bytes[1]) << 16 |
           static_cast<uint32_t>(bytes[2]) << 8 | static_cast<uint32_t>(bytes[3]);
}

constexpr uint64_t load_be64(const uint8_t *bytes) {
    return static_cast<uint64_t>(load_be32(bytes)) << 32 | load_be32(bytes + 4);
}

// The register after 16 bytes, in words with the first byte in front, from a register of zero. A
// register of another value is XORed into the first two bytes beforehand.
uint16_t crc16_of_words(const uint32_t *words) {
    unsigned crc = 0;
    for (size_t i = 0; i < 4; ++i) {
        crc ^= crc16_tables[15 - 4 * i][words[i] >> 24] ^
               crc16_tables[14 - 4 * i][words[i] >> 16 & 0xFF] ^
               crc16_tables[13 - 4 * i][words[i] >> 8 & 0xFF] ^
               crc16_tables[12 - 4 * i][words[i] & 0xFF];
    }
    return static_cast<uint16_t>(crc);
}

constexpr size_t folded_block = 64; // bytes

uint16_t crc16_of_block(uint16_t crc, const uint8_t *data) {
    uint64_t words[8];
    for (size_t i = 0; i < 8; ++i) {
        words[i] = load_be64(data + 8 * i);
    }
    words[0] ^= static_cast<uint64_t>(crc) << 48;
    fold_words(words);
    uint32_t halves[8];
    for (size_t i = 0; i < 4; ++i) {
        halves[2 * i] = static_cast<uint32_t>(words[4 + i] >> 32);
        halves[2 * i + 1] = static_cast<uint32_t>(words[4 + i]);
    }
    fold_words(halves);
    return crc16_of_words(halves + 4);
}

// With n = 64 the terms lie whole words of 64 bits apart, x^1024 = x^768 + x^320 + 1, so that words
// go 4, 11 and 16 places on as they are, whatever the byte order of the host. The last 16 stay.
constexpr size_t window_words = 16;
constexpr size_t window_size = window_words * sizeof(uint64_t);

// The register after whole windows.
uint16_t crc16_of_windows(uint16_t crc, const uint8_t *data, size_t windows) {
    uint8_t bytes[window_size] = {static_cast<uint8_t>(crc >> 8), static_cast<uint8_t>(crc)};
    uint64_t words[window_words]; // each as it is when all before it have gone on
    uint64_t next[window_words];
    std::memcpy(words, bytes, window_size);
    for (; windows > 1; --windows, data += window_size) {
        std::memcpy(next, data, window_size);
        for (size_t i = 0; i < window_words; ++i) {
            words[i] ^= next[i] ^ words[(i + window_words - 4) % window_words] ^
                        words[(i + window_words - 11) % window_words];
        }
    }
    std::memcpy(next, data, window_size);
    for (size_t i = 0; i < window_words; ++i) {
        words[i] ^= next[i] ^ (i < 4 ? words[i + window_words - 4] : 0) ^
                    (i < 11 ? words[i + window_words - 11] : 0);
    }
    std::memcpy(bytes, words, window_size);
    return crc16_of_block(crc16_of_block(0, bytes), bytes + folded_block);
}

// The register after two more bytes.
uint16_t crc16_of_two(uint16_t crc, uint8_t first, uint8_t second) {
    return crc16_tables[1][crc >> 8 ^ first] ^ crc16_tables[0][(crc & 0xFF) ^ second];
}

uint16_t portable_crc16_page(const uint8_t *data, uint16_t page) {
    return crc16_of_two(crc16_of_block(0xFFFF, data), static_cast<uint8_t>(page),
                        static_cast<uint8_t>(page >> 8));
}

uint32_t portable_crc32(uint32_t crc, const uint8_t *data, size_t length) {
    for (; length >= slices; data += slices, length -= slices) {
        // The bytes that do not depend on the register come first.
        uint32_t rest = 0;
        for (size_t i = 4; i < slices; ++i) {
            rest ^= crc32_tables[slices - 1 - i][data[i]];
        }
        const uint32_t head = crc ^ load_le32(data);
        crc = rest ^ (crc32_tables[15][head & 0xFF] ^ crc32_tables[14][head >> 8 & 0xFF]) ^
              (crc32_tables[13][head >> 16 & 0xFF] ^ crc32_tables[12][head >> 24]);
    }
    for (; length >= 4; data += 4, length -= 4) {
        const uint32_t head = crc ^ load_le32(data);
        crc = crc32_tables[3][head & 0xFF] ^ crc32_tables[2][head >> 8 & 0xFF] ^
              crc32_tables[1][head >> 16 & 0xFF] ^ crc32_tables[0][head >> 24];
    }
    for (; length > 0; ++data, --length) {
        crc = crc >> 8 ^ crc32_tables[0][(crc ^ *data) & 0xFF];
    }
    return crc;
}

} // namespace

constinit const crc_kernels portable_kernels{portable_crc16_page, portable_crc32};
constinit crc_kernels kernels_in_use{portable_crc16_page, portable_crc32};

namespace {

[[maybe_unused]] const bool kernels_chosen = [] {
    const crc_kernels *const kernels = carry_less_kernels();
    if (kernels != nullptr) {
        kernels_in_use = *kernels;
    }
    return kernels != nullptr;
}();

} // namespace

uint8_t crc8_msb_first(uint8_t crc, const uint8_t *data, size_t length) {
    for (; length >= slices; data += slices, length -= slices) {
        unsigned next = crc8_tables[slices - 1][data[0] ^ crc];
        for (size_t i = 1; i < slices; ++i) {
            next ^= crc8_tables[slices - 1 - i][data[i]];
        }
        crc = static_cast<uint8_t>(next);
    }
    for (; length > 0; ++data, --length) {
        crc = crc8_tables[0][crc ^ *data];
    }
    return crc;
}

uint16_t crc16_ccitt(uint16_t crc, const uint8_t *data, size_t length) {
    if (length >= 2 * window_size) {
        const size_t windows = length / window_size;
        crc = crc16_of_windows(crc, data, windows);
        data += windows * window_size;
        length %= window_size;
    }
    for (; length >= folded_block; data += folded_block, length -= folded_block) {
        crc = crc16_of_block(crc, data);
    }
    for (; length >= slices; data += slices, length -= slices) {
        const uint32_t words[4] = {load_be32(data) ^ static_cast<uint32_t>(crc) << 16,
                                   load_be32(data + 4), load_be32(data + 8), load_be32(data + 12)};
        crc = crc16_of_words(words);
    }
    for (; length >= 2; data += 2, length -= 2) {
        crc = crc16_of_two(crc, data[0], data[1]);
    }
    if (length > 0) {
        crc = static_cast<uint16_t>(crc << 8 ^ crc16_tables[0][crc >> 8 ^ *data]);
    }
    return crc;
}

} // namespace dolm
