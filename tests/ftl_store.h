// A translation layer of AFS with the device double under it.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <numeric>
#include <string>
#include <vector>

#include "AfsFtl.h"
#include "afs/ftl_access.h"
#include "proof/device.h"

namespace dolm_test {

using namespace dolm::proof;

using Bytes = std::vector<uint8_t>;
using Page = std::array<uint8_t, AFS_PAGE_SIZE>;

inline constexpr uint32_t file_count = 1024;

// 3 log EUs (0 to 2), 4 data EUs (3 to 6), the spare (7).
inline constexpr uint32_t eus = 8;
inline constexpr uint32_t data_eus = 4;
inline constexpr uint32_t first_data_eu = 3;
inline constexpr uint32_t spare = 7;

inline Page make_page(uint32_t seed) {
    Page page;
    std::iota(page.begin(), page.end(), static_cast<uint8_t>(seed * 7 + 1));
    return page;
}

// An empty store, formatted and mounted, on an image of its own with the device double attached.
class FtlStore {
  public:
    explicit FtlStore(uint32_t missing_chunks = 0) : image_(eus * AFS_EU_SIZE, 0xFF) {
        const uint32_t chunks = data_eus * AFS_DATA_EU_PAGES - missing_chunks;
        context_.chunk_count = static_cast<uint16_t>(chunks);
        context_.file_count = file_count;
        context_.data_va_start = (14 + 2 * (chunks + file_count) + 63) / 64 * 64;
        context_.total_va_size = context_.data_va_start + data_eus * AFS_DATA_EU_BYTES;
        context_.device_size = static_cast<uint32_t>(image_.size());
        chunk_map_.resize(chunks / 32 + 1);
        context_.chunk_map = chunk_map_.data();
        context_.image = image_.data();
        EXPECT_EQ(mount_ftl(), AFS_RC_IO);
        EXPECT_EQ(afs_physical_ftl_format(&context_, 1), AFS_RC_OK);
        EXPECT_EQ(mount(), AFS_RC_OK);
    }
    ~FtlStore() {
        dolm::release_ftl_state(&context_);
        DeviceDouble::instance().detach();
    }
    FtlStore(const FtlStore &) = delete;
    FtlStore &operator=(const FtlStore &) = delete;

    // As a fresh process would.
    uint32_t mount() {
        const uint32_t rc = mount_ftl();
        return rc != AFS_RC_OK ? rc : afs_physical_ftl_set_allocation_map(&context_);
    }
    uint32_t mount_ftl() {
        attach();
        return afs_physical_ftl_init(&context_, context_.device_size,
                                     AFS_FTL_ALLOCATE_TABLES | AFS_FLAG_ATTACH_DEVICE);
    }
    void attach() { DeviceDouble::instance().attach(image_); }

    afs_context *context() { return &context_; }
    afs_ftl_state &ftl() { return *context_.ftl; }
    afs_eu_info &row(uint32_t eu) { return ftl().eu_table[eu]; }
    Bytes &image() { return image_; }
    uint8_t *at(uint32_t eu, uint32_t offset = 0) { return &image_[eu * AFS_EU_SIZE + offset]; }
    uint32_t chunk_va(uint32_t chunk) { return context_.data_va_start + chunk * AFS_PAGE_SIZE; }

    uint32_t write(uint32_t va, uint32_t seed) {
        return afs_physical_ftl_write_page(&context_, va, 0, make_page(seed).data(), 0);
    }
    uint32_t write_log(uint32_t page, uint32_t seed) { return write(page * AFS_PAGE_SIZE, seed); }
    uint32_t trim(uint32_t va) { return afs_physical_ftl_trim_page(&context_, va, 0, 0); }
    void fill_data_eu(uint32_t index) {
        for (uint32_t i = 0; i < AFS_DATA_EU_PAGES; ++i) {
            ASSERT_EQ(write(chunk_va(index * AFS_DATA_EU_PAGES + i), i), AFS_RC_OK);
        }
    }
    // What a read gives; a page of 0xEE if it fails.
    Page read(uint32_t va) {
        Page page;
        if (afs_physical_ftl_read_page(&context_, va, 0, page.data(), 0) != AFS_RC_OK) {
            page.fill(0xEE);
        }
        return page;
    }
    bool holds(uint32_t va, uint32_t seed) { return read(va) == make_page(seed); }
    bool is_zero(uint32_t va) { return read(va) == Page{}; }

    // Writes and erases since the attach: "w3:18+2" writes 2 bytes at offset 18 of EU 3, "e3:0"
    // erases the block there.
    static std::string events() {
        std::string text;
        for (const DeviceEvent &event : DeviceDouble::instance().log()) {
            const bool is_write = event.kind == DeviceEvent::Kind::write;
            text += (is_write ? " w" : " e") + std::to_string(event.address / AFS_EU_SIZE) + ':' +
                    std::to_string(event.address % AFS_EU_SIZE) +
                    (is_write ? '+' + std::to_string(event.length) : "");
        }
        return text;
    }

  private:
    Bytes image_;
    std::vector<uint32_t> chunk_map_;
    afs_context context_{};
};

} // namespace dolm_test
