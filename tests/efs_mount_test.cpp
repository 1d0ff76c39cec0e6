// Device, checksums, format, mount and scan.
#include <array>

#include "efs_fixture.h"

namespace dolm_test {
namespace {

using dolm::load_le32;
using Effect = DeviceFault::Effect;

TEST_F(EfsTest, ChecksumsHaveTheirPublishedValues) {
    EXPECT_EQ(gCrc32_table[1], 0x77073096u);
    EXPECT_EQ(gCrc16_table[1], 0x1021);
    EXPECT_EQ(EFS_crc32(EFS_crc32(0, "a", 1), "bc", 2), 0xCA6598D0u);
    EXPECT_EQ(EFS_crc32(7, "abc", 0), 7u);
    EXPECT_EQ(EFS_crc16(0, "abc", 3), 0x9DD6u);
}

TEST_F(EfsTest, DeviceRefusesWhatIsNotInsideTheImage) {
    device().detach();
    const Bytes before = image;
    Bytes buffer(4096, 0x5A);
    for (const auto &[address, length] : std::vector<std::pair<uint32_t, uint32_t>>{
             {0xB001, 0x1000}, {0xC000, 1}, {0, 0}, {0xFFFFF000, 0x1000}, {1, 0xFFFFFFFF}}) {
        EXPECT_EQ(EFS_physical_read(address, length, buffer.data()), 22u) << address;
        EXPECT_EQ(EFS_physical_write(address, length, buffer.data()), 22u) << address;
        EXPECT_EQ(EFS_physical_erase(address, length), 22u) << address;
    }
    EXPECT_EQ(EFS_physical_erase(0x1800, 0x1000), 41u);
    EXPECT_EQ(EFS_physical_erase(0x1000, 0x800), 41u);
    EXPECT_EQ(image, before);
    EXPECT_EQ(EFS_physical_write(0xB000, 0x1000, buffer.data()), 0u);
    EXPECT_EQ(image.back(), 0x5A);
    EXPECT_EQ(EFS_physical_erase(0xB000, 0x1000), 0u);
    EXPECT_EQ(EFS_physical_read(0xBFFF, 1, buffer.data()), 0u);
    EXPECT_EQ(buffer[0], 0xFF);
}

TEST_F(EfsTest, VerifiedWriteReadsUpToSevenTimesAndWritesOnce) {
    const Bytes data = efs_pattern(8, 1);
    using Outcome = std::array<uint32_t, 3>; // status, reads, writes
    const auto write_with = [&](uint8_t check, DeviceAccess access, uint32_t skip, uint32_t count,
                                Effect effect) {
        std::fill_n(&image[0xB010], 8, uint8_t{0xFF});
        device().attach(image);
        fault(access, skip, count, effect);
        const uint32_t status = EFS_write_with_read_check(0xB010, 8, data.data(), check);
        return Outcome{status, device().count(DeviceAccess::read),
                       device().count(DeviceAccess::write)};
    };
    const auto read = DeviceAccess::read, write = DeviceAccess::write;
    EXPECT_EQ(write_with(1, read, 0, 0, Effect::fail), (Outcome{0, 2, 1}));
    EXPECT_EQ(write_with(0, read, 0, 0, Effect::fail), (Outcome{0, 1, 1})) << "unchecked";
    EXPECT_EQ(write_with(1, read, 0, 6, Effect::flip_bit), (Outcome{0, 8, 1}));
    EXPECT_EQ(write_with(1, read, 0, 7, Effect::flip_bit), (Outcome{41, 7, 0})) << "not erased";
    EXPECT_EQ(write_with(1, read, 1, 6, Effect::flip_bit), (Outcome{0, 8, 1}));
    EXPECT_EQ(write_with(1, read, 0, 1, Effect::fail), (Outcome{5, 1, 0}));
    EXPECT_EQ(write_with(1, read, 1, 1, Effect::fail), (Outcome{5, 2, 1})) << "read-back";
    EXPECT_EQ(write_with(1, write, 0, 1, Effect::fail), (Outcome{5, 1, 1}));
    EXPECT_EQ(write_with(1, write, 0, 1, Effect::lose), (Outcome{41, 8, 1}));
}

TEST_F(EfsTest, FormatGivesTheWorkedBytesAndWritesTheHeaderLast) {
    start({.sku = 0});
    EXPECT_EQ(Bytes(bm(0), bme(0, 1)),
              (Bytes{0x01, 0,    0,    0, 0x01, 0, 0, 0, 0x02, 0x07, 0x03, 0,   0x3C,
                     0xC1, 0x64, 0xD3, 0, 1,    2, 3, 4, 5,    6,    7,    8,   9,
                     0,    0,    0,    0, 0,    0, 0, 0, 0x9D, 0xFE, 0x8A, 0x6C}));
    EXPECT_EQ(Bytes(bme(0, 1), block(0)), Bytes(2 * 4096 - 16 - 22, 0xFF));
    EXPECT_EQ(Bytes(block(3) + 16, block(3) + 21), (Bytes{0xFF, 0xFF, 0x6C, 0x2D, 0xFF}));
    EXPECT_EQ(EFS_crc32(0, block(3) + 16, 4076), load_le32(block(3) + 4092));
    EXPECT_EQ(load_le32(block(9) + 12), 0x9BA54C6Fu);
    EXPECT_EQ(Bytes(block(9) + 16, block(9) + 4096), Bytes(4080, 0xFF));

    std::string events = "E0+4096 E1000+4096 ";
    for (uint32_t i = 0; i < 10; ++i) {
        events += erase_events(i);
    }
    for (uint32_t at = 0x2000; at < 0x9000; at += 4096) {
        events += event('W', at + 16, 4076) + event('W', at + 4092, 4);
    }
    device().allow_rewrites(true);
    ASSERT_EQ(EFS_do_format(), 0u);
    EXPECT_EQ(take_events(), events + "W10+22 W0+16 ");

    ASSERT_EQ(load({.sku = 0, .records = {{0, 0, 0, 10}, {6, 3, 4073, 0}}}), 0u);
    EXPECT_EQ(write(6, {}), 22u);
    EXPECT_EQ(EFS_delete(6), 22u);
    EXPECT_EQ(EFS_do_format(), 99u);
    EXPECT_EQ(remount(), 41u);
}

TEST_F(EfsTest, MountFindsTheNewestCompleteMapping) {
    using Found = std::array<uint32_t, 4>; // status, BM, offset of the entry, switch pending
    const Bytes fresh = image;
    const auto expect = [&](const char *name, Found found, auto &&change) {
        image = fresh;
        change();
        const Bytes before = image;
        const uint32_t status = remount();
        EXPECT_EQ(EFS_is_initialized(), status == 0 ? 1 : 0) << name;
        const auto &ctx = efs_ctx;
        EXPECT_EQ((Found{status, ctx.current_bm, ctx.bme_offset, ctx.bm_switch_pending}), found)
            << name;
        EXPECT_EQ(image, before) << name;
    };
    // All entries are alike: they map every block to its own number.
    const auto put_bme = [&](uint32_t index, uint32_t slot) {
        std::copy_n(bme(0, 0), 22, bme(index, slot));
    };
    const auto fill = [&](uint32_t slots) {
        for (uint32_t slot = 1; slot < slots; ++slot) {
            put_bme(0, slot);
        }
    };
    const auto second_bm = [&](uint32_t sequence0, uint32_t sequence1) {
        put_bme(1, 0);
        put_bme(1, 1);
        std::copy_n(bm(0), 16, bm(1));
        dolm::store_le32(bm(0) + 4, sequence0), seal(bm(0), 12);
        dolm::store_le32(bm(1) + 4, sequence1), seal(bm(1), 12);
    };
    const Found none{41, 0, 0, 0};
    expect("all erased", none, [&] { image.assign(image.size(), 0xFF); });
    expect("other sku", {0, 0, 16, 0}, [&] { bm(0)[2] = 9, seal(bm(0), 12); });
    expect("sequence 0", none, [&] { bm(0)[4] = 0, seal(bm(0), 12); });
    expect("5 and 6", {0, 1, 38, 0}, [&] { second_bm(5, 6); });
    expect("6 and 5", {0, 0, 16, 0}, [&] { second_bm(6, 5); });
    expect("equal", {0, 0, 16, 0}, [&] { second_bm(6, 6); });
    for (const uint32_t field : {8u, 9u, 10u, 11u}) {
        expect("older BM of another geometry", none,
               [&] { second_bm(6, 5), bm(1)[field] ^= 1, seal(bm(1), 12); });
    }
    expect("first entry blank", none, [&] { std::fill_n(bme(0, 0), 22, uint8_t{0xFF}); });
    expect("first entry torn", none, [&] { bme(0, 0)[20] ^= 1; });
    expect("one byte of a second", {0, 0, 16, 1}, [&] { bme(0, 1)[21] = 0x6C; });
    expect("torn and torn", none, [&] { fill(3), bme(0, 1)[20] ^= 1, bme(0, 2)[20] ^= 1; });
    expect("torn in the middle", {0, 0, 82, 0}, [&] { fill(4), bme(0, 1)[20] ^= 1; });
    expect("full", {0, 0, 4064, 0}, [&] { fill(185); });
    expect("torn in the last place", {0, 0, 4042, 1}, [&] { fill(185), bme(0, 184)[1] ^= 1; });
    expect("a block twice", none, [&] { fill(2), bme(0, 1)[3] = 4, seal(bme(0, 1), 18); });
    expect("no such block", none, [&] { fill(2), bme(0, 1)[9] = 10, seal(bme(0, 1), 18); });
}

TEST_F(EfsTest, MountNeedsGeometryAndAnImageThatHoldsIt) {
    device().detach();
    for (const auto &[bm_num, valid, spare] : std::vector<std::array<uint32_t, 3>>{
             {0, 7, 3}, {256, 7, 3}, {2, 256, 0}, {2, 0xFFFFFFFF, 3}, {2, 255, 2}, {2, 1, 0}}) {
        g_efs_bm_num = bm_num, g_efs_valid_block_num = valid, g_efs_non_valid_block_num = spare;
        EXPECT_EQ(EFS_init(0), 41u);
        EXPECT_EQ(EFS_do_format(), 41u);
    }
    ASSERT_EQ(load({}), 0u);
    const Bytes host_image = image;
    ASSERT_EQ(EFS_init(1), 0u);
    EXPECT_EQ(Bytes(efs_image, efs_image + efs_size), image);
    EXPECT_EQ(write(0, efs_pattern(100, 1)), 0u);
    EXPECT_EQ(image, host_image) << "the library's own image is another one";
    EXPECT_EQ(EFS_init(0), 0u);
    EXPECT_EQ(read(0), efs_pattern(100, 1));
    ASSERT_EQ(load({.non_valid_block_num = 4}), 0u);
    EXPECT_EQ(EFS_init(0), 1u) << "its image is too small for this geometry";
    EXPECT_EQ(efs_size, host_image.size());
    EXPECT_EQ(EFS_init(1), 0u);
    EXPECT_EQ(efs_size, host_image.size() + 4096);

    // Given as a host's image it is still no larger than it is.
    ASSERT_EQ(load({.non_valid_block_num = 5}), 0u);
    EXPECT_EQ(EFS_init_tools(efs_image), 1u);
    EXPECT_EQ(efs_size, host_image.size() + 4096);

    efs_image = nullptr;
    EXPECT_EQ(EFS_init(0), 1u);
    EXPECT_EQ(efs_size, 0u);
    EXPECT_EQ(EFS_erase(), 1u);
    EXPECT_EQ(EFS_write_RTFD_marker(), 1u);
}

// Rot in the erased rest of the BM in force, out of reach of the search for the last entry: two bad
// slots behind the next free one would fail the mount after a change had gone to that one.
TEST_F(EfsTest, CommitsPassByABmWhoseRestIsNotErased) {
    const Bytes fresh = image;
    const auto reads_of_mount = [&] {
        device().attach(image);
        EXPECT_EQ(EFS_init_tools(image.data()), 0u);
        EXPECT_EQ(efs_ctx.bme_offset, 16u);
        return device().count(DeviceAccess::read);
    };
    const uint32_t sound_reads = reads_of_mount();
    for (const std::vector<uint32_t> &rot :
         {std::vector<uint32_t>{16 + 2 * 22, 16 + 3 * 22}, {4095}}) {
        image = fresh;
        for (const uint32_t at : rot) {
            bm(0)[at] = 0xFE;
        }
        const Bytes before = image;
        EXPECT_EQ(reads_of_mount(), sound_reads + 7) << "each read has a say";
        EXPECT_EQ(efs_ctx.bm_switch_pending, 1);
        EXPECT_EQ(image, before);
        ASSERT_EQ(write(0, efs_pattern(10, 1)), 0u);
        EXPECT_EQ(efs_ctx.current_bm, 1u);
        ASSERT_EQ(remount(), 0u);
        EXPECT_EQ(read(0), efs_pattern(10, 1));
    }
    // Sound, but for the first reads of it: the double flips a bit in the middle of what is read.
    image = fresh;
    const auto mount_with = [&](uint32_t skip, uint32_t count, Effect effect) {
        device().attach(image);
        fault(DeviceAccess::read, skip, count, effect);
        const uint32_t status = EFS_init_tools(image.data());
        return std::tuple(status, efs_ctx.bm_switch_pending,
                          device().count(DeviceAccess::read) - sound_reads);
    };
    EXPECT_EQ(mount_with(2, 1, Effect::flip_bit), std::tuple(0u, 0, 1u));
    EXPECT_EQ(mount_with(2, 7, Effect::flip_bit), std::tuple(0u, 0, 7u));
    EXPECT_EQ(mount_with(2, 8, Effect::flip_bit), std::tuple(0u, 1, 7u));
    bm(0)[4095] = 0;
    EXPECT_EQ(mount_with(3, 1, Effect::fail), std::tuple(5u, 0, 1u));
    EXPECT_EQ(EFS_is_initialized(), 0);
}

// The device's bounds are those of the image that it holds, whatever became of the mount.
TEST_F(EfsTest, RefusedMountHoldsTheNewImageWithItsOwnSize) {
    device().detach();
    Bytes small(3 * 4096, 0xFF);
    for (const auto &[loaded, valid, refusal] : {std::tuple(0, 1, 1u), {1, 0, 41u}}) {
        ASSERT_EQ(load({}), 0u);
        ASSERT_EQ(EFS_init_tools(image.data()), 0u);
        g_efs_autogen_data_loaded = static_cast<uint8_t>(loaded);
        g_efs_bm_num = static_cast<uint32_t>(2 - valid), g_efs_non_valid_block_num = 1;
        g_efs_valid_block_num = static_cast<uint32_t>(valid);
        EXPECT_EQ(EFS_init_tools(small.data()), refusal);
        EXPECT_EQ(efs_image, small.data());
        EXPECT_EQ(efs_size, small.size());
        EXPECT_EQ(EFS_physical_read(3 * 4096 - 1, 1, small.data()), 0u);
        EXPECT_EQ(EFS_physical_read(3 * 4096, 1, small.data()), 22u);
        EXPECT_EQ(EFS_physical_write(3 * 4096, 1, small.data()), 22u);
        EXPECT_EQ(EFS_do_format(), refusal);
    }
}

TEST_F(EfsTest, ScanRepairsTheOneSpareCaughtInAnErase) {
    start({.valid_block_num = 3, .non_valid_block_num = 2, .records = {{0, 0, 0, 100}}});
    for (uint32_t i = 0; i < 4; ++i) {
        put_block_header(i, std::array{10u, 10u, 11u, 12u}[i]);
    }
    block(3)[100] = 0; // dirty
    const Bytes sound = image;
    const auto scan_after = [&](auto &&damage) {
        image = sound;
        damage();
        EXPECT_EQ(remount(), 0u);
        const uint32_t status = EFS_scan_for_Data_Blocks_status_and_EC();
        EXPECT_EQ(efs_ctx.scan_done, status == 0 ? 1 : 0);
        EXPECT_EQ(take_events(), status == 0 ? erase_events(4) : "");
        EXPECT_EQ(EFS_delete(0), status == 0 ? 2u : status);
        return status;
    };
    EXPECT_EQ(scan_after([&] { block(3)[12] ^= 1, block(4)[12] ^= 1; }), 41u);
    EXPECT_EQ(scan_after([&] { block(1)[12] ^= 1; }), 41u) << "a valid block";
    EXPECT_EQ(scan_after([&] { std::fill_n(block(4) + 12, 4, uint8_t{0}); }), 0u);
    EXPECT_EQ(scan_after([&] { std::fill_n(block(4), 4096, uint8_t{0xFF}); }), 0u);
    EXPECT_EQ(efs_ctx.erase_counts[4], 10u);
    EXPECT_EQ(load_le32(block(4)), 10u);
    EXPECT_EQ(Bytes(efs_ctx.block_status, efs_ctx.block_status + 2), (Bytes{1, 2}));
    EXPECT_EQ(efs_ctx.free_block_count, 1u);
}

} // namespace
} // namespace dolm_test
