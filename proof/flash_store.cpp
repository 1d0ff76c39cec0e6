#include "proof/flash_store.h"

#include <stdexcept>

namespace dolm::proof {
std::string Tear::name() const {
    return static_cast<char>(kind) + std::to_string(at);
}

void expect_done(uint32_t status, const std::string &what) {
    if (status != 0) {
        throw std::runtime_error(what + " gives " + std::to_string(status));
    }
}

void run_changes(FlashStore &store, Image &image, Files &files,
                 const std::vector<Change> &changes) {
    expect_done(store.mount(image), "the mount");
    for (const Change &change : changes) {
        expect_done(change.run(), change.name);
        if (change.effect) {
            change.effect(files);
        }
    }
    store.unmount();
}

std::vector<uint8_t> pattern(uint32_t seed, uint32_t length) {
    std::vector<uint8_t> bytes(length);
    uint32_t state = seed * 2654435761U + 12345;
    for (uint8_t &byte : bytes) {
        state = state * 1664525U + 1013904223U;
        byte = static_cast<uint8_t>(state >> 24);
    }
    return bytes;
}

} // namespace dolm::proof
