// The page cache over a fake layer of pages that logs every read and write: which pages move when,
// in which order, and what stays after a failure.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <string>
#include <utility>

#include "Afs.h"
#include "AfsCache.h"
#include "AfsPhysical.h"

namespace {

constexpr uint32_t page_size = 64;
constexpr uint32_t failure = 5;

struct FakePages {
    std::map<uint32_t, uint8_t> first_bytes; // of each page that is not 0
    std::string log;                         // " r3 w7": pages read and written
    char fails = 0;                          // 'r' or 'w' for what fails

    uint32_t access(char kind, uint32_t va) {
        log += std::string(" ") + kind + std::to_string(va / page_size);
        return kind == fails ? failure : AFS_RC_OK;
    }
} fake;

uint32_t fake_read(afs_context *, uint32_t va, uint32_t length, void *buffer, uint32_t) {
    const uint32_t status = fake.access('r', va);
    if (status == AFS_RC_OK) {
        std::fill_n(static_cast<uint8_t *>(buffer), length, fake.first_bytes[va / page_size]);
    }
    return status;
}

uint32_t fake_write(afs_context *, uint32_t va, uint32_t, const void *data, uint32_t) {
    fake.first_bytes[va / page_size] = *static_cast<const uint8_t *>(data);
    return fake.access('w', va);
}

const afs_physical_ops fake_ops{fake_read, fake_write, nullptr, nullptr, nullptr};

class AfsCache : public testing::Test {
  protected:
    AfsCache() {
        fake = {};
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
    uint32_t get_status(uint16_t page) {
        void *line = nullptr;
        return cache_ptr(&context_, page, &line);
    }
    // What a flush writes.
    std::string flush() {
        fake.log.clear();
        EXPECT_EQ(cache_flush(&context_), AFS_RC_OK);
        return fake.log;
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

TEST_F(AfsCache, ReplacesTheLineUsedLongestAgo) {
    put(0, 77);
    get(1);
    put(2, 99);
    get(1); // from the middle
    get(3); // replaces 0
    get(2); // from the end
    get(2);
    *get(1) = 55; // not reported
    get(0);       // replaces 3
    get(4);       // replaces 2
    EXPECT_EQ(fake.log, " r0 r1 r2 w0 r3 r0 w2 r4");
    EXPECT_EQ(*get(0), 77);
    put(1, 5);
    cache_invalidate(&context_);
    EXPECT_EQ(flush(), "");
    EXPECT_EQ(*get(1), 0) << "an invalidated change is gone";
}

TEST_F(AfsCache, FailuresLeaveDirtyLinesDirty) {
    put(1, 11);
    put(2, 12);
    put(3, 13);
    fake.fails = 'w';
    EXPECT_EQ(get_status(4), failure);
    EXPECT_EQ(cache_flush(&context_), failure);
    fake.fails = 'r';
    EXPECT_EQ(get_status(4), failure);
    fake.fails = 0;
    EXPECT_EQ(*get(1), 11);
    EXPECT_EQ(flush(), " w3 w2 w1") << "the victims of both evictions went to the head";
}

TEST_F(AfsCache, InitReplacesAWholeCacheOnly) {
    EXPECT_EQ(cache_init(&context_, page_size, 0), AFS_RC_INVALID);
    EXPECT_EQ(cache_init(&context_, page_size, 0x1000), AFS_RC_INVALID);
    put(1, 11);
    fake.fails = 'w';
    EXPECT_EQ(cache_init(&context_, page_size, 4), failure);
    EXPECT_EQ(context_.cache_line_count, 3);
    fake.fails = 0;
    fake.log.clear();
    EXPECT_EQ(cache_init(&context_, page_size, 0xFFF), AFS_RC_OK);
    EXPECT_EQ(fake.log, " w1");
    get(1);
    uint8_t *const data = std::exchange(context_.cache_data, nullptr);
    EXPECT_EQ(cache_init(&context_, page_size, 4), AFS_RC_BAD_STATE);
    EXPECT_EQ(get_status(0), AFS_RC_INVALID);
    context_.cache_data = data;
    // A pointer outside the lines marks nothing.
    cache_line_written(&context_, data - 1);
    cache_line_written(&context_, data + 0xFFF * page_size);
    EXPECT_EQ(flush(), "");
}

} // namespace
