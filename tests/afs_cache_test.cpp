// The page cache over a fake layer of pages that logs every write: the order in which a flush
// writes.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "Afs.h"
#include "AfsCache.h"
#include "AfsPhysical.h"

namespace {

constexpr uint32_t page_size = 64;
std::string written; // " w7": pages written

uint32_t fake_read(afs_context *, uint32_t, uint32_t length, void *buffer, uint32_t) {
    std::fill_n(static_cast<uint8_t *>(buffer), length, uint8_t{0});
    return AFS_RC_OK;
}

uint32_t fake_write(afs_context *, uint32_t va, uint32_t, const void *, uint32_t) {
    written += " w" + std::to_string(va / page_size);
    return AFS_RC_OK;
}

const afs_physical_ops fake_ops{fake_read, fake_write, nullptr, nullptr, nullptr};

class AfsCache : public testing::Test {
  protected:
    AfsCache() {
        context_.ops = &fake_ops;
        context_.page_size = page_size;
        EXPECT_EQ(cache_init(&context_, page_size, 3), AFS_RC_OK);
    }
    ~AfsCache() override { afs_free_context(&context_); }

    // The first byte of a page, through the cache.
    uint8_t *get(uint16_t page) {
        void *line = nullptr;
        EXPECT_EQ(cache_ptr(&context_, page, &line), AFS_RC_OK);
        return static_cast<uint8_t *>(line);
    }
    void put(uint16_t page, uint8_t value) {
        uint8_t *line = get(page);
        line[0] = value;
        cache_line_written(&context_, line + page_size - 1); // anywhere in the line
    }
    // What a flush writes.
    std::string flush() {
        written.clear();
        EXPECT_EQ(cache_flush(&context_), AFS_RC_OK);
        return written;
    }

    afs_context context_{};
};

TEST_F(AfsCache, FlushOrderIsTheOrderOfLastTouches) {
    put(1, 11);
    put(2, 12);
    put(3, 13);
    put(1, 14);
    uint8_t *const two = get(2);
    get(3);
    cache_line_written(&context_, two); // reported after page 3 was fetched
    EXPECT_EQ(flush(), " w1 w3 w2");
    EXPECT_EQ(get(2), two) << "a flushed line stays valid and in place";
    EXPECT_EQ(flush(), "");
}

} // namespace
