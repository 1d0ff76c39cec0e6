// What a cut leaves of a write or an erase.
#pragma once

#include "proof/flash_store.h"

namespace dolm::proof {

// Every tear of an event that is worth a look: up to or from each boundary inside it and one byte
// to either side, some of its bits, special values, and all of it. An event of which nothing landed
// is the whole one before it.
std::vector<Tear> tears_of(const FlashStore &store, const DeviceEvent &event);

// The image after a torn event.
Image torn(const FlashStore &store, const Image &before, const DeviceEvent &event,
           const Tear &tear);

// Lets a whole event land.
void apply(Image &image, const DeviceEvent &event);

} // namespace dolm::proof
