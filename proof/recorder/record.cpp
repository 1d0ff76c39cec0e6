#include "record.h"

#include <cinttypes>
#include <cstring>

namespace recorder {

Record *record = nullptr;
std::FILE *out = nullptr;

static uint64_t mix(uint64_t digest, uint64_t value) {
    digest = (digest ^ value) * 0xD6E8FEB86659FD93U;
    return digest ^ (digest >> 32);
}

uint64_t digest_of(std::span<const uint8_t> bytes) {
    uint64_t lanes[4] = {bytes.size(), 1, 2, 3};
    size_t at = 0;
    for (; at + sizeof lanes <= bytes.size(); at += sizeof lanes) {
        uint64_t words[4];
        std::memcpy(words, bytes.data() + at, sizeof words);
        for (size_t i = 0; i < 4; ++i) {
            lanes[i] = mix(lanes[i], words[i]);
        }
    }
    for (; at < bytes.size(); ++at) {
        lanes[0] = mix(lanes[0], bytes[at]);
    }
    return mix(mix(mix(lanes[0], lanes[1]), lanes[2]), lanes[3]);
}

void Record::fold(Column column, uint64_t value) {
    uint64_t &digest = digests_.column[static_cast<size_t>(column)];
    digest = mix(digest, value);
}

void Record::operation(const char *name, std::initializer_list<Named> arguments) {
    ++digests_.operation;
    if (prints()) {
        std::fprintf(out, "operation %" PRIu64 " %s", number(), name);
        for (const Named &argument : arguments) {
            std::fprintf(out, " %s %" PRIu64, argument.name, argument.value);
        }
        std::fprintf(out, "\n");
    }
}

void Record::value(Column column, const char *name, uint64_t value) {
    fold(column, value);
    if (prints()) {
        std::fprintf(out, "  %s %s %" PRIu64 "\n", column_names[static_cast<size_t>(column)], name,
                     value);
    }
}

void Record::print_bytes(std::span<const uint8_t> bytes, uint64_t digest) {
    std::fprintf(out, " %zu bytes, digest %016" PRIx64, bytes.size(), digest);
    for (size_t i = 0; bytes.size() <= 128 && i < bytes.size(); ++i) {
        std::fprintf(out, i == 0 ? ": %02x" : " %02x", bytes[i]);
    }
    std::fprintf(out, "\n");
}

void Record::bytes(Column column, const char *name, std::span<const uint8_t> bytes) {
    const uint64_t digest = digest_of(bytes);
    fold(column, digest);
    if (prints()) {
        std::fprintf(out, "  %s %s", column_names[static_cast<size_t>(column)], name);
        print_bytes(bytes, digest);
    }
}

void Record::text(Column column, const char *name, const char *text) {
    fold(column, digest_of({reinterpret_cast<const uint8_t *>(text), std::strlen(text)}));
    if (prints()) {
        std::fprintf(out, "  %s %s \"%s\"\n", column_names[static_cast<size_t>(column)], name,
                     text);
    }
}

void Record::access(const char *store, const char *kind, uint32_t address,
                    std::span<const uint8_t> bytes, uint32_t length) {
    const uint64_t digest = digest_of(bytes);
    for (const uint64_t part :
         {uint64_t{static_cast<uint8_t>(store[0])}, uint64_t{static_cast<uint8_t>(kind[0])},
          uint64_t{address}, uint64_t{length}, digest}) {
        fold(Column::traffic, part);
    }
    if (prints()) {
        std::fprintf(out, "  traffic %s %s 0x%X+%u:", store, kind, address, length);
        print_bytes(bytes, digest);
    }
}

} // namespace recorder
