// AFS from the mount to the file operations: which images and arguments are refused, what a failed
// write leaves, and a random run against a plain model.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <functional>
#include <map>
#include <random>
#include <tuple>

#include "Afs.h"
#include "AfsPhysical.h"
#include "afs/fat_access.h"
#include "proof/afs_store.h"

using namespace dolm;
using namespace dolm::proof;

namespace {

constexpr uint32_t device_size = 8 * AFS_EU_SIZE;
constexpr uint32_t file_count = 100;
constexpr uint32_t chunk_count = 4 * AFS_DATA_EU_PAGES;
constexpr uint32_t mount_flags = AFS_FLAG_ATTACH_DEVICE | AFS_FLAG_MOUNT_FTL | AFS_FLAG_FTL;

// A store on an image of its own.
struct Store : AfsStore {
    explicit Store(Image start = format_afs_image({device_size, 4, file_count}))
        : image(std::move(start)) {
        EXPECT_EQ(remount(), AFS_RC_OK);
    }
    uint32_t remount() { return mount(image); }

    uint16_t entry(uint16_t cid) {
        uint16_t value = 0;
        EXPECT_EQ(next_cid(context(), cid, value), AFS_RC_OK);
        return value;
    }
    // Puts damage straight into the metadata.
    void poke(uint32_t va, uint16_t value) {
        uint8_t *bytes = nullptr;
        ASSERT_EQ(cached_bytes(context(), va, bytes), AFS_RC_OK);
        store_le16(bytes, value);
        cache_line_written(context(), bytes);
        ASSERT_EQ(cache_flush(context()), AFS_RC_OK);
    }
    Image image;
};

size_t chunks_of(const Files &files) {
    size_t chunks = 0;
    for (const auto &[number, contents] : files) {
        chunks += (contents.size() + 63) / 64;
    }
    return chunks;
}

TEST(AfsMount, RefusesWhatItCannotUse) {
    struct Arguments {
        uint32_t page_size = 64, lines = 10, files = 1024, size = device_size, flags = mount_flags;
    };
    const Arguments invalid[] = {{.page_size = 96},
                                 {.lines = 1},
                                 {.lines = 1001},
                                 {.files = 64},
                                 {.files = 2049},
                                 {.size = 32767},
                                 {.size = 2097153},
                                 {.flags = mount_flags | 0x2},
                                 {.flags = mount_flags & ~AFS_FLAG_FTL},
                                 {.flags = AFS_FLAG_FTL}};
    const Arguments nothing_there[] = {
        {.lines = 2, .files = 65, .flags = mount_flags | AFS_FLAG_CREATE_FS},
        {.lines = 1000, .files = 2048, .flags = mount_flags | AFS_FLAG_FORCE_FORMAT}};
    Image image(device_size, 0xFF);
    afs_context context{};
    const auto init = [&](const Arguments &with) {
        return afs_init(&context, image.data(), with.page_size, with.lines, with.files, 0,
                        with.size, with.flags, 0x12, 0x345);
    };
    for (const Arguments &arguments : invalid) {
        EXPECT_EQ(init(arguments), AFS_RC_INVALID) << "case " << &arguments - invalid;
    }
    for (const Arguments &arguments : nothing_there) {
        EXPECT_EQ(init(arguments), AFS_RC_IO) << "case " << &arguments - nothing_there;
    }
    EXPECT_EQ(image, Image(device_size, 0xFF));

    // Nothing is formatted or created unless a flag says so.
    const auto mount = [&](uint32_t flags) { return init({.flags = mount_flags | flags}); };
    EXPECT_EQ(mount(AFS_FLAG_ERASE_ON_FORMAT), AFS_RC_IO) << "formatted, but without a header";
    const Image formatted = image;
    EXPECT_EQ(mount(0), AFS_RC_IO);
    EXPECT_EQ(image, formatted);
    EXPECT_EQ(mount(AFS_FLAG_CREATE_FS), AFS_RC_OK);
    EXPECT_EQ(afs_writefile(&context, 3, 0, 0, nullptr, 0), AFS_RC_OK);
    EXPECT_EQ(mount(0), AFS_RC_OK);
    EXPECT_EQ(context.fs_version, 0x34512u);
    EXPECT_EQ(context.file_count, 1024);
    EXPECT_EQ(afs_writefile(&context, 3, 0, 4, "four", 0), AFS_RC_NO_SPACE) << "there is no EU";
    EXPECT_EQ(mount(AFS_FLAG_FORCE_FORMAT | AFS_FLAG_ERASE_ON_FORMAT), AFS_RC_OK);
    EXPECT_EQ(afs_deletefile(&context, 3), AFS_RC_NO_FILE);
    afs_free_context(&context);
}

TEST(AfsMount, RefusesHeadersThatNoStoreCanHave) {
    // The first two describe the same data area, once with a file count that is just possible.
    const std::tuple<uint32_t, uint16_t, uint32_t> headers[] = {
        {33540, 65, AFS_RC_OK}, {33538, 64, AFS_RC_IO},     {213, 100, AFS_RC_IO},
        {230, 100, AFS_RC_IO},  {4194305, 1024, AFS_RC_IO}, {200000, 65000, AFS_RC_IO}};
    for (const auto &[total_va_size, files, status] : headers) {
        Store store;
        store.poke(8, static_cast<uint16_t>(total_va_size));
        store.poke(10, static_cast<uint16_t>(total_va_size >> 16));
        store.poke(12, files);
        EXPECT_EQ(store.remount(), status) << total_va_size << ", " << files;
        EXPECT_EQ(store.write(0, 0, {}).run(), status == AFS_RC_OK ? AFS_RC_OK : AFS_RC_INVALID);
    }
}

TEST(AfsMount, JudgesEveryFatValue) {
    Store source;
    ASSERT_EQ(source.write(5, 0, pattern(1, 100)).run(), AFS_RC_OK);
    const uint16_t first = source.entry(5);
    const uint16_t last = source.entry(first);
    EXPECT_EQ(source.entry(last), 36);
    constexpr int bad = -2;
    constexpr int none = -1;
    constexpr uint16_t past_chunks = file_count + chunk_count;
    const uint16_t unwritten = past_chunks - 1;
    const std::map<uint16_t, int> in_slot = {
        {0, none},          {1, bad},      {file_count - 1, bad}, {last, 36},
        {past_chunks, bad}, {0xFFFD, bad}, {fat_zombie, none},    {fat_empty_file, 0}};
    const std::map<uint16_t, int> in_chain = {
        {0, 64},      {64, 128},        {65, bad},          {file_count - 1, bad},
        {first, bad}, {unwritten, bad}, {past_chunks, bad}, {fat_zombie, bad}};
    for (const auto &[cid, sizes] : {std::pair(uint16_t{5}, in_slot), std::pair(last, in_chain)}) {
        for (const auto &[value, size] : sizes) {
            SCOPED_TRACE(testing::Message() << cid << " holds " << value);
            Store store(source.image);
            store.poke(fat_va(cid), value);
            ASSERT_EQ(store.remount(), size == bad ? AFS_RC_IO : AFS_RC_OK);
            if (size != bad) {
                const Files files = store.read_files();
                EXPECT_EQ(files.empty() ? none : static_cast<int>(files.at(5).size()), size);
            }
        }
    }
    // A loop met by an operation on a mounted store: it fails and changes nothing.
    ASSERT_EQ(source.remount(), AFS_RC_OK); // the library knows one device at a time
    source.poke(fat_va(last), last);
    uint32_t length = 40000; // more than all chunks together hold
    std::vector<uint8_t> buffer(length);
    EXPECT_EQ(afs_readfile(source.context(), 5, 0, &length, buffer.data()), AFS_RC_IO);
    EXPECT_EQ(length, 40000u);
    EXPECT_EQ(source.write(5, 40000, {1}).run(), AFS_RC_IO);
    afs_free_file_size_table(source.context());
    EXPECT_EQ(afs_getfilesize(source.context(), 5, &length), AFS_RC_IO);
    EXPECT_EQ(source.entry(5), first);
}

TEST(AfsFiles, RefusesContextsFilesAndArguments) {
    int32_t file = 0;
    uint32_t length = 1;
    uint16_t cid = 0;
    uint8_t byte = 0;
    using Context = afs_context *;
    const std::function<uint32_t(Context)> operations[] = {
        [&](Context c) { return afs_writefile(c, file, 0, 1, &byte, 0); },
        [&](Context c) { return afs_deletefile(c, file); },
        [&](Context c) { return afs_mark_zombie_file(c, static_cast<uint32_t>(file)); },
        [&](Context c) { return afs_allocate_chunk(c, &cid); },
        [&](Context c) { return afs_release_resources(c, 200, 1, nullptr, true); },
        afs_force_full_reclaim};
    Store store;
    afs_context no_chunk_map{};
    const uint32_t flags = mount_flags | AFS_FLAG_NO_CHUNK_MAP | AFS_FLAG_PRELOAD_CACHE;
    ASSERT_EQ(
        afs_init(&no_chunk_map, store.image.data(), 64, 10, 1024, 0, device_size, flags, 0, 0),
        AFS_RC_OK);
    afs_context unmounted{};
    for (const auto &operation : operations) {
        SCOPED_TRACE(&operation - operations);
        EXPECT_EQ(operation(nullptr), AFS_RC_INVALID);
        EXPECT_EQ(operation(&unmounted), AFS_RC_INVALID);
        EXPECT_EQ(operation(&no_chunk_map), AFS_RC_BAD_STATE);
    }
    EXPECT_EQ(afs_getfilesize(&no_chunk_map, 0, &length), AFS_RC_NO_FILE) << "only reads";
    afs_free_context(&no_chunk_map);
    for (const int32_t bad : {-1, static_cast<int32_t>(file_count)}) {
        file = bad;
        EXPECT_EQ(afs_getfilesize(store.context(), file, &length), AFS_RC_INVALID);
        EXPECT_EQ(afs_readfile(store.context(), file, 0, &length, &byte), AFS_RC_INVALID);
        for (size_t i = 0; i < 3; ++i) {
            EXPECT_EQ(operations[i](store.context()), AFS_RC_INVALID) << i;
        }
    }
    length = 0x80000000;
    EXPECT_EQ(afs_readfile(store.context(), 0, 0, &length, &byte), AFS_RC_INVALID);
    EXPECT_EQ(afs_get_next_cid(store.context(), file_count + chunk_count, &cid), AFS_RC_IO);
    EXPECT_EQ(afs_release_resources(store.context(), 70, 1, nullptr, false), AFS_RC_IO);
    EXPECT_EQ(store.write(0, AFS_MAX_FILE_SIZE, {1}).run(), AFS_RC_TOO_LARGE);
    EXPECT_EQ(store.write(0, ~0u, {1}).run(), AFS_RC_TOO_LARGE);
    EXPECT_EQ(store.write(0, 0, Image(AFS_MAX_FILE_SIZE)).run(), AFS_RC_NO_SPACE);
    EXPECT_EQ(store.write(0, ~0u, {}).run(), AFS_RC_OK) << "nothing to write: an empty file";
    EXPECT_EQ(store.read_files(), (Files{{0, {}}}));
}

TEST(AfsFiles, ReadsARunOfChunksAtOnce) {
    Store store;
    ASSERT_EQ(store.write(1, 0, pattern(1, 122 * 64)).run(), AFS_RC_OK);
    const std::tuple<uint32_t, uint32_t, uint32_t> cases[] = {
        {0, 1, 1}, {60, 100, 1}, {0, 61 * 64, 1}, {63, 3800, 1}, {0, 122 * 64, 2}};
    std::vector<uint8_t> buffer(122 * 64);
    for (auto [offset, length, reads] : cases) {
        store.read_files(); // brings the FAT into the cache
        DeviceDouble::instance().attach(store.image);
        EXPECT_EQ(afs_readfile(store.context(), 1, offset, &length, buffer.data()), AFS_RC_OK);
        EXPECT_EQ(DeviceDouble::instance().count(DeviceAccess::read), reads) << length;
        DeviceDouble::instance().detach();
    }
}

// Two chains that lead to the same chunks: the mount takes them. A write to the one file frees the
// first chunk under the other, which then reads as zeros as far as it is read in one run.
TEST(AfsFiles, RunWithAFreedChunkReadsAsZeros) {
    Store store;
    ASSERT_EQ(store.write(1, 0, pattern(1, 300)).run(), AFS_RC_OK);
    store.poke(fat_va(3), store.entry(1));
    ASSERT_EQ(store.remount(), AFS_RC_OK);
    ASSERT_EQ(store.write(3, 0, pattern(2, 64)).run(), AFS_RC_OK);
    Image shared = pattern(1, 300);
    std::ranges::copy(pattern(2, 64), shared.begin());
    store.read_files(); // leaves other bytes in file_buffer
    EXPECT_EQ(store.read_files(), (Files{{1, Image(300)}, {3, shared}}));
}

// Before the mount knows the geometry, it takes every page of the device for one of the log. There
// an entry behind the gap of a torn run can lead to a page, and only the entries chained to it lead
// astray.
TEST(AfsMount, TakesATornRunWhateverItDecodesToInTheProvisionalGeometry) {
    Store store;
    ASSERT_EQ(store.write(1, 0, pattern(1, 300)).run(), AFS_RC_OK);
    const afs_ftl_state &ftl = store.ftl();
    const auto entry = [&](uint32_t i) {
        return &store.image[ftl.write_eu * AFS_EU_SIZE + log_entry_offset(ftl.write_slot + i)];
    };
    const uint16_t last = ftl.last_page;
    store_le16(entry(0), log_chain(last, 3)); // cut; the entry behind it is missing
    uint16_t link = last ^ 16;                // of the missing one
    for (const uint16_t i : std::initializer_list<uint16_t>{2, 3, 4, 5}) {
        store_le16(entry(i), log_chain(link, i));
        link = i;
    }
    const uint32_t provisional_pages = device_size / AFS_PAGE_SIZE;
    const uint16_t first = log_chain(last, load_le16(entry(2)));
    ASSERT_LT(first, provisional_pages);
    ASSERT_GE(log_chain(first, load_le16(entry(3))), provisional_pages);
    ASSERT_EQ(store.remount(), AFS_RC_OK);
    EXPECT_TRUE(log_head_is_full(store.ftl()));
    EXPECT_EQ(store.write(2, 0, {2}).run(), AFS_RC_OK);
    ASSERT_EQ(store.remount(), AFS_RC_OK);
    EXPECT_EQ(store.read_files(), (Files{{1, pattern(1, 300)}, {2, {2}}}));
}

// In a log of more than 128 pages, the first entry left of a torn run can lead to one of them. Only
// the page in its slot tells it from one that was written behind a cut.
TEST(AfsMount, LooksForThePageThatAnEntryBehindAGapLeadsTo) {
    for (const uint16_t moved : std::initializer_list<uint16_t>{0, 1}) {
        for (const bool torn : {true, false}) {
            Store store(format_afs_image({60 * AFS_EU_SIZE, 40, 2048}));
            ASSERT_EQ(store.write(2000, 0, pattern(1, 300)).run(), AFS_RC_OK);
            const Files files = store.read_files();
            const afs_ftl_state &ftl = store.ftl();
            const uint32_t eu = ftl.write_eu;
            const uint32_t slot = ftl.write_slot;
            uint8_t *bytes = &store.image[eu * AFS_EU_SIZE];
            const auto put_entry = [&](uint32_t i, uint16_t link, uint16_t page) {
                store_le16(bytes + log_entry_offset(slot + i), log_chain(link, page));
            };
            const uint16_t last = ftl.last_page;
            const uint16_t missing = last ^ 112; // its entry would stand in the next slot
            ASSERT_LT(missing, ftl.page_count);
            const uint16_t page = log_chain(last, log_chain(missing, 0)) ^ moved;
            put_entry(0, last, 3);
            put_entry(2, missing, page); // by the link that the mount has: moved
            put_entry(3, page, 4);
            const uint16_t held = torn ? page : moved;
            uint8_t *record = bytes + log_slot_offset(slot + 2);
            ASSERT_EQ(
                afs_physical_ftl_read_page(store.context(), held * AFS_PAGE_SIZE, 0, record, 0),
                AFS_RC_OK);
            store_le16(record + page_crc_offset, page_crc(record, held));

            ASSERT_EQ(store.remount(), AFS_RC_OK) << moved << torn;
            EXPECT_EQ(log_head_is_full(store.ftl()), torn);
            EXPECT_EQ(store.ftl().page_map[moved].slot == slot + 2, !torn);
            EXPECT_EQ(store.read_files(), files);
            EXPECT_EQ(store.check(store.image, files), std::vector<std::string>{});
        }
    }
}

TEST(AfsMount, LongCacheLinesHoldZerosBehindTheirPage) {
    Store store;
    ASSERT_EQ(afs_setcache(store.context(), 128, 2), AFS_RC_OK);
    for (const uint16_t page : std::initializer_list<uint16_t>{0, 1, 2, 0}) {
        void *line = nullptr;
        ASSERT_EQ(cache_ptr(store.context(), page, &line), AFS_RC_OK);
        auto *behind = static_cast<uint8_t *>(line) + AFS_PAGE_SIZE;
        EXPECT_EQ(Image(behind, behind + 64), Image(64));
        std::fill_n(behind, 64, uint8_t{0xA5});
        cache_line_written(store.context(), behind);
    }
}

int64_t good_calls; // before the one that fails

uint32_t failing_write(afs_context *context, uint32_t va, uint32_t length, const void *data,
                       uint32_t device_offset) {
    return good_calls-- == 0
               ? AFS_RC_IO
               : afs_physical_ftl_write_page(context, va, length, data, device_offset);
}

TEST(AfsFiles, EveryFailedWriteIsUndone) {
    Store store;
    Files old;
    for (const Change &change : {store.write(1, 0, pattern(1, 3000)),
                                 store.write(2, 0, pattern(2, 200)), store.write(4, 0, {})}) {
        ASSERT_EQ(change.run(), AFS_RC_OK);
        change.effect(old);
    }
    const Image start = store.image;
    afs_physical_ops ops = afs_physical_spi_handler;
    ops.write_page = failing_write;
    for (const Change &change :
         {store.write(1, 500, pattern(5, 1500)), store.write(1, 2990, pattern(5, 900)),
          store.write(2, 64, {}, AFS_WRITE_TRUNCATE), store.write(2, 0, {}, AFS_WRITE_TRUNCATE),
          store.write(3, 0, {}), store.remove(1), store.mark_zombie(3)}) {
        uint32_t status = AFS_RC_IO;
        for (int64_t failing = 0; status == AFS_RC_IO; ++failing) {
            SCOPED_TRACE(testing::Message() << change.name << ", write " << failing);
            store.image = start;
            ASSERT_EQ(store.remount(), AFS_RC_OK);
            store.context()->ops = &ops;
            good_calls = failing;
            status = change.run();
            ASSERT_EQ(status, failing == 0 || good_calls < 0 ? AFS_RC_IO : AFS_RC_OK);
            if (status == AFS_RC_IO) {
                EXPECT_EQ(store.read_files(), old);
                const Image left = store.image;
                ASSERT_EQ(cache_flush(store.context()), AFS_RC_OK);
                EXPECT_EQ(store.image, left) << "something of it was left in the cache";
                ASSERT_EQ(store.remount(), AFS_RC_OK);
                EXPECT_EQ(store.read_files(), old);
            }
        }
    }
}

TEST(AfsFiles, GapReadsAsZerosWhateverTheCacheHolds) {
    Store store;
    ASSERT_EQ(store.write(1, 0, pattern(1, 64)).run(), AFS_RC_OK);
    const uint16_t next = store.entry(1) + 1;
    uint8_t *line = nullptr; // of a chunk that was freed, say
    ASSERT_EQ(cached_bytes(store.context(), chunk_va(store.context(), next), line), AFS_RC_OK);
    std::fill_n(line, AFS_PAGE_SIZE, uint8_t{0x5A});
    ASSERT_EQ(store.write(2, 10, pattern(2, 20)).run(), AFS_RC_OK);
    ASSERT_EQ(store.entry(2), next);
    std::vector<uint8_t> expected(30);
    std::ranges::copy(pattern(2, 20), expected.begin() + 10);
    EXPECT_EQ(store.read_files().at(2), expected);
}

uint32_t failing_trim(afs_context *context, uint32_t va, uint32_t length, uint32_t device_offset) {
    return good_calls-- == 0 ? AFS_RC_IO
                             : afs_physical_ftl_trim_page(context, va, length, device_offset);
}

TEST(AfsFiles, FailedTrimLeavesTheRestOfAChainAllocated) {
    afs_physical_ops ops = afs_physical_spi_handler;
    ops.trim_page = failing_trim;
    Store store;
    ASSERT_EQ(store.write(1, 0, pattern(1, 300)).run(), AFS_RC_OK);
    const uint32_t first = store.entry(1) - file_count;
    const auto live = [&] { return find_chunk(store.context(), first, first + 5, false) - first; };
    store.context()->ops = &ops;
    good_calls = 0;
    EXPECT_EQ(store.write(1, 0, pattern(2, 300)).run(), AFS_RC_IO);
    EXPECT_EQ(live(), 5u);
    EXPECT_EQ(store.read_files(), (Files{{1, pattern(2, 300)}})) << "the write is complete";
    ASSERT_EQ(store.remount(), AFS_RC_OK);
    EXPECT_EQ(live(), 0u);
}

TEST(AfsFiles, KnowNoStoreWhoseTranslationLayerWasLost) {
    Store store;
    ASSERT_EQ(store.write(1, 0, pattern(1, 300)).run(), AFS_RC_OK);
    const uint16_t first = store.entry(1);
    ASSERT_EQ(afs_physical_ftl_init(store.context(), 0, 0), AFS_RC_IO);
    uint32_t length = 10;
    uint8_t bytes[10];
    EXPECT_EQ(afs_release_resources(store.context(), first, 5, nullptr, false), AFS_RC_INVALID);
    EXPECT_EQ(afs_getfilesize(store.context(), 1, &length), AFS_RC_INVALID);
    EXPECT_EQ(afs_readfile(store.context(), 1, 0, &length, bytes), AFS_RC_INVALID);
    EXPECT_EQ(store.write(1, 0, {1}).run(), AFS_RC_INVALID);
    EXPECT_EQ(store.remove(1).run(), AFS_RC_INVALID);
}

// Nothing is ever free again: after a round over the data EUs the store is full.
TEST(AfsFiles, DeviceThatErasesNothingFillsTheStore) {
    Store store(format_afs_image({16 * AFS_EU_SIZE, 2, file_count}));
    DeviceDouble &device = DeviceDouble::instance();
    device.attach(store.image);
    device.add_fault({DeviceAccess::erase, 0, UINT32_MAX, DeviceFault::Effect::lose});
    Files files;
    uint32_t status = AFS_RC_OK;
    uint32_t erases = 0;
    for (uint32_t i = 0; status == AFS_RC_OK; ++i) {
        erases = device.count(DeviceAccess::erase);
        const Change change = store.write(i % 2, 0, pattern(i, 5120), AFS_WRITE_TRUNCATE);
        status = change.run();
        if (status == AFS_RC_OK) {
            change.effect(files);
        }
    }
    EXPECT_EQ(status, AFS_RC_NO_SPACE);
    EXPECT_EQ(device.count(DeviceAccess::erase) - erases, 2 * 2u) << "two blocks of two data EUs";
    EXPECT_EQ(store.read_files(), files);
    device.detach();
    ASSERT_EQ(store.remount(), AFS_RC_OK);
    EXPECT_EQ(store.read_files(), files);
}

TEST(AfsFiles, GivesUpFatPagesOfFreeChunks) {
    Store store(format_afs_image({4 * AFS_EU_SIZE, 1, 1024}));
    // The entries of chunk 25 to 56 fill page 33; page 32 begins with those of file slots.
    const auto has_copy = [&store](uint32_t page) {
        return store.ftl().page_map[page].slot != 0xFF;
    };
    ASSERT_EQ(store.write(1000, 0, pattern(1, 57 * 64)).run(), AFS_RC_OK);
    ASSERT_EQ(store.write(1001, 0, {1}).run(), AFS_RC_OK);
    ASSERT_EQ(store.write(1000, 60, {1}).run(), AFS_RC_OK); // frees chunk 0, in page 32
    EXPECT_TRUE(has_copy(32) && has_copy(33) && has_copy(34));
    ASSERT_EQ(store.remove(1000).run(), AFS_RC_OK);
    EXPECT_TRUE(has_copy(32) && !has_copy(33) && has_copy(34));
    ASSERT_EQ(store.remount(), AFS_RC_OK);
    EXPECT_TRUE(has_copy(32) && !has_copy(33) && has_copy(34));
}

TEST(AfsFiles, ZombiesHoldASlotUntilTheNextMount) {
    Store store;
    for (const uint32_t file : {2u, 3u, 4u}) {
        EXPECT_EQ(store.mark_zombie(file).run(), AFS_RC_OK);
        EXPECT_EQ(store.mark_zombie(file).run(), AFS_RC_BAD_STATE);
    }
    EXPECT_EQ(store.remove(2).run(), AFS_RC_OK);
    EXPECT_EQ(store.remove(2).run(), AFS_RC_NO_FILE);
    EXPECT_EQ(store.write(3, 2, {1}).run(), AFS_RC_OK);
    EXPECT_EQ(store.read_files(), (Files{{3, {0, 0, 1}}}));
    EXPECT_EQ(store.entry(4), fat_zombie);
    ASSERT_EQ(store.remount(), AFS_RC_OK);
    EXPECT_EQ(store.entry(4), fat_free);
}

TEST(AfsFiles, RandomRunWithRemountsAgreesWithAModel) {
    std::mt19937 random(1);
    const auto up_to = [&random](uint32_t bound) {
        return static_cast<uint32_t>(random() % (bound + 1));
    };
    const auto close_to_a_chunk_border = [&] {
        return 64 * up_to(2) * up_to(20) + std::array{0u, 1u, 30u, 63u}[up_to(3)];
    };
    Store store;
    Files files;
    uint32_t refused = 0;
    for (uint32_t step = 0; step < 3000; ++step) {
        SCOPED_TRACE(step);
        const uint32_t file = up_to(11);
        const uint32_t offset = close_to_a_chunk_border();
        const uint32_t length = close_to_a_chunk_border();
        if (up_to(9) == 0) {
            ASSERT_EQ(store.remove(file).run(), files.erase(file) ? AFS_RC_OK : AFS_RC_NO_FILE);
        }
        Files changed = files;
        const Change change =
            store.write(file, offset, pattern(step, length), up_to(2) ? 0 : AFS_WRITE_TRUNCATE);
        change.effect(changed);
        const uint32_t status = change.run();
        if (status == AFS_RC_OK) {
            files = changed;
        } else {
            ASSERT_EQ(status, AFS_RC_NO_SPACE);
            ASSERT_GT(chunks_of(files) + (changed[file].size() + 63) / 64, chunk_count);
            ++refused;
        }
        if (step % 5 == 0) {
            ASSERT_EQ(store.remount(), AFS_RC_OK);
        }
        if (files.contains(file)) {
            uint32_t count = close_to_a_chunk_border();
            const uint32_t start = close_to_a_chunk_border();
            std::vector<uint8_t> wanted = files[file];
            wanted.erase(wanted.begin(),
                         wanted.begin() + std::min<ptrdiff_t>(start, std::ssize(wanted)));
            wanted.resize(std::min<size_t>(count, wanted.size()));
            std::vector<uint8_t> range(count);
            ASSERT_EQ(afs_readfile(store.context(), static_cast<int32_t>(file), start, &count,
                                   range.data()),
                      AFS_RC_OK);
            range.resize(count);
            ASSERT_EQ(range, wanted);
        }
        ASSERT_EQ(store.read_files(), files);
    }
    EXPECT_GT(refused, 10u);
}

} // namespace
