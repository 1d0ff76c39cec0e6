#include "device_counts.h"

#include "AfsPhysicalWin32Spi.h"
#include "EFS_phy_win32.h"

using bench::device_counts;

extern "C" {

uint32_t __real_SpiDrvWrite(uint32_t address, uint32_t length, const void *buffer);
uint32_t __wrap_SpiDrvWrite(uint32_t address, uint32_t length, const void *buffer) {
    device_counts.bytes_programmed += length;
    return __real_SpiDrvWrite(address, length, buffer);
}

uint32_t __real_SpiDrvEraseBlock(uint32_t address);
uint32_t __wrap_SpiDrvEraseBlock(uint32_t address) {
    ++device_counts.block_erases;
    return __real_SpiDrvEraseBlock(address);
}

uint32_t __real_EFS_physical_write(uint32_t address, uint32_t length, const void *source);
uint32_t __wrap_EFS_physical_write(uint32_t address, uint32_t length, const void *source) {
    device_counts.bytes_programmed += length;
    return __real_EFS_physical_write(address, length, source);
}

uint32_t __real_EFS_physical_erase(uint32_t address, uint32_t length);
uint32_t __wrap_EFS_physical_erase(uint32_t address, uint32_t length) {
    device_counts.block_erases += length / 4096;
    return __real_EFS_physical_erase(address, length);
}

} // extern "C"
