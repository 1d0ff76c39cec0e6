// The double in place of the shared library's device functions: the library calls them by their
// exported names, which the loader finds in the program first. As long as nothing is attached to
// the double, each call goes on to the library's own function as if nothing stood between.
#include <dlfcn.h>

#include <cstdlib>

#include "AfsPhysicalWin32Spi.h"
#include "EFS_phy_win32.h"
#include "proof/device_calls.h"

using namespace dolm::proof;

namespace {

// The next function of that name in the order of loading, which is the library's.
template <typename Function>
Function *next(const char *name) {
    void *found = dlsym(RTLD_NEXT, name);
    if (found == nullptr) {
        std::abort(); // the program is linked to a library without devices
    }
    return reinterpret_cast<Function *>(found);
}

} // namespace

uint32_t SpiDrvRead(uint32_t address, uint32_t length, void *buffer) {
    static auto *const real = next<decltype(SpiDrvRead)>("SpiDrvRead");
    return on_read(Device::afs, address, length, buffer, real);
}

uint32_t SpiDrvWrite(uint32_t address, uint32_t length, const void *buffer) {
    static auto *const real = next<decltype(SpiDrvWrite)>("SpiDrvWrite");
    return on_write(Device::afs, address, length, buffer, real);
}

uint32_t SpiDrvEraseBlock(uint32_t address) {
    static auto *const real = next<decltype(SpiDrvEraseBlock)>("SpiDrvEraseBlock");
    return on_afs_erase(address, real);
}

uint32_t EFS_physical_read(uint32_t address, uint32_t length, void *destination) {
    static auto *const real = next<decltype(EFS_physical_read)>("EFS_physical_read");
    return on_read(Device::efs, address, length, destination, real);
}

uint32_t EFS_physical_write(uint32_t address, uint32_t length, const void *source) {
    static auto *const real = next<decltype(EFS_physical_write)>("EFS_physical_write");
    return on_write(Device::efs, address, length, source, real);
}

uint32_t EFS_physical_erase(uint32_t address, uint32_t length) {
    static auto *const real = next<decltype(EFS_physical_erase)>("EFS_physical_erase");
    return on_efs_erase(address, length, real);
}
