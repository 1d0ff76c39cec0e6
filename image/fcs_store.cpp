#include "image/fcs_store.h"

#include <algorithm>

namespace dolm {

FcsStore read_fcs_store(std::span<const uint8_t> bytes) {
    return read_fcs_store(bytes, bytes.size() < fcs::head_size ? 0 : get_le32(bytes, 0));
}

FcsStore read_fcs_store(std::span<const uint8_t> bytes, uint32_t count) {
    FcsStore store{bytes, count, {}};
    if (bytes.size() < fcs::head_size) {
        return store;
    }
    const size_t present =
        std::min<size_t>(count, (bytes.size() - fcs::head_size) / fcs::record_size);
    store.records.reserve(present);
    for (size_t i = 0; i < present; ++i) {
        const size_t at = fcs::head_size + i * fcs::record_size;
        store.records.push_back({.at = at,
                                 .number = get_le32(bytes, at),
                                 .offset = get_le32(bytes, at + fcs::record_offset_offset),
                                 .size = get_le16(bytes, at + fcs::record_size_offset),
                                 .opaque = get_le16(bytes, at + fcs::record_opaque_offset)});
    }
    return store;
}

} // namespace dolm
