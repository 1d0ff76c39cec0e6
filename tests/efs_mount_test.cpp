// Device, checksums, format, mount and scan.
#include <functional>

#include "efs_fixture.h"

namespace dolm_test {
namespace {

using dolm::load_le32;

TEST_F(EfsTest, ChecksumsHaveTheirPublishedValues) {
    EXPECT_EQ(gCrc32_table[1], 0x77073096u);
    EXPECT_EQ(gCrc16_table[1], 0x1021);
    EXPECT_EQ(gCrc16_table[255], 0x1EF0);
    EXPECT_EQ(EFS_crc32(0, "abc", 3), 0xCA6598D0u);
    EXPECT_EQ(EFS_crc32(EFS_crc32(0, "a", 1), "bc", 2), 0xCA6598D0u);
    EXPECT_EQ(EFS_crc32(7, "abc", 0), 7u);
    EXPECT_EQ(EFS_crc16(0, "abc", 3), 0x9DD6u);
    EXPECT_EQ(EFS_crc16(0x1234, "abc", 0), 0x1234u);
    EXPECT_EQ(EFS_crc32(0, Bytes(12, 0xFF).data(), 12), 0xC04C39E5u);
}

TEST_F(EfsTest, DeviceRefusesWhatIsNotInsideTheImage) {
    device().detach();
    Bytes buffer(4096, 0x5A);
    const struct {
        uint32_t address, length, status;
    } cases[] = {
        {0xB000, 0x1000, 0}, {0xBFFF, 1, 0},           {0xB001, 0x1000, 22}, {0xC000, 1, 22},
        {0, 0, 22},          {0xFFFFF000, 0x1000, 22}, {1, 0xFFFFFFFF, 22},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << std::hex << c.address << "+" << c.length);
        EXPECT_EQ(EFS_physical_write(c.address, c.length, buffer.data()), c.status);
        EXPECT_EQ(EFS_physical_read(c.address, c.length, buffer.data()), c.status);
        if (c.status != 0) {
            EXPECT_EQ(EFS_physical_erase(c.address, c.length), c.status);
        }
    }
    EXPECT_EQ(image[0xBFFF], 0x5A);
    EXPECT_EQ(EFS_physical_erase(0xB000, 0x1000), 0u);
    EXPECT_EQ(Bytes(image.begin() + 0xB000, image.end()), Bytes(4096, 0xFF));
    const Bytes before = image;
    EXPECT_EQ(EFS_physical_erase(0x1800, 0x1000), 41u);
    EXPECT_EQ(EFS_physical_erase(0x1000, 0x800), 41u);
    EXPECT_EQ(image, before);
    EXPECT_EQ(EFS_physical_read(0, 1, nullptr), 22u);
    EXPECT_EQ(EFS_physical_write(0, 1, nullptr), 22u);
}

TEST_F(EfsTest, VerifiedWriteReadsUpToSevenTimesAndWritesOnce) {
    const uint32_t spare = 2 * 4096 + 9 * 4096;
    const Bytes data = efs_pattern(8, 1);
    using Effect = DeviceFault::Effect;
    const struct {
        const char *name;
        uint8_t check;
        DeviceAccess access;
        uint32_t skip, count;
        Effect effect;
        uint32_t status, reads, writes;
    } cases[] = {
        {"clean", 1, DeviceAccess::read, 0, 0, Effect::fail, 0, 2, 1},
        {"unchecked", 0, DeviceAccess::read, 0, 0, Effect::fail, 0, 1, 1},
        {"seventh erased read", 1, DeviceAccess::read, 0, 6, Effect::flip_bit, 0, 8, 1},
        {"no erased read", 1, DeviceAccess::read, 0, 7, Effect::flip_bit, 41, 7, 0},
        {"seventh read-back", 1, DeviceAccess::read, 1, 6, Effect::flip_bit, 0, 8, 1},
        {"no good read-back", 1, DeviceAccess::read, 1, 7, Effect::flip_bit, 41, 8, 1},
        {"failing read", 1, DeviceAccess::read, 0, 1, Effect::fail, 5, 1, 0},
        {"failing read-back", 1, DeviceAccess::read, 1, 1, Effect::fail, 5, 2, 1},
        {"failing write", 1, DeviceAccess::write, 0, 1, Effect::fail, 5, 1, 1},
        {"lost write", 1, DeviceAccess::write, 0, 1, Effect::lose, 41, 8, 1},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        std::fill_n(&image[spare + 16], 8, uint8_t{0xFF});
        device().attach(image);
        fault(c.access, c.skip, c.count, c.effect);
        EXPECT_EQ(EFS_write_with_read_check(spare + 16, 8, data.data(), c.check), c.status);
        EXPECT_EQ(device().count(DeviceAccess::read), c.reads);
        EXPECT_EQ(device().count(DeviceAccess::write), c.writes);
    }
    EXPECT_EQ(EFS_write_with_read_check(0, 4097, image.data(), 0), 41u);
    EXPECT_EQ(EFS_write_with_read_check(0, 0, image.data(), 1), 22u);
}

TEST_F(EfsTest, FormatGivesTheWorkedBytes) {
    start({.sku = 0});
    EXPECT_EQ(Bytes(bm(0), bm(0) + 16),
              (Bytes{0x01, 0, 0, 0, 0x01, 0, 0, 0, 0x02, 0x07, 0x03, 0, 0x3C, 0xC1, 0x64, 0xD3}));
    EXPECT_EQ(Bytes(bme(0, 0), bme(0, 1)), (Bytes{0, 1, 2, 3, 4, 5, 6, 7,    8,    9,    0,
                                                  0, 0, 0, 0, 0, 0, 0, 0x9D, 0xFE, 0x8A, 0x6C}));
    EXPECT_EQ(load_le32(block(9)), 1u);
    EXPECT_EQ(load_le32(block(9) + 12), 0x9BA54C6Fu);
    EXPECT_EQ(Bytes(block(9) + 16, block(9) + 4096), Bytes(4080, 0xFF));
    EXPECT_EQ(Bytes(block(3) + 16, block(3) + 21), (Bytes{0xFF, 0xFF, 0x6C, 0x2D, 0xFF}));
    EXPECT_EQ(EFS_crc32(0, block(3) + 16, 4076), load_le32(block(3) + 4092));
    EXPECT_EQ(Bytes(bme(0, 1), block(0)), Bytes(2 * 4096 - 16 - 22, 0xFF));
    EXPECT_EQ(EFS_scan_for_Data_Blocks_status_and_EC(), 0u);
    EXPECT_EQ(efs_ctx.free_block_count, 3u);
    EXPECT_EQ(Bytes(efs_ctx.erase_counts, efs_ctx.erase_counts + 10), Bytes(10, 1));
}

TEST_F(EfsTest, FormatWritesTheHeaderLastAndStopsAtABadOffset) {
    device().allow_rewrites(true);
    ASSERT_EQ(EFS_do_format(), 0u);
    const Steps steps = take_steps();
    ASSERT_EQ(steps.size(), 2u + 10 * 3 + 7 * 2 + 2);
    EXPECT_EQ(steps[0], (Step{'E', 0, 4096}));
    EXPECT_EQ(steps[1], (Step{'E', 4096, 4096}));
    EXPECT_EQ(steps[2], (Step{'W', 0x200C, 4}));
    EXPECT_EQ(steps[3], (Step{'E', 0x2000, 4096}));
    EXPECT_EQ(steps[4], (Step{'W', 0x2000, 16}));
    EXPECT_EQ(steps[32], (Step{'W', 0x2010, 4076}));
    EXPECT_EQ(steps[33], (Step{'W', 0x2FFC, 4}));
    EXPECT_EQ(steps[46], (Step{'W', 16, 22}));
    EXPECT_EQ(steps[47], (Step{'W', 0, 16}));

    ASSERT_EQ(load({.records = {{0, 0, 0, 10}, {6, 3, 4073, 0}}}), 0u);
    uint32_t size = 0;
    EXPECT_EQ(EFS_get_file_size(6, &size), 22u);
    EXPECT_EQ(EFS_read(6, 0, &size, &size), 22u);
    EXPECT_EQ(EFS_write(6, 0, 0, &size), 22u);
    EXPECT_EQ(EFS_delete(6), 22u);
    EXPECT_EQ(EFS_do_format(), 99u);
    EXPECT_EQ(remount(), 41u);
}

TEST_F(EfsTest, MountFindsTheNewestCompleteMapping) {
    struct Found {
        uint32_t status, bm, offset;
        uint8_t pending;
    };
    const Bytes fresh = image;
    const auto expect = [&](const char *name, Found found, auto &&change) {
        SCOPED_TRACE(name);
        image = fresh;
        change();
        const Bytes before = image;
        EXPECT_EQ(remount(), found.status);
        EXPECT_EQ(EFS_is_initialized(), found.status == 0 ? 1 : 0);
        if (found.status == 0) {
            EXPECT_EQ(efs_ctx.current_bm, found.bm);
            EXPECT_EQ(efs_ctx.bme_offset, found.offset);
            EXPECT_EQ(efs_ctx.bm_switch_pending, found.pending);
            read(0);
            EXPECT_EQ(last_status, 2u);
        }
        EXPECT_EQ(image, before);
    };
    const auto fill = [&](uint32_t slots) {
        for (uint32_t slot = 0; slot < slots; ++slot) {
            put_bme(0, slot);
        }
    };
    const auto second_bm = [&](uint32_t sequence0, uint32_t sequence1) {
        put_header(0, sequence0);
        put_header(1, sequence1);
        put_bme(1, 0);
        put_bme(1, 1);
    };
    const Found none{41, 0, 0, 0};
    expect("fresh", {0, 0, 16, 0}, [] {});
    expect("all erased", none, [&] { image.assign(image.size(), 0xFF); });
    expect("header zero", none, [&] { std::fill_n(bm(0), 16, uint8_t{0}); });
    expect("header torn", none, [&] { bm(0)[15] ^= 1; });
    expect("other sku", {0, 0, 16, 0}, [&] { bm(0)[2] = 9, seal(bm(0), 12); });
    expect("sequence 0", none, [&] { put_header(0, 0); });
    expect("5 and 6", {0, 1, 38, 0}, [&] { second_bm(5, 6); });
    expect("6 and 5", {0, 0, 16, 0}, [&] { second_bm(6, 5); });
    expect("equal", {0, 0, 16, 0}, [&] { second_bm(6, 6); });
    expect("one retired", {0, 1, 38, 0}, [&] {
        second_bm(9, 6);
        std::fill_n(bm(0), 16, uint8_t{0});
    });
    for (const uint32_t field : {8u, 9u, 10u, 11u}) {
        expect("older BM of another geometry", none, [&] {
            second_bm(6, 5);
            bm(1)[field] ^= 1;
            seal(bm(1), 12);
        });
    }
    expect("first entry blank", none, [&] { std::fill_n(bme(0, 0), 22, uint8_t{0xFF}); });
    expect("first entry torn", none, [&] { bme(0, 0)[20] ^= 1; });
    expect("torn second", {0, 0, 16, 1}, [&] { fill(2), bme(0, 1)[3] = 0xFF; });
    expect("one byte of a second", {0, 0, 16, 1}, [&] { bme(0, 1)[21] = 0x6C; });
    expect("torn and torn", none, [&] { fill(3), bme(0, 1)[20] ^= 1, bme(0, 2)[20] ^= 1; });
    expect("torn in the middle", {0, 0, 16 + 3 * 22, 0}, [&] { fill(4), bme(0, 1)[20] ^= 1; });
    expect("full", {0, 0, 4064, 0}, [&] { fill(185); });
    expect("torn in the last place", {0, 0, 4042, 1}, [&] { fill(185), bme(0, 184)[1] ^= 1; });
    expect("a block twice", none, [&] { fill(2), bme(0, 1)[3] = 4, seal(bme(0, 1), 18); });
    expect("no such block", none, [&] { fill(2), bme(0, 1)[9] = 10, seal(bme(0, 1), 18); });
}

TEST_F(EfsTest, MountReadsUnsteadyBlockMapsAgain) {
    using Effect = DeviceFault::Effect;
    // The double flips a bit in the middle of a read: of a whole BM, in its slot 92.
    for (uint32_t slot = 1; slot < 92; ++slot) {
        put_bme(0, slot);
    }
    const struct {
        const char *name;
        uint32_t skip, count;
        Effect effect;
        uint32_t status, offset;
    } cases[] = {
        // Reads 0 and 1 are the headers, read 2 the whole BM.
        {"header good at last", 0, 6, Effect::flip_bit, 0, 2018},
        {"header never good", 0, 7, Effect::flip_bit, 41, 0},
        {"header unreadable", 0, 1, Effect::fail, 41, 0},
        {"BM unreadable", 2, 1, Effect::fail, 5, 0},
        {"erased slot seems used", 2, 1, Effect::flip_bit, 0, 2018},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        device().attach(image);
        fault(DeviceAccess::read, c.skip, c.count, c.effect);
        EXPECT_EQ(EFS_init_tools(image.data()), c.status);
        EXPECT_EQ(efs_ctx.bme_offset, c.offset);
        EXPECT_EQ(efs_ctx.bm_switch_pending, 0);
    }
}

TEST_F(EfsTest, MountNeedsGeometryAndImage) {
    EXPECT_EQ(EFS_init_tools(nullptr), 22u);
    EXPECT_EQ(remount(), 0u);
    const struct {
        uint32_t bm_num, valid, spare;
    } impossible[] = {{0, 7, 3},          {256, 7, 3}, {2, 256, 0},
                      {2, 0xFFFFFFFF, 3}, {2, 255, 2}, {2, 1, 0}};
    for (const auto &c : impossible) {
        g_efs_bm_num = c.bm_num, g_efs_valid_block_num = c.valid,
        g_efs_non_valid_block_num = c.spare;
        EXPECT_EQ(EFS_init(0), 41u);
        EXPECT_EQ(EFS_do_format(), 41u);
    }
    g_efs_bm_num = 2, g_efs_valid_block_num = 7, g_efs_non_valid_block_num = 3;
    EXPECT_EQ(remount(), 0u);
    efs_image = nullptr;
    EXPECT_EQ(EFS_init(0), 1u);
    EXPECT_EQ(EFS_erase(), 1u);
    EXPECT_EQ(EFS_write_RTFD_marker(), 1u);
    g_efs_autogen_data_loaded = 0;
    EXPECT_EQ(EFS_init_tools(image.data()), 1u);
    EXPECT_EQ(EFS_do_format(), 1u);
}

TEST_F(EfsTest, LibraryOwnsTheImageThatItAllocates) {
    device().detach();
    const Bytes host_image = image;
    ASSERT_EQ(EFS_init(1), 0u);
    EXPECT_NE(efs_image, image.data());
    EXPECT_EQ(image, host_image);
    EXPECT_EQ(Bytes(efs_image, efs_image + efs_size), image);
    EXPECT_EQ(write(0, efs_pattern(100, 1)), 0u);
    EXPECT_EQ(EFS_init(0), 0u);
    EXPECT_EQ(read(0), efs_pattern(100, 1));
    ASSERT_EQ(load({.non_valid_block_num = 4}), 0u);
    EXPECT_EQ(EFS_init(0), 1u) << "the image is too small for this geometry";
    EXPECT_EQ(efs_size, host_image.size());
    EXPECT_EQ(EFS_init(1), 0u);
    EXPECT_EQ(efs_size, host_image.size() + 4096);
}

TEST_F(EfsTest, NothingWorksOnceTheGeometryHasChanged) {
    ASSERT_EQ(write(0, efs_pattern(10, 1)), 0u);
    const Bytes before = image;
    uint32_t word = 1;
    for (const Geometry &other :
         {Geometry{.bm_num = 3}, Geometry{.valid_block_num = 200, .non_valid_block_num = 55},
          Geometry{.layout_id = 1}}) {
        ASSERT_EQ(load(other), 0u);
        const uint32_t results[] = {
            EFS_read(0, 0, &word, &word),
            EFS_write(0, 0, 4, &word),
            EFS_delete(0),
            EFS_get_file_size(0, &word),
            EFS_scan_for_Data_Blocks_status_and_EC(),
            EFS_wear_leveling(0, 0),
            EFS_erase_dirty_block(),
            EFS_idle_reclaim(),
            EFS_commit_BME(&efs_ctx.current_bme, 0, 0),
            EFS_switch_BM(&efs_ctx.current_bme),
            EFS_select_free_page_for_write(&word),
            EFS_bme_swap_and_write_new_block(&efs_ctx.current_bme, 0, &word),
            EFS_write_data_block(9, image.data()),
            EFS_erase_data_block(9, 1),
            EFS_check_next_BM_state(1),
            EFS_erase_next_BM(1),
            EFS_write_RTFD_marker(),
            EFS_do_format(),
            EFS_erase()};
        for (size_t i = 0; i < std::size(results); ++i) {
            EXPECT_EQ(results[i], 1u) << i;
        }
    }
    EXPECT_EQ(image, before);
    ASSERT_EQ(load(geometry), 0u);
    EXPECT_EQ(read(0), efs_pattern(10, 1)) << "the geometry of the mount again";
}

TEST_F(EfsTest, ScanRepairsTheOneSpareCaughtInAnErase) {
    start({.valid_block_num = 3, .non_valid_block_num = 2, .records = {{0, 0, 0, 100}}});
    const uint32_t counts[] = {10, 10, 11, 12};
    for (uint32_t i = 0; i < 4; ++i) {
        put_block_header(i, counts[i]);
    }
    const Bytes sound = image;
    const struct {
        const char *name;
        std::function<void()> damage;
        uint32_t status;
    } cases[] = {
        {"checksum word zeroed", [&] { std::fill_n(block(4) + 12, 4, uint8_t{0}); }, 0},
        {"erased without header", [&] { std::fill_n(block(4), 4096, uint8_t{0xFF}); }, 0},
        {"two bad spares", [&] { block(3)[12] ^= 1, block(4)[12] ^= 1; }, 41},
        {"valid block bad", [&] { block(1)[12] ^= 1; }, 41},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        image = sound;
        block(3)[100] = 0; // dirty
        c.damage();
        const Bytes before = image;
        ASSERT_EQ(remount(), 0u);
        EXPECT_EQ(EFS_scan_for_Data_Blocks_status_and_EC(), c.status);
        EXPECT_EQ(efs_ctx.scan_done, c.status == 0 ? 1 : 0);
        if (c.status != 0) {
            EXPECT_EQ(EFS_delete(0), 41u);
            EXPECT_EQ(EFS_idle_reclaim(), 41u);
            read(0);
            EXPECT_EQ(last_status, 2u);
            EXPECT_EQ(image, before);
            continue;
        }
        EXPECT_EQ(efs_ctx.erase_counts[4], 10u);
        EXPECT_EQ(load_le32(block(4)), 10u);
        EXPECT_EQ(efs_ctx.block_status[0], EFS_BLOCK_DIRTY);
        EXPECT_EQ(efs_ctx.block_status[1], EFS_BLOCK_FREE);
        EXPECT_EQ(efs_ctx.free_block_count, 1u);
        EXPECT_EQ(take_steps(), (Steps{{'W', 0x600C, 4}, {'E', 0x6000, 4096}, {'W', 0x6000, 16}}));
    }
}

} // namespace
} // namespace dolm_test
