#include "proof/tears.h"

#include <algorithm>
#include <set>

#include "proof/hash.h"

namespace dolm::proof {
namespace {

constexpr uint32_t bit_variants = 3;

void apply_part(Image &image, const DeviceEvent &event, uint32_t from, uint32_t to) {
    for (uint32_t i = from; i < to; ++i) {
        image[event.address + i] =
            event.kind == DeviceEvent::Kind::erase ? uint8_t{0xFF} : event.bytes[i];
    }
}

void apply_some_bits(Image &image, const DeviceEvent &event, uint32_t variant) {
    uint64_t random = mix(mix(hash_start, event.address), variant);
    for (uint32_t i = 0; i < event.length; ++i) {
        random = mix(random, i);
        uint8_t &byte = image[event.address + i];
        byte = static_cast<uint8_t>(byte ^ ((byte ^ event.bytes[i]) & random >> 24));
    }
}

} // namespace

std::vector<Tear> tears_of(const FlashStore &store, const DeviceEvent &event) {
    std::set<uint32_t> cuts;
    for (const uint32_t boundary : store.boundaries(event)) {
        for (const uint32_t cut : {boundary - 1, boundary, boundary + 1}) {
            if (cut > 0 && cut < event.length) {
                cuts.insert(cut);
            }
        }
    }

    std::vector<Tear> result{{Tear::Kind::whole, 0}};
    for (const uint32_t cut : cuts) {
        result.push_back({Tear::Kind::prefix, cut});
    }
    if (event.kind == DeviceEvent::Kind::erase) {
        return result;
    }
    for (const uint32_t cut : cuts) {
        result.push_back({Tear::Kind::suffix, cut});
    }
    for (uint32_t i = 0; i < bit_variants; ++i) {
        result.push_back({Tear::Kind::bits, i});
    }
    for (uint32_t i = 0; i < store.torn_values(event).size(); ++i) {
        result.push_back({Tear::Kind::value, i});
    }
    return result;
}

Image torn(const FlashStore &store, const Image &before, const DeviceEvent &event,
           const Tear &tear) {
    Image image = before;
    switch (tear.kind) {
    case Tear::Kind::whole:
        apply(image, event);
        break;
    case Tear::Kind::prefix:
        apply_part(image, event, 0, tear.at);
        break;
    case Tear::Kind::suffix:
        apply_part(image, event, tear.at, event.length);
        break;
    case Tear::Kind::bits:
        apply_some_bits(image, event, tear.at);
        break;
    case Tear::Kind::value: {
        const std::vector<uint8_t> value = store.torn_values(event)[tear.at];
        std::copy(value.begin(), value.end(), image.begin() + event.address);
        break;
    }
    }
    return image;
}

void apply(Image &image, const DeviceEvent &event) {
    apply_part(image, event, 0, event.length);
}

} // namespace dolm::proof
