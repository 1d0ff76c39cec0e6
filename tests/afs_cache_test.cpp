// The page cache over a fake layer of pages that logs every read and write: which pages move when,
// in which order, and what stays after a failure.
#include <gtest/gtest.h>

#include <algorithm>
#include <list>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "Afs.h"
#include "AfsCache.h"
#include "AfsPhysical.h"

namespace {

constexpr uint32_t page_size = 64;
constexpr uint32_t failure = 5;

struct FakePages {
    std::map<uint32_t, uint8_t> pages; // first byte of each page that is not 0
    std::string log;                   // "r3 w7 ": pages read and written
    std::string fails;                 // 'r' or 'w' for what fails

    uint32_t access(char kind, uint32_t va) {
        if (fails.find(kind) != std::string::npos) {
            return failure;
        }
        log += kind + std::to_string(va / page_size) + ' ';
        return AFS_RC_OK;
    }
} fake;

uint32_t fake_read(afs_context *, uint32_t va, uint32_t length, void *buffer, uint32_t) {
    const uint32_t status = fake.access('r', va);
    if (status == AFS_RC_OK) {
        std::fill_n(static_cast<uint8_t *>(buffer), length, fake.pages[va / page_size]);
    }
    return status;
}

uint32_t fake_write(afs_context *, uint32_t va, uint32_t, const void *data, uint32_t) {
    const uint32_t status = fake.access('w', va);
    if (status == AFS_RC_OK) {
        fake.pages[va / page_size] = *static_cast<const uint8_t *>(data);
    }
    return status;
}

const afs_physical_ops fake_ops{fake_read, fake_write, nullptr, nullptr, nullptr};

class AfsCache : public testing::Test {
  protected:
    AfsCache() {
        fake = {};
        context_.ops = &fake_ops;
        context_.page_size = page_size;
    }
    ~AfsCache() override { afs_free_context(&context_); }

    void set_up(uint16_t lines) { ASSERT_EQ(cache_init(&context_, page_size, lines), AFS_RC_OK); }

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

    std::string take_log() { return std::exchange(fake.log, {}); }

    afs_context context_{};
};

TEST_F(AfsCache, FlushOrderIsTheOrderOfLastTouches) {
    set_up(10);
    put(1, 11);
    put(2, 12);
    put(3, 13);
    put(1, 14);
    uint8_t *two = get(2);
    uint8_t *three = get(3);
    cache_line_written(&context_, two); // reported after page 3 was fetched
    *get(4) = 99;                       // never reported
    take_log();
    EXPECT_EQ(cache_flush(&context_), AFS_RC_OK);
    EXPECT_EQ(take_log(), "w1 w3 w2 ");
    EXPECT_EQ(cache_flush(&context_), AFS_RC_OK);
    EXPECT_EQ(take_log(), "");
    EXPECT_EQ(*three, 13);
    EXPECT_EQ(get(2), two) << "a flushed line stays valid and in place";
    EXPECT_EQ(fake.pages[4], 0);
}

TEST_F(AfsCache, EvictsTheLeastRecentlyUsedAndBringsItBack) {
    set_up(10);
    put(0, 77);
    for (uint16_t page = 1; page < 10; ++page) {
        get(page);
    }
    get(1);
    take_log();
    get(10);
    EXPECT_EQ(take_log(), "w0 r10 ");
    EXPECT_EQ(*get(0), 77);
    EXPECT_EQ(take_log(), "r0 ") << "replaced page 2, which was clean";
    get(1);
    EXPECT_EQ(take_log(), "");
    cache_invalidate(&context_);
    put(1, 5);
    cache_invalidate(&context_);
    EXPECT_EQ(*get(1), 0) << "an invalidated change is gone";
    EXPECT_EQ(cache_flush(&context_), AFS_RC_OK);
    EXPECT_EQ(take_log(), "r1 r1 ");
}

TEST_F(AfsCache, FailuresLeaveDirtyLinesDirty) {
    set_up(2);
    put(1, 11);
    put(2, 12);
    void *line = nullptr;
    fake.fails = "w";
    EXPECT_EQ(cache_ptr(&context_, 3, &line), failure);
    EXPECT_EQ(cache_flush(&context_), failure);
    fake.fails = "";
    take_log();
    EXPECT_EQ(cache_flush(&context_), AFS_RC_OK);
    EXPECT_EQ(take_log(), "w2 w1 ") << "the victim of the failed eviction is the newest line";

    put(1, 13);
    get(2);
    fake.fails = "r";
    EXPECT_EQ(cache_ptr(&context_, 3, &line), failure);
    fake.fails = "";
    take_log();
    EXPECT_EQ(*get(1), 13);
    EXPECT_EQ(cache_flush(&context_), AFS_RC_OK);
    EXPECT_EQ(take_log(), "w1 ") << "written back before the failed read, and still dirty";
}

TEST_F(AfsCache, InitReplacesAWholeCacheOnly) {
    EXPECT_EQ(cache_init(nullptr, page_size, 10), AFS_RC_INVALID);
    EXPECT_EQ(cache_init(&context_, page_size, 0), AFS_RC_INVALID);
    EXPECT_EQ(cache_init(&context_, page_size, 0x1000), AFS_RC_INVALID);
    void *line = nullptr;
    EXPECT_EQ(cache_ptr(&context_, 0, &line), AFS_RC_INVALID);
    EXPECT_EQ(cache_flush(&context_), AFS_RC_INVALID);
    set_up(0xFFF);
    set_up(3);
    EXPECT_EQ(cache_ptr(&context_, 0, nullptr), AFS_RC_INVALID);
    put(1, 11);
    fake.fails = "w";
    EXPECT_EQ(cache_init(&context_, page_size, 4), failure);
    EXPECT_EQ(context_.cache_line_count, 3);
    fake.fails = "";
    take_log();
    set_up(4);
    EXPECT_EQ(take_log(), "w1 ");
    uint8_t *const data = std::exchange(context_.cache_data, nullptr);
    EXPECT_EQ(cache_init(&context_, page_size, 4), AFS_RC_BAD_STATE);
    context_.cache_data = data;
    // A pointer outside the lines marks nothing.
    get(1);
    cache_line_written(&context_, data - 1);
    cache_line_written(&context_, data + 4 * page_size);
    cache_line_written(&context_, nullptr);
    take_log();
    EXPECT_EQ(cache_flush(&context_), AFS_RC_OK);
    EXPECT_EQ(take_log(), "");
}

// The same operations on a plain list of lines, most recently used first.
struct Model {
    struct Line {
        int page = -1; // -1: invalid
        bool dirty = false;
    };
    std::list<Line> lines;
    std::string log;

    void touch(int page, bool written) {
        auto line = std::find_if(lines.begin(), lines.end(),
                                 [page](const Line &candidate) { return candidate.page == page; });
        if (line == lines.end()) {
            --line;
            if (line->dirty) {
                log += 'w' + std::to_string(line->page) + ' ';
            }
            log += 'r' + std::to_string(page) + ' ';
            *line = {page, false};
        }
        line->dirty |= written;
        lines.splice(lines.begin(), lines, line);
    }
    void flush() {
        for (auto line = lines.rbegin(); line != lines.rend(); ++line) {
            if (std::exchange(line->dirty, false)) {
                log += 'w' + std::to_string(line->page) + ' ';
            }
        }
    }
};

TEST_F(AfsCache, RandomRunAgreesWithAModel) {
    const uint32_t seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    for (const uint32_t lines : {2, 3, 10}) {
        set_up(static_cast<uint16_t>(lines));
        take_log();
        Model model;
        model.lines.resize(lines);
        std::map<uint16_t, uint8_t> expected = {fake.pages.begin(), fake.pages.end()};
        for (int step = 0; step < 3000; ++step) {
            const auto page = static_cast<uint16_t>(random() % (lines * 2));
            const auto value = static_cast<uint8_t>(random());
            const bool written = random() % 2 == 0;
            if (random() % 16 == 0) {
                ASSERT_EQ(cache_flush(&context_), AFS_RC_OK);
                model.flush();
            }
            ASSERT_EQ(*get(page), expected[page]);
            if (written) {
                put(page, value);
                expected[page] = value;
            }
            model.touch(page, written);
            ASSERT_EQ(take_log(), std::exchange(model.log, {})) << "step " << step;
        }
    }
}

} // namespace
