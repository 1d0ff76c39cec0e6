#include "AfsFrameworkWin32.h"

#include <cstring>

namespace {

void *absolute_address(uint32_t a, uint32_t b) {
    // NOLINTNEXTLINE(performance-no-int-to-ptr): the arguments are an address
    return reinterpret_cast<void *>(static_cast<uintptr_t>(uint64_t{a} + b));
}

} // namespace

uint32_t mg_copyfrom(afs_context * /*context*/, uint32_t a, uint32_t b, void *buffer,
                     uint32_t /*reserved*/, uint32_t length) {
    if (buffer == nullptr) {
        return AFS_RC_INVALID;
    }
    std::memcpy(buffer, absolute_address(a, b), length);
    return AFS_RC_OK;
}

uint32_t mg_copyto(afs_context * /*context*/, uint32_t a, uint32_t b, const void *buffer,
                   uint32_t /*reserved*/, uint32_t length) {
    if (buffer == nullptr) {
        return AFS_RC_INVALID;
    }
    std::memcpy(absolute_address(a, b), buffer, length);
    return AFS_RC_OK;
}
