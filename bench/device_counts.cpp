#include "device_counts.h"

#include <benchmark/benchmark.h>

#include "AfsPhysicalWin32Spi.h"
#include "EFS_phy_win32.h"
#include "afs/ftl_format.h"
#include "common/crc.h"
#include "efs/efs_format.h"

using bench::device_counts;
using bench::DeviceCall;
using Kind = bench::DeviceCall::Kind;

namespace {

// Page slots move in whole ones. What is written is summed once; its read-back is compared.
bool afs_checks(Kind kind, uint32_t address, uint32_t length) {
    if (length % dolm::page_slot_size != 0) {
        return false;
    }
    const DeviceCall *const last =
        bench::recorded_calls->empty() ? nullptr : &bench::recorded_calls->back();
    return kind == Kind::afs_write || last == nullptr || last->kind != Kind::afs_write ||
           last->address != address || last->length != length;
}

bool efs_checks(Kind kind, uint32_t length) {
    return kind == Kind::efs_write && length == dolm::efs::data_area_size;
}

template <typename Make>
[[gnu::noinline]] uint32_t record(Kind kind, uint32_t address, uint32_t length, Make make) {
    const bool is_afs = kind == Kind::afs_read || kind == Kind::afs_write;
    const bool checked = (is_afs && afs_checks(kind, address, length)) || efs_checks(kind, length);
    bench::recorded_calls->push_back({kind, checked, address, length});
    return make();
}

// Makes a call, and puts it down if calls are recorded. That is kept out of line, so that a store
// that is measured pays for no more than the question.
template <typename Make>
uint32_t pass_on(Kind kind, uint32_t address, uint32_t length, Make make) {
    return bench::recorded_calls == nullptr ? make() : record(kind, address, length, make);
}

} // namespace

extern "C" {

uint32_t __real_SpiDrvRead(uint32_t address, uint32_t length, void *buffer);
uint32_t __wrap_SpiDrvRead(uint32_t address, uint32_t length, void *buffer) {
    return pass_on(Kind::afs_read, address, length,
                   [=] { return __real_SpiDrvRead(address, length, buffer); });
}

uint32_t __real_SpiDrvWrite(uint32_t address, uint32_t length, const void *buffer);
uint32_t __wrap_SpiDrvWrite(uint32_t address, uint32_t length, const void *buffer) {
    device_counts.bytes_programmed += length;
    return pass_on(Kind::afs_write, address, length,
                   [=] { return __real_SpiDrvWrite(address, length, buffer); });
}

uint32_t __real_SpiDrvEraseBlock(uint32_t address);
uint32_t __wrap_SpiDrvEraseBlock(uint32_t address) {
    ++device_counts.block_erases;
    return pass_on(Kind::afs_erase, address, 0, [=] { return __real_SpiDrvEraseBlock(address); });
}

uint32_t __real_EFS_physical_read(uint32_t address, uint32_t length, void *destination);
uint32_t __wrap_EFS_physical_read(uint32_t address, uint32_t length, void *destination) {
    return pass_on(Kind::efs_read, address, length,
                   [=] { return __real_EFS_physical_read(address, length, destination); });
}

uint32_t __real_EFS_physical_write(uint32_t address, uint32_t length, const void *source);
uint32_t __wrap_EFS_physical_write(uint32_t address, uint32_t length, const void *source) {
    device_counts.bytes_programmed += length;
    return pass_on(Kind::efs_write, address, length,
                   [=] { return __real_EFS_physical_write(address, length, source); });
}

uint32_t __real_EFS_physical_erase(uint32_t address, uint32_t length);
uint32_t __wrap_EFS_physical_erase(uint32_t address, uint32_t length) {
    device_counts.block_erases += length / 4096;
    return pass_on(Kind::efs_erase, address, length,
                   [=] { return __real_EFS_physical_erase(address, length); });
}

} // extern "C"

namespace {

constexpr uint32_t longest = 8192; // of all transfers

uint32_t take_checksum(const DeviceCall &call, const uint8_t *bytes) {
    if (call.kind == Kind::efs_write) {
        // The data area was summed once before it was changed.
        const uint32_t before = dolm::crc32_reflected(0, bytes, dolm::efs::data_area_size);
        return dolm::crc32_reflected(before, bytes, dolm::efs::data_area_size);
    }
    uint32_t sum = 0;
    for (uint32_t at = 0; at < call.length; at += dolm::page_slot_size) {
        sum ^= dolm::crc16_page(bytes + at, static_cast<uint16_t>(at));
    }
    return sum;
}

uint32_t make(const DeviceCall &call, uint8_t *bytes) {
    switch (call.kind) {
    case Kind::afs_read:
        return __real_SpiDrvRead(call.address, call.length, bytes);
    case Kind::afs_write:
        return __real_SpiDrvWrite(call.address, call.length, bytes);
    case Kind::afs_erase:
        return __real_SpiDrvEraseBlock(call.address);
    case Kind::efs_read:
        return __real_EFS_physical_read(call.address, call.length, bytes);
    case Kind::efs_write:
        return __real_EFS_physical_write(call.address, call.length, bytes);
    case Kind::efs_erase:
        return __real_EFS_physical_erase(call.address, call.length);
    }
    return 0;
}

} // namespace

void bench::replay(const DeviceCalls &calls) {
    static uint8_t bytes[longest];
    uint32_t result = 0;
    for (const DeviceCall &call : calls) {
        result |= make(call, bytes);
        if (call.checked) {
            result ^= take_checksum(call, bytes);
        }
    }
    benchmark::DoNotOptimize(result);
}
