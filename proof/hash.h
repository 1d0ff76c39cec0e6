// A fast hash for telling states apart and for choices that look random and repeat.
#pragma once

#include <cstdint>
#include <cstring>
#include <span>
#include <string>

namespace dolm::proof {

inline constexpr uint64_t hash_start = 0x9E3779B97F4A7C15;

inline uint64_t mix(uint64_t hash, uint64_t value) {
    hash = (hash ^ value) * 0xFF51AFD7ED558CCD;
    return hash ^ hash >> 32;
}

inline uint64_t hash_bytes(uint64_t hash, std::span<const uint8_t> bytes) {
    size_t i = 0;
    for (; i + 8 <= bytes.size(); i += 8) {
        uint64_t word = 0;
        std::memcpy(&word, &bytes[i], 8);
        hash = mix(hash, word);
    }
    for (; i < bytes.size(); ++i) {
        hash = mix(hash, bytes[i]);
    }
    return hash;
}

inline uint64_t hash_text(const std::string &text) {
    return hash_bytes(hash_start, {reinterpret_cast<const uint8_t *>(text.data()), text.size()});
}

} // namespace dolm::proof
