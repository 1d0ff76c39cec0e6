// AFS from the mount to the file operations, on images made by the library itself: against a plain
// model, with damaged metadata, and with every single write of an operation failing.
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <functional>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "Afs.h"
#include "AfsPhysical.h"
#include "afs/fat_access.h"
#include "common/little_endian.h"
#include "device_double.h"
#include "host/afs_build.h"

using namespace dolm;
using dolm_test::DeviceAccess;
using dolm_test::DeviceDouble;

namespace {

using Bytes = std::vector<uint8_t>;
using Files = std::map<int32_t, Bytes>;

constexpr uint32_t file_count = 100;
constexpr uint32_t chunk_count = 4 * 122;
constexpr AfsLayout layout{8 * AFS_EU_SIZE, 4, file_count};
constexpr uint32_t mount_flags =
    AFS_FLAG_ATTACH_DEVICE | AFS_FLAG_MOUNT_FTL | AFS_FLAG_FTL | AFS_FLAG_FILE_SIZES;
constexpr uint32_t truncate = AFS_WRITE_TRUNCATE;

Bytes some_bytes(size_t size, uint32_t seed = 1) {
    std::minstd_rand random(seed + 1);
    Bytes bytes(size);
    for (uint8_t &byte : bytes) {
        byte = static_cast<uint8_t>(random() >> 8);
    }
    return bytes;
}

// What a write is to make of a file.
void apply_write(Bytes &file, uint32_t offset, const Bytes &data, uint32_t flags) {
    const size_t end = offset + data.size();
    if ((flags & truncate) != 0 || (!data.empty() && end > file.size())) {
        file.resize(end);
    }
    std::copy(data.begin(), data.end(), file.begin() + (data.empty() ? 0 : offset));
}

size_t chunks_of(const Files &files) {
    size_t chunks = 0;
    for (const auto &[number, contents] : files) {
        chunks += (contents.size() + 63) / 64;
    }
    return chunks;
}

// The operations of the store in between, to log writes and to make one of them fail.
struct WriteSpy {
    std::vector<uint32_t> vas;
    int64_t fail_at = -1; // number of the write that fails
} spy;

uint32_t spy_write(afs_context *context, uint32_t va, uint32_t length, const void *data,
                   uint32_t device_offset) {
    spy.vas.push_back(va);
    return static_cast<int64_t>(spy.vas.size()) - 1 == spy.fail_at
               ? AFS_RC_IO
               : afs_physical_ftl_write_page(context, va, length, data, device_offset);
}

class Store {
  public:
    explicit Store(Bytes image, uint32_t flags = mount_flags, uint32_t cache_lines = 10)
        : image_(std::move(image)) {
        mount(flags, cache_lines);
    }
    ~Store() { afs_free_context(&context_); }
    Store(const Store &) = delete;
    Store &operator=(const Store &) = delete;

    uint32_t mount(uint32_t flags = mount_flags, uint32_t cache_lines = 10) {
        afs_free_context(&context_);
        context_ = {};
        context_.file_buffer = file_buffer_;
        status = afs_init(&context_, image_.data(), 64, cache_lines, 1024, 0,
                          static_cast<uint32_t>(image_.size()), flags, 0, 0);
        return status;
    }
    void spy_on_writes(int64_t fail_at = -1) {
        spy = {{}, fail_at};
        ops_ = *context_.ops;
        ops_.write_page = spy_write;
        context_.ops = &ops_;
    }

    uint32_t write(int32_t file, uint32_t offset, const Bytes &data, uint32_t flags = 0) {
        return afs_writefile(&context_, file, offset, static_cast<uint32_t>(data.size()),
                             data.data(), flags);
    }
    // The whole file, its size found by both ways; nothing if there is no such file.
    std::optional<Bytes> read(int32_t file) {
        uint32_t size = 0;
        const uint32_t found = afs_getfilesize(&context_, file, &size);
        uint32_t walked = 0;
        uint32_t *const sizes = std::exchange(context_.file_sizes, nullptr);
        EXPECT_EQ(afs_getfilesize(&context_, file, &walked), found);
        EXPECT_EQ(walked, size);
        context_.file_sizes = sizes;
        Bytes bytes(size + 10);
        uint32_t length = size + 10;
        EXPECT_EQ(afs_readfile(&context_, file, 0, &length, bytes.data()), found);
        if (found != AFS_RC_OK) {
            EXPECT_EQ(found, AFS_RC_NO_FILE);
            return std::nullopt;
        }
        EXPECT_EQ(length, size);
        bytes.resize(length);
        return bytes;
    }
    // Puts damage, or what an earlier version of a file left, straight into the FAT.
    void poke(uint16_t cid, uint16_t value) {
        ASSERT_EQ(set_fat_entry(&context_, cid, value), AFS_RC_OK);
        ASSERT_EQ(cache_flush(&context_), AFS_RC_OK);
    }
    uint16_t entry(uint16_t cid) {
        uint16_t value = 0;
        EXPECT_EQ(next_cid(&context_, cid, &value), AFS_RC_OK);
        return value;
    }
    void expect_files(const Files &files) {
        for (int32_t file = 0; file < static_cast<int32_t>(file_count); ++file) {
            const auto found = files.find(file);
            const auto wanted = found == files.end() ? std::nullopt : std::optional(found->second);
            ASSERT_TRUE(read(file) == wanted) << "file " << file;
        }
        size_t allocated = 0;
        for (uint32_t word = 0; word <= chunk_count / 32; ++word) {
            allocated += static_cast<size_t>(std::popcount(context_.chunk_map[word]));
        }
        ASSERT_EQ(allocated, chunks_of(files))
            << "chunks marked without a file, or the other way round";
    }

    afs_context *context() { return &context_; }
    Bytes &image() { return image_; }
    uint32_t status = 0;

  private:
    Bytes image_;
    afs_context context_{};
    afs_physical_ops ops_{};
    uint8_t file_buffer_[AFS_FILE_BUFFER_SIZE] = {};
};

const Bytes &empty_image() {
    static const Bytes image = format_afs_image(layout);
    return image;
}

TEST(AfsMount, GeometryFollowsFromTheHeader) {
    Store large(format_afs_image({40 * AFS_EU_SIZE, 24, 1024}));
    ASSERT_EQ(large.status, AFS_RC_OK);
    EXPECT_EQ(large.context()->chunk_count, 2928);
    EXPECT_EQ(large.context()->data_va_start, 7936u);
    EXPECT_EQ(large.context()->total_va_size, 195328u);

    // The first two describe the same data area, once with a file count that is just possible.
    const struct {
        uint32_t total_va_size;
        uint16_t files;
        uint32_t status;
    } headers[] = {{33540, 65, AFS_RC_OK},     {33538, 64, AFS_RC_IO},
                   {0, 100, AFS_RC_IO},        {213, 100, AFS_RC_IO},
                   {230, 100, AFS_RC_IO},      {0xFFFFFFFF, 1024, AFS_RC_IO},
                   {4194305, 1024, AFS_RC_IO}, {200000, 65000, AFS_RC_IO}};
    for (const auto &header : headers) {
        Store store(empty_image());
        uint8_t *page = nullptr;
        ASSERT_EQ(cached_bytes(store.context(), 0, &page), AFS_RC_OK);
        store_le32(page + 8, header.total_va_size);
        store_le16(page + 12, header.files);
        cache_line_written(store.context(), page);
        ASSERT_EQ(cache_flush(store.context()), AFS_RC_OK);
        EXPECT_EQ(store.mount(), header.status) << header.total_va_size << ", " << header.files;
        EXPECT_EQ(store.write(0, 0, {}), header.status == AFS_RC_OK ? AFS_RC_OK : AFS_RC_INVALID);
    }
}

TEST(AfsMount, RefusesWhatItCannotUse) {
    constexpr uint32_t size = layout.device_size;
    const struct {
        uint32_t page_size, lines, files, size, flags, status;
    } cases[] = {{0, 10, 1024, size, mount_flags, AFS_RC_INVALID},
                 {96, 10, 1024, size, mount_flags, AFS_RC_INVALID},
                 {65536, 10, 1024, size, mount_flags, AFS_RC_INVALID},
                 {64, 1, 1024, size, mount_flags, AFS_RC_INVALID},
                 {64, 1001, 1024, size, mount_flags, AFS_RC_INVALID},
                 {64, 10, 64, size, mount_flags, AFS_RC_INVALID},
                 {64, 10, 2049, size, mount_flags, AFS_RC_INVALID},
                 {64, 10, 1024, 32767, mount_flags, AFS_RC_INVALID},
                 {64, 10, 1024, 2097153, mount_flags, AFS_RC_INVALID},
                 {64, 10, 1024, size, mount_flags | 0x2, AFS_RC_INVALID},
                 {64, 10, 1024, size, mount_flags & ~AFS_FLAG_FTL, AFS_RC_INVALID},
                 {64, 10, 1024, size, AFS_FLAG_FTL, AFS_RC_INVALID}, // no FTL to go on with
                 {64, 10, 1024, size, mount_flags, AFS_RC_IO},
                 {64, 2, 65, size, mount_flags | AFS_FLAG_CREATE_FS, AFS_RC_IO},
                 {64, 1000, 2048, size, mount_flags | AFS_FLAG_FORCE_FORMAT, AFS_RC_IO}};
    Bytes image(size, 0xFF);
    afs_context context{};
    for (const auto &test : cases) {
        EXPECT_EQ(afs_init(&context, image.data(), test.page_size, test.lines, test.files, 0,
                           test.size, test.flags, 0, 0),
                  test.status)
            << "case " << &test - cases;
    }
    EXPECT_EQ(afs_init(&context, nullptr, 64, 10, 1024, 0, size, mount_flags, 0, 0),
              AFS_RC_INVALID);
    EXPECT_EQ(image, Bytes(size, 0xFF));
    afs_free_context(&context);

    // A format without a header: not touched unless the header may be created. There is no room for
    // chunks in such a store, now or later.
    Store own(image, mount_flags | AFS_FLAG_ERASE_ON_FORMAT);
    EXPECT_EQ(own.status, AFS_RC_IO);
    const Bytes formatted = own.image();
    EXPECT_EQ(own.mount(), AFS_RC_IO);
    EXPECT_EQ(own.image(), formatted);
    for (const uint32_t flags : {AFS_FLAG_CREATE_FS, 0u}) {
        ASSERT_EQ(own.mount(mount_flags | flags), AFS_RC_OK);
        EXPECT_EQ(own.context()->file_count, 1024);
        EXPECT_EQ(own.write(3, 0, some_bytes(10)), AFS_RC_NO_SPACE);
        EXPECT_EQ(own.read(3), std::nullopt);
    }
    EXPECT_EQ(own.write(3, 0, {}), AFS_RC_OK);
    EXPECT_EQ(own.read(3), Bytes());
}

TEST(AfsMount, JudgesEveryFatValue) {
    Store source(empty_image());
    ASSERT_EQ(source.write(5, 0, some_bytes(100)), AFS_RC_OK);
    const uint16_t first = source.entry(5);
    const uint16_t last = source.entry(first);
    EXPECT_EQ(source.entry(last), 36);
    constexpr uint32_t bad = 0xFFFFFFFF;
    constexpr uint32_t none = 0xFFFFFFFE;
    constexpr uint16_t past_chunks = file_count + chunk_count;
    const struct {
        uint16_t cid;
        uint16_t value;
        uint32_t size;
    } cases[] = {{5, 0, none},
                 {5, 1, bad},
                 {5, 64, bad},
                 {5, 65, bad},
                 {5, file_count - 1, bad},
                 {5, past_chunks, bad},
                 {5, 0xFFFD, bad},
                 {5, 0xFFFE, none},
                 {5, 0xFFFF, 0},
                 {5, last, 36},
                 {last, 0, 64},
                 {last, 1, 65},
                 {last, 64, 128},
                 {last, 65, bad},
                 {last, file_count - 1, bad},
                 {last, past_chunks, bad},
                 {last, past_chunks - 1, bad}, // a chunk that was never written
                 {last, 0xFFFE, bad},
                 {last, 0xFFFF, bad},
                 {last, last, bad},
                 {last, first, bad}};
    for (const auto &test : cases) {
        SCOPED_TRACE(std::to_string(test.cid) + " holds " + std::to_string(test.value));
        Store store(source.image());
        store.poke(test.cid, test.value);
        ASSERT_EQ(store.mount(), test.size == bad ? AFS_RC_IO : AFS_RC_OK);
        if (test.size != bad) {
            const auto contents = store.read(5);
            ASSERT_EQ(contents.has_value(), test.size != none);
            EXPECT_EQ(contents.value_or(Bytes()).size(), test.size == none ? 0 : test.size);
        }
    }
    // The same values met by an operation on a mounted store: it fails and changes nothing.
    Store store(source.image());
    store.poke(last, last);
    uint32_t length = 40000; // more than all chunks together hold
    Bytes buffer(length);
    EXPECT_EQ(afs_readfile(store.context(), 5, 0, &length, buffer.data()), AFS_RC_IO);
    EXPECT_EQ(length, 40000u);
    EXPECT_EQ(store.write(5, 40000, {1}), AFS_RC_IO);
    afs_free_file_size_table(store.context());
    EXPECT_EQ(afs_getfilesize(store.context(), 5, &length), AFS_RC_IO);
    EXPECT_EQ(store.entry(5), first);
}

TEST(AfsFiles, ReadsEveryRange) {
    Store store(empty_image());
    Files files;
    for (const uint32_t size : {0, 1, 63, 64, 65, 70, 128, 4097, 12000}) {
        const auto number = static_cast<int32_t>(files.size());
        files[number] = some_bytes(size, size);
        // Overwritten in places, so that its chunks lie in several runs.
        ASSERT_EQ(store.write(number, 0, some_bytes(size)), AFS_RC_OK);
        for (uint32_t offset = 0; offset < size; offset += 700) {
            const auto begin = files[number].begin() + offset;
            const Bytes part(begin, begin + std::min(700u, size - offset));
            ASSERT_EQ(store.write(number, offset, part), AFS_RC_OK);
        }
    }
    for (const auto &[number, contents] : files) {
        const auto size = static_cast<uint32_t>(contents.size());
        for (const uint32_t offset :
             {0u, 1u, 60u, 64u, 127u, 3999u, size - 1, size, size + 1, ~0u}) {
            for (const uint32_t wanted : {0u, 1u, 10u, 64u, 100u, 3970u, 4096u, 0x7FFFFFFFu}) {
                const uint32_t left = offset < size ? size - offset : 0;
                const uint32_t expected = std::min(wanted, left);
                Bytes buffer(expected + 1, 0xA5);
                uint32_t length = wanted;
                ASSERT_EQ(afs_readfile(store.context(), number, offset, &length, buffer.data()),
                          AFS_RC_OK);
                ASSERT_EQ(length, expected) << size << " bytes, from " << offset << ", " << wanted;
                ASSERT_EQ(buffer.back(), 0xA5);
                buffer.pop_back();
                ASSERT_TRUE(std::equal(buffer.begin(), buffer.end(),
                                       contents.begin() + (expected > 0 ? offset : 0)))
                    << size << " bytes, from " << offset << ", " << wanted;
            }
        }
    }
}

TEST(AfsFiles, ReadsARunOfChunksAtOnce) {
    Store store(empty_image());
    ASSERT_EQ(store.write(1, 0, some_bytes(122 * 64)), AFS_RC_OK);
    const struct {
        uint32_t offset;
        uint32_t length;
        uint32_t reads;
    } cases[] = {{0, 1, 1}, {60, 100, 1}, {0, 61 * 64, 1}, {63, 3800, 1}, {0, 122 * 64, 2}};
    Bytes buffer(122 * 64);
    for (const auto &test : cases) {
        uint32_t length = test.length;
        ASSERT_EQ(store.read(1), some_bytes(122 * 64)); // brings the FAT into the cache
        DeviceDouble &device = DeviceDouble::instance();
        device.attach(store.image());
        EXPECT_EQ(afs_readfile(store.context(), 1, test.offset, &length, buffer.data()), AFS_RC_OK);
        EXPECT_EQ(device.count(DeviceAccess::read), test.reads) << test.length;
        device.detach();
    }
}

TEST(AfsFiles, WritesAgainstAModel) {
    const struct {
        uint32_t old_size; // 1 more than the size; 0 for no file
        uint32_t offset;
        uint32_t length;
        uint32_t flags;
    } cases[] = {{0, 0, 0, 0},
                 {0, 0, 0, truncate},
                 {0, 70, 0, truncate},
                 {0, 0, 1, 0},
                 {0, 128, 64, 0},
                 {0, 5000, 3, truncate},
                 {1, 0, 0, 0},
                 {1, 0, 200, 0},
                 {201, 0, 0, 0},
                 {201, 500, 0, 0},
                 {201, 0, 0, truncate},
                 {201, 64, 0, truncate},
                 {201, 100, 0, truncate},
                 {201, 200, 0, truncate},
                 {201, 256, 0, truncate},
                 {201, 130, 1, 0},
                 {201, 130, 1, truncate},
                 {201, 0, 64, 0},
                 {201, 10, 180, 0},
                 {201, 190, 100, 0},
                 {201, 200, 56, 0},
                 {71, 200, 30, 0},
                 {71, 128, 10, 0},
                 {65, 64, 64, 0},
                 {65, 64, 0, truncate},
                 {129, 63, 2, 0},
                 {10001, 4000, 5000, 0},
                 {10001, 1, 9000, truncate},
                 {10001, 0, 20000, 0}};
    for (const auto &test : cases) {
        SCOPED_TRACE(testing::Message() << test.old_size << ": " << test.offset << ", "
                                        << test.length << ", " << test.flags);
        Store store(empty_image());
        Files files{{1, some_bytes(300, 7)}};
        ASSERT_EQ(store.write(1, 0, files[1]), AFS_RC_OK);
        if (test.old_size > 0) {
            files[2] = some_bytes(test.old_size - 1, 8);
            ASSERT_EQ(store.write(2, 0, files[2]), AFS_RC_OK);
        }
        const Bytes data = some_bytes(test.length, 9);
        ASSERT_EQ(store.write(2, test.offset, data, test.flags), AFS_RC_OK);
        apply_write(files[2], test.offset, data, test.flags);
        store.expect_files(files);
        ASSERT_EQ(store.mount(), AFS_RC_OK);
        store.expect_files(files);
        // What a file was cut by doesn't come back when it grows again.
        ASSERT_EQ(store.write(2, 12000, {1}), AFS_RC_OK);
        apply_write(files[2], 12000, {1}, 0);
        store.expect_files(files);
    }
}

TEST(AfsFiles, FillsTheStoreAndUndoesWhatDoesNotFit) {
    Store store(empty_image());
    Files files{{0, some_bytes(chunk_count * 64)}};
    ASSERT_EQ(store.write(0, 0, files[0]), AFS_RC_OK);
    store.expect_files(files);
    ASSERT_EQ(store.mount(), AFS_RC_OK);
    store.expect_files(files);
    for (const uint32_t length : {1u, 64u, 20000u}) {
        EXPECT_EQ(store.write(0, 100, some_bytes(length, 2)), AFS_RC_NO_SPACE);
        EXPECT_EQ(store.write(1, 0, some_bytes(length, 2), truncate), AFS_RC_NO_SPACE);
        store.expect_files(files);
    }
    ASSERT_EQ(store.write(0, 312 * 64, {}, truncate), AFS_RC_OK);
    files[0].resize(312 * 64);
    EXPECT_EQ(store.write(0, 0, some_bytes(20000, 3)), AFS_RC_NO_SPACE);
    EXPECT_EQ(store.write(1, 0, Bytes(AFS_MAX_FILE_SIZE)), AFS_RC_NO_SPACE);
    store.expect_files(files);
    ASSERT_EQ(store.write(0, 0, some_bytes(9000, 4)), AFS_RC_OK);
    apply_write(files[0], 0, some_bytes(9000, 4), 0);
    ASSERT_EQ(store.mount(), AFS_RC_OK);
    store.expect_files(files);
    ASSERT_EQ(afs_deletefile(store.context(), 0), AFS_RC_OK);
    store.expect_files({});
    EXPECT_EQ(store.write(0, 0, Bytes(AFS_MAX_FILE_SIZE + 1)), AFS_RC_TOO_LARGE);
    EXPECT_EQ(store.write(0, AFS_MAX_FILE_SIZE, {1}), AFS_RC_TOO_LARGE);
    EXPECT_EQ(store.write(0, ~0u, {1}), AFS_RC_TOO_LARGE);
    EXPECT_EQ(store.write(0, AFS_MAX_FILE_SIZE + 1, {}, truncate), AFS_RC_TOO_LARGE);
    EXPECT_EQ(store.write(0, ~0u, {}), AFS_RC_OK) << "nothing to write: created as an empty file";
    store.expect_files({{0, {}}});
}

TEST(AfsFiles, SwitchingEntryIsWrittenLast) {
    for (const uint32_t lines : {2u, 3u, 10u}) {
        Store store(empty_image(), mount_flags, lines);
        const Bytes data = some_bytes(220 * 64);
        store.spy_on_writes();
        // First the slot switches; then the entry of the chunk before the range.
        ASSERT_EQ(store.write(99, 0, data), AFS_RC_OK);
        uint16_t before = store.entry(99);
        uint32_t switching_va = fat_va(99);
        for (const uint32_t offset : {0u, 128u}) {
            if (offset > 0) {
                spy = {};
                ASSERT_EQ(store.write(99, offset, Bytes(data.begin(), data.end() - offset)),
                          AFS_RC_OK);
                before = store.entry(before);
                switching_va = fat_va(before);
            }
            const uint32_t data_start = store.context()->data_va_start;
            const auto is_fat = [data_start](uint32_t va) { return va < data_start; };
            ASSERT_TRUE(std::is_partitioned(spy.vas.rbegin(), spy.vas.rend(), is_fat));
            EXPECT_EQ(spy.vas.back(), switching_va / 64 * 64);
            EXPECT_GT(std::count_if(spy.vas.begin(), spy.vas.end(), is_fat), 6);
        }
    }
}

TEST(AfsFiles, EveryFailedWriteIsUndone) {
    Store source(empty_image());
    const Files old{{1, some_bytes(3000, 1)}, {2, some_bytes(200, 2)}, {4, {}}};
    for (const auto &[number, contents] : old) {
        ASSERT_EQ(source.write(number, 0, contents), AFS_RC_OK);
    }
    const std::vector<std::function<uint32_t(Store &)>> operations = {
        [](Store &store) { return store.write(1, 500, some_bytes(1500, 5)); },
        [](Store &store) { return store.write(1, 2990, some_bytes(900, 5)); },
        [](Store &store) { return store.write(2, 64, {}, truncate); },
        [](Store &store) { return store.write(2, 0, {}, truncate); },
        [](Store &store) { return store.write(3, 0, {}); },
        [](Store &store) { return store.write(4, 0, some_bytes(100), truncate); },
        [](Store &store) { return afs_deletefile(store.context(), 1); },
        [](Store &store) { return afs_mark_zombie_file(store.context(), 3); }};
    for (size_t i = 0; i < operations.size(); ++i) {
        int64_t failures = 0;
        for (;; ++failures) {
            SCOPED_TRACE("operation " + std::to_string(i) + ", write " + std::to_string(failures));
            Store store(source.image());
            store.spy_on_writes(failures);
            const uint32_t status = operations[i](store);
            if (status == AFS_RC_OK) {
                break;
            }
            ASSERT_EQ(status, AFS_RC_IO);
            store.expect_files(old);
            ASSERT_EQ(cache_flush(store.context()), AFS_RC_OK);
            ASSERT_EQ(store.mount(), AFS_RC_OK) << "nothing of it was left in the cache";
            store.expect_files(old);
        }
        EXPECT_GT(failures, 0);
    }
}

TEST(AfsFiles, GivesUpFatPagesOfFreeChunks) {
    Store store(format_afs_image({4 * AFS_EU_SIZE, 1, 1024}));
    // The entries of chunk 25 to 56 fill page 33; page 32 begins with those of file slots.
    const auto has_copy = [&store](uint32_t page) {
        return store.context()->ftl->page_map[page].slot != 0xFF;
    };
    ASSERT_EQ(store.write(1000, 0, some_bytes(57 * 64)), AFS_RC_OK);
    ASSERT_EQ(store.write(1001, 0, {1}), AFS_RC_OK);
    EXPECT_TRUE(has_copy(32) && has_copy(33) && has_copy(34));
    ASSERT_EQ(store.write(1000, 60, {1}), AFS_RC_OK); // frees chunk 0, in page 32
    EXPECT_TRUE(has_copy(32) && has_copy(33) && has_copy(34));
    ASSERT_EQ(afs_deletefile(store.context(), 1000), AFS_RC_OK);
    EXPECT_TRUE(has_copy(32) && !has_copy(33) && has_copy(34));
    ASSERT_EQ(store.mount(), AFS_RC_OK);
    EXPECT_TRUE(has_copy(32) && !has_copy(33) && has_copy(34));
}

TEST(AfsFiles, Zombies) {
    Store store(empty_image());
    afs_context *const context = store.context();
    ASSERT_EQ(store.write(1, 0, {}), AFS_RC_OK);
    EXPECT_EQ(afs_mark_zombie_file(context, 1), AFS_RC_BAD_STATE);
    for (const uint32_t file : {2u, 3u, 4u, 5u}) {
        EXPECT_EQ(afs_mark_zombie_file(context, file), AFS_RC_OK);
        EXPECT_EQ(afs_mark_zombie_file(context, file), AFS_RC_BAD_STATE);
    }
    store.expect_files({{1, {}}});
    EXPECT_EQ(afs_deletefile(context, 2), AFS_RC_OK);
    EXPECT_EQ(afs_deletefile(context, 2), AFS_RC_NO_FILE);
    EXPECT_EQ(store.write(3, 0, {}), AFS_RC_OK);
    EXPECT_EQ(store.write(4, 10, {1}), AFS_RC_OK);
    const Files files{{1, {}}, {3, {}}, {4, {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}}};
    store.expect_files(files);
    EXPECT_EQ(store.entry(5), fat_zombie);
    ASSERT_EQ(store.mount(), AFS_RC_OK);
    EXPECT_EQ(store.entry(5), fat_free);
    store.expect_files(files);
    EXPECT_EQ(afs_deletefile(context, 1), AFS_RC_OK); // its flush takes the cleared slot along
    ASSERT_EQ(store.mount(mount_flags | AFS_FLAG_NO_CHUNK_MAP), AFS_RC_OK);
    EXPECT_EQ(store.entry(5), fat_free);
}

TEST(AfsFiles, WithoutChunkMapOnlyReads) {
    Store source(empty_image());
    ASSERT_EQ(source.write(1, 0, some_bytes(9000)), AFS_RC_OK);
    for (const uint32_t sizes : {0u, AFS_FLAG_FILE_SIZES}) {
        Store store(source.image(), (mount_flags & ~AFS_FLAG_FILE_SIZES) | sizes |
                                        AFS_FLAG_NO_CHUNK_MAP | AFS_FLAG_PRELOAD_CACHE);
        ASSERT_EQ(store.status, AFS_RC_OK);
        afs_context *const context = store.context();
        EXPECT_EQ(store.read(1), some_bytes(9000));
        uint16_t cid = 0;
        EXPECT_EQ(store.write(1, 0, {1}), AFS_RC_BAD_STATE);
        EXPECT_EQ(store.write(1, 0, {}), AFS_RC_BAD_STATE);
        EXPECT_EQ(afs_deletefile(context, 1), AFS_RC_BAD_STATE);
        EXPECT_EQ(afs_mark_zombie_file(context, 2), AFS_RC_BAD_STATE);
        EXPECT_EQ(afs_allocate_chunk(context, &cid), AFS_RC_BAD_STATE);
        EXPECT_EQ(afs_release_resources(context, store.entry(1), 1, nullptr, false),
                  AFS_RC_BAD_STATE);
        afs_force_full_reclaim(context);
        afs_idle_reclaim(context);
        EXPECT_EQ(store.read(1), some_bytes(9000));
    }
}

TEST(AfsFiles, RefusesContextsAndArguments) {
    uint32_t value = 1;
    uint16_t cid = 0;
    uint8_t byte = 0;
    int32_t file = 0;
    using Operation = std::function<uint32_t(afs_context *)>;
    const std::vector<Operation> on_files = {
        [&](afs_context *c) { return afs_getfilesize(c, file, &value); },
        [&](afs_context *c) { return afs_readfile(c, file, 0, &value, &byte); },
        [&](afs_context *c) { return afs_writefile(c, file, 0, 1, &byte, 0); },
        [&](afs_context *c) { return afs_deletefile(c, file); },
        [&](afs_context *c) { return afs_mark_zombie_file(c, static_cast<uint32_t>(file)); }};
    std::vector<Operation> all = {
        afs_idle_reclaim,
        afs_force_full_reclaim,
        afs_force_dirty_erase,
        [&](afs_context *c) { return afs_setcache(c, 64, 10); },
        [&](afs_context *c) { return afs_allocate_chunk(c, &cid); },
        [&](afs_context *c) { return afs_get_next_cid(c, 0, &cid); },
        [&](afs_context *c) { return afs_release_resources(c, 200, 1, nullptr, true); }};
    all.insert(all.end(), on_files.begin(), on_files.end());
    afs_context unmounted{};
    for (const Operation &operation : all) {
        EXPECT_EQ(operation(nullptr), AFS_RC_INVALID);
        EXPECT_EQ(operation(&unmounted), AFS_RC_INVALID);
    }
    Store store(empty_image());
    for (const int32_t bad : {-1, INT32_MIN, static_cast<int32_t>(file_count)}) {
        file = bad;
        for (const Operation &operation : on_files) {
            EXPECT_EQ(operation(store.context()), AFS_RC_INVALID) << file;
        }
    }
    for (afs_context *const none : {static_cast<afs_context *>(nullptr), &unmounted}) {
        afs_set_idle_reclaim_enabled(none);
        EXPECT_EQ(afs_get_idle_reclaim_enabled(none) + afs_idle_reclaim_needed(none), 0u);
        afs_trim_fat_page_if_needed(none, 0);
        afs_free_file_size_table(none);
        afs_free_context(none);
    }
    afs_context *const context = store.context();
    afs_set_idle_reclaim_enabled(context);
    EXPECT_EQ(afs_get_idle_reclaim_enabled(context), 1u);
    EXPECT_EQ(afs_setcache(context, 96, 10), AFS_RC_INVALID);
    EXPECT_EQ(afs_setcache(context, 64, -1), AFS_RC_INVALID);
    EXPECT_EQ(afs_setcache(context, 64, 128), AFS_RC_OK);
    EXPECT_EQ(afs_getfilesize(context, 0, nullptr), AFS_RC_INVALID);
    EXPECT_EQ(afs_readfile(context, 0, 0, nullptr, &byte), AFS_RC_INVALID);
    EXPECT_EQ(afs_readfile(context, 0, 0, &value, nullptr), AFS_RC_INVALID);
    value = 0x80000000;
    EXPECT_EQ(afs_readfile(context, 0, 0, &value, &byte), AFS_RC_INVALID);
    EXPECT_EQ(afs_writefile(context, 0, 0, 1, nullptr, 0), AFS_RC_INVALID);
    EXPECT_EQ(afs_get_next_cid(context, file_count + chunk_count, &cid), AFS_RC_IO);
    EXPECT_EQ(afs_release_resources(context, 70, 1, nullptr, false), AFS_RC_IO);
    EXPECT_EQ(afs_release_resources(context, file_count + chunk_count, 1, nullptr, false),
              AFS_RC_IO);
}

TEST(AfsFiles, RandomRunWithRemountsAgreesWithAModel) {
    const uint32_t seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    const auto up_to = [&random](uint32_t bound) {
        return static_cast<uint32_t>(random() % (bound + 1));
    };
    Store store(empty_image());
    Files files;
    for (uint32_t step = 0; step < 1500; ++step) {
        const auto file = static_cast<int32_t>(up_to(7));
        const bool exists = files.count(file) != 0;
        uint32_t status = AFS_RC_OK;
        switch (up_to(9)) {
        case 0:
            ASSERT_EQ(afs_deletefile(store.context(), file), exists ? AFS_RC_OK : AFS_RC_NO_FILE);
            files.erase(file);
            break;
        case 1:
            ASSERT_LE(afs_idle_reclaim_needed(store.context()), 1u);
            status = afs_idle_reclaim(store.context());
            ASSERT_TRUE(status == AFS_RC_OK || status == AFS_RC_NOT_RECLAIMED) << status;
            break;
        case 2:
            status = afs_force_full_reclaim(store.context());
            ASSERT_TRUE(status == AFS_RC_OK || status == AFS_RC_AGAIN) << status;
            ASSERT_EQ(afs_force_dirty_erase(store.context()), AFS_RC_OK);
            break;
        case 3:
            ASSERT_EQ(store.mount(mount_flags, 2 + up_to(12)), AFS_RC_OK);
            break;
        default: {
            const uint32_t flags = up_to(2) == 0 ? truncate : 0;
            const uint32_t offset = up_to(1) * up_to(2500);
            const Bytes data = some_bytes(up_to(4) * up_to(600), step);
            Bytes expected = exists ? files[file] : Bytes();
            apply_write(expected, offset, data, flags);
            status = store.write(file, offset, data, flags);
            if (status == AFS_RC_NO_SPACE) {
                ASSERT_GT(chunks_of(files) + (expected.size() + 63) / 64, chunk_count);
            } else {
                ASSERT_EQ(status, AFS_RC_OK);
                files[file] = expected;
            }
        }
        }
        if (step % 10 == 0) {
            ASSERT_NO_FATAL_FAILURE(store.expect_files(files)) << "step " << step;
        }
    }
}

} // namespace
