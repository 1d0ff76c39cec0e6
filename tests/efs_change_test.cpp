// Everything that changes an image: file operations, commits, BM switches, wear levelling, idle
// work.
#include <algorithm>
#include <array>
#include <map>
#include <random>

#include "efs_fixture.h"

namespace dolm_test {
namespace {

using dolm::load_le32;
using Effect = DeviceFault::Effect;

TEST_F(EfsTest, WriteOverTwoBlocksTouchesSparesAndOneEntryAlone) {
    ASSERT_EQ(write(3, efs_pattern(5000, 1)), 0u);
    EXPECT_EQ(take_events(), "W9010+4076 W9FFC+4 WA010+4076 WAFFC+4 W26+22 ");
    EXPECT_EQ(Bytes(bme(0, 1), bme(0, 1) + 10), (Bytes{0, 1, 2, 7, 8, 5, 6, 3, 4, 9}));
    EXPECT_EQ(efs_ctx.free_block_count, 1u);

    // One free block is left and one is needed; the next write has to erase first.
    ASSERT_EQ(write(0, efs_pattern(3, 2)), 0u);
    take_events();
    ASSERT_EQ(write(0, efs_pattern(4, 3)), 0u);
    EXPECT_EQ(take_events(), erase_events(3) + "W5010+4076 W5FFC+4 W52+22 ");
    EXPECT_EQ(load_le32(block(3)), 2u);
    EXPECT_EQ(load_le32(block(7)), 1u);
    EXPECT_TRUE(device().breaches().empty());
}

TEST_F(EfsTest, FileOperationsGiveTheirResults) {
    ASSERT_EQ(write(1, efs_pattern(10, 1)), 0u);
    ASSERT_EQ(write(5, {}), 0u);
    const struct {
        const char *name;
        uint32_t file, offset, length, read, delivered, write;
    } cases[] = {
        {"whole", 1, 0, 10, 0, 10, 0},
        {"more than there is", 1, 3, 1000, 0, 7, 22},
        {"at the end", 1, 10, 5, 0, 0, 22},
        {"behind the end", 1, 11, 5, 34, 0, 22},
        {"range overflows", 1, 10, 0xFFFFFFF6, 22, 0, 22},
        {"range just fits", 1, 10, 0xFFFFFFF5, 0, 0, 22},
        {"empty file, any offset", 5, 9, 5, 0, 0, 22},
        {"too long", 1, 0, 1001, 0, 10, 34},
        {"never written", 2, 0, 501, 2, 0, 34},
        {"slot not present", 10, 0, 1, 22, 0, 22},
        {"slot too high", 16, 0, 1, 22, 0, 22},
        {"first block too high", 7, 0, 1, 22, 0, 22},
        {"runs past the last block", 4, 0, 4073, 2, 0, 22},
        {"more blocks than spares", 4, 0, 12213, 2, 0, 28},
        {"length that means no file", 4, 0, 0xFFFF, 2, 0, 34},
    };
    Bytes buffer(0x10000, 0);
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        uint32_t length = c.length;
        EXPECT_EQ(EFS_read(c.file, c.offset, &length, buffer.data()), c.read);
        EXPECT_EQ(length, c.delivered);
        EXPECT_EQ(EFS_write(c.file, c.offset, c.length, buffer.data()), c.write);
    }
    uint32_t length = 4;
    EXPECT_EQ(EFS_read(1, 0, nullptr, &length), 22u);
    EXPECT_EQ(EFS_read(1, 0, &length, nullptr), 22u);
    EXPECT_EQ(length, 0u);
    EXPECT_EQ(EFS_write(1, 0, 0, nullptr), 22u);
    EXPECT_EQ(EFS_get_file_size(1, nullptr), 22u);
    EXPECT_EQ(EFS_delete(7), 22u);
    EXPECT_EQ(EFS_delete(16), 22u);
    EXPECT_EQ(EFS_delete(1), 0u);
    EXPECT_EQ(EFS_delete(1), 2u);

    g_efs_files_num = 0xFFFFFFFF;
    EXPECT_EQ(write(0x10000000, {}), 22u) << "beyond the list, whatever the variable says";

    start({.non_valid_block_num = 0});
    EXPECT_EQ(write(0, efs_pattern(4, 1)), 28u);
    EXPECT_EQ(EFS_delete(0), 28u);
    EXPECT_EQ(EFS_erase_dirty_block(), 41u);
    EXPECT_EQ(EFS_idle_reclaim(), 0u);
}

TEST_F(EfsTest, DamagedRecordsAndBlocksAreRefused) {
    ASSERT_EQ(write(3, efs_pattern(5000, 1)), 0u);
    const Bytes sound = image;
    uint8_t *const head = block(efs_ctx.current_bme.valid_map[3]);
    uint8_t *const tail = block(efs_ctx.current_bme.valid_map[4]);
    const auto reseal = [](uint8_t *at) { seal(at + 16, 4076); };
    using Results = std::array<uint32_t, 3>; // read, size, write
    const auto expect = [&](const char *name, Results results, auto &&damage) {
        image = sound;
        damage();
        ASSERT_EQ(remount(), 0u);
        read(3);
        uint32_t size = 0;
        const uint32_t size_status = EFS_get_file_size(3, &size);
        EXPECT_EQ((Results{last_status, size_status, write(3, efs_pattern(4500, 3))}), results)
            << name;
    };
    expect("payload of the first record", {41, 41, 41}, [&] { head[30] ^= 1; });
    expect("in a sound block", {41, 41, 0}, [&] { head[30] ^= 1, reseal(head); });
    expect("payload of the second record", {41, 0, 41}, [&] { tail[30] ^= 1; });
    expect("in a sound block", {2, 0, 0}, [&] { tail[30] ^= 1, reseal(tail); });
    expect("no file", {41, 41, 41}, [&] { head[16] = head[17] = 0xFF; });
    expect("in a sound block", {2, 2, 0}, [&] { head[16] = head[17] = 0xFF, reseal(head); });
    expect("footer", {0, 0, 41}, [&] { head[4095] ^= 1; });
    expect("header", {0, 0, 41}, [&] { head[0] ^= 1; });
    ASSERT_EQ(load({.records = {{3, 3, 0, 4999}}}), 0u);
    expect("longer than the list allows", {41, 41, 0}, [] {});

    // A file that goes on behind the last block, written when there was one more.
    start({.valid_block_num = 8});
    ASSERT_EQ(write(4, efs_pattern(5000, 1)), 0u);
    bm(0)[9] = 7, bm(0)[10] = 4, seal(bm(0), 12);
    ASSERT_EQ(load({.valid_block_num = 7, .non_valid_block_num = 4}), 0u);
    ASSERT_EQ(remount(), 0u);
    EXPECT_EQ(read(4, 0, 4072), efs_pattern(4072, 1));
    EXPECT_TRUE(read(4, 0, 4073).empty());
    EXPECT_EQ(last_status, 41u);
}

TEST_F(EfsTest, ReadsRetryAndFailuresKeepTheOldFile) {
    const Bytes old = efs_pattern(5000, 1);
    ASSERT_EQ(write(3, old), 0u);
    // Each attempt at the first record takes two reads.
    fault(DeviceAccess::read, 0, 12, Effect::flip_bit);
    EXPECT_EQ(read(3), old);
    fault(DeviceAccess::read, 0, 14, Effect::flip_bit);
    read(3);
    EXPECT_EQ(last_status, 41u);

    // The fifth write is the entry in the BM.
    for (uint32_t failing = 0; failing < 5; ++failing) {
        SCOPED_TRACE(failing);
        while (efs_ctx.free_block_count < 3) {
            ASSERT_EQ(EFS_erase_dirty_block(), 0u);
        }
        fault(DeviceAccess::write, failing, 1, Effect::flip_bit);
        EXPECT_EQ(write(3, efs_pattern(4900, failing)), 41u);
        EXPECT_EQ(efs_ctx.free_block_count, failing < 2 ? 2u : 1u);
        EXPECT_EQ(efs_ctx.bm_switch_pending, failing == 4 ? 1 : 0);
        EXPECT_EQ(read(3), old);
        ASSERT_EQ(write(8, efs_pattern(9, failing)), 0u);
        EXPECT_EQ(efs_ctx.current_bm, failing == 4 ? 1u : 0u);
        EXPECT_EQ(efs_ctx.bm_switch_pending, 0);
    }
    // A spare that has lost its erased state since the scan is left alone.
    ASSERT_EQ(EFS_erase_dirty_block(), 0u);
    uint32_t slot = 0;
    ASSERT_EQ(EFS_select_free_page_for_write(&slot), 0u);
    block(efs_ctx.current_bme.non_valid_map[slot])[4000] = 0;
    take_events();
    EXPECT_EQ(write(8, efs_pattern(9, 9)), 41u);
    EXPECT_EQ(take_events(), "");
    fault(DeviceAccess::erase, 0, 1, Effect::fail);
    EXPECT_EQ(EFS_erase_dirty_block(), 5u);
    EXPECT_EQ(efs_ctx.scan_done, 0);
    EXPECT_EQ(EFS_idle_reclaim(), 0u);
    EXPECT_EQ(read(3), old);
}

TEST_F(EfsTest, SwitchesBmRatherThanEndAnEntryWithTheBlock) {
    start({.valid_block_num = 5}); // entries of 20 bytes: 203 go in, a 204th would fill the block
    for (uint32_t round = 0; round < 2; ++round) {
        SCOPED_TRACE(round);
        for (uint32_t slot = 1; slot < 203; ++slot) {
            ASSERT_EQ(EFS_commit_BME(&efs_ctx.current_bme, slot, round), 0u);
        }
        EXPECT_EQ(efs_ctx.bme_offset, 4056u);
        take_events();
        ASSERT_EQ(EFS_commit_BME(&efs_ctx.current_bme, 7, 8), 0u);
        EXPECT_EQ(take_events(),
                  round == 0 ? "W1010+20 W1000+16 W0+16 " : "WC+4 E0+4096 W10+20 W0+16 W1000+16 ");
        EXPECT_EQ(Bytes(bm(round), bm(round) + 16), Bytes(16, 0));
        EXPECT_EQ(load_le32(bm(1 - round) + 4), round + 2);
        ASSERT_EQ(remount(), 0u);
        EXPECT_EQ(efs_ctx.current_bm, 1 - round);
        EXPECT_EQ(efs_ctx.current_bme.aux0, 7u);
        EXPECT_EQ(efs_ctx.current_bme.aux1, 8u);
    }
}

TEST_F(EfsTest, SwitchFollowsWhatIsKnownOfTheNextBm) {
    const Bytes fresh = image;
    using Outcome = std::array<uint32_t, 3>; // status, reads, erases
    const auto switch_bm = [&](uint8_t state, bool dirty, uint32_t unsteady_reads) {
        image = fresh;
        std::fill_n(bm(1) + 16, dirty ? 30 : 0, uint8_t{0});
        EXPECT_EQ(remount(), 0u);
        efs_ctx.next_bm_state = state;
        fault(DeviceAccess::read, 0, unsteady_reads, Effect::flip_bit);
        const uint32_t status = EFS_switch_BM(&efs_ctx.current_bme);
        EXPECT_EQ(efs_ctx.current_bm, status == 0 ? 1u : 0u);
        EXPECT_EQ(efs_ctx.next_bm_state, EFS_NEXT_BM_UNKNOWN);
        return Outcome{status, device().count(DeviceAccess::read),
                       device().count(DeviceAccess::erase)};
    };
    EXPECT_EQ(switch_bm(EFS_NEXT_BM_ERASED, false, 0), (Outcome{0, 5, 0}));
    EXPECT_EQ(switch_bm(EFS_NEXT_BM_ERASED, true, 0), (Outcome{41, 7, 0})) << "but is not";
    EXPECT_EQ(switch_bm(EFS_NEXT_BM_NEEDS_ERASE, true, 0), (Outcome{0, 5, 1}));
    EXPECT_EQ(switch_bm(EFS_NEXT_BM_UNKNOWN, false, 0), (Outcome{0, 6, 0}));
    EXPECT_EQ(switch_bm(EFS_NEXT_BM_UNKNOWN, false, 6), (Outcome{0, 12, 0}));
    EXPECT_EQ(switch_bm(EFS_NEXT_BM_UNKNOWN, true, 0), (Outcome{0, 12, 1}));
}

TEST_F(EfsTest, RefusedCommitsTouchNothing) {
    uint8_t maps[] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 10};
    EFS_bme bme{maps, maps + 7, 0, 0, 0};
    EXPECT_EQ(EFS_commit_BME(&bme, 0, 0), 22u) << "there is no block 10";
    EXPECT_EQ(EFS_commit_BME(nullptr, 0, 0), 22u);
    EXPECT_EQ(EFS_bme_swap_and_write_new_block(&bme, 7, image.data()), 22u);
    EXPECT_EQ(EFS_erase_data_block(10, 0), 22u);
    EXPECT_EQ(EFS_write_data_block(0xFFFFF - 1, image.data()), 22u);
    EXPECT_EQ(take_events(), "");

    efs_ctx.bm_sequence = 0xFFFFFFFE;
    efs_ctx.bm_switch_pending = 1;
    ASSERT_EQ(write(0, efs_pattern(4, 1)), 0u);
    EXPECT_EQ(load_le32(bm(1) + 4), 0xFFFFFFFFu);
    const auto expect_refusal = [&](uint32_t status) {
        efs_ctx.bm_switch_pending = 1;
        const Bytes bms(bm(0), block(0));
        EXPECT_EQ(write(0, efs_pattern(4, 2)), status);
        EXPECT_EQ(efs_ctx.bm_switch_pending, 1);
        EXPECT_EQ(Bytes(bm(0), block(0)), bms);
    };
    expect_refusal(5);
    start({.bm_num = 1});
    expect_refusal(41);
    EXPECT_EQ(EFS_idle_reclaim(), 0u);
}

TEST_F(EfsTest, WearLevelingMovesTheColdestBlockOntoTheHottestSpare) {
    constexpr uint32_t top = 0xFFFFFFFF, no_move = 3;
    const struct {
        const char *name;
        uint32_t threshold;
        std::array<uint32_t, 10> counts; // by block
        Bytes status;                    // by slot
        uint32_t from, slot, free_after;
    } cases[] = {
        {"equal", 100, {5, 5, 5, 5, 5, 5, 5, 5, 5, 5}, {2, 2, 2}, 0, no_move, 3},
        {"equal, no threshold", 0, {5, 5, 5, 5, 5, 5, 5, 5, 5, 5}, {2, 2, 2}, 6, 2, 2},
        {"gap one short", 100, {5, 6, 6, 6, 6, 6, 6, 1, 104, 1}, {2, 2, 2}, 0, no_move, 3},
        {"gap reached", 100, {5, 6, 6, 6, 6, 6, 6, 1, 105, 1}, {2, 2, 2}, 0, 1, 2},
        {"later of equals", 100, {9, 9, 3, 9, 3, 9, 9, 200, 200, 50}, {2, 2, 2}, 4, 1, 2},
        {"dirty target", 100, {9, 9, 3, 9, 9, 9, 9, 200, 200, 300}, {2, 2, 1}, 2, 2, 2},
        {"spares colder", 0, {9, 9, 9, 9, 9, 9, 9, 1, 2, 3}, {2, 2, 2}, 0, no_move, 3},
        {"worn out dirty spare", 100, {9, 9, 9, 9, 9, 9, 9, 9, 200, top}, {2, 2, 1}, 6, 1, 1},
        {"all worn out", 0, {0, 0, 0, 0, 0, 0, 0, top, top, top}, {1, 1, 1}, 0, no_move, 0},
    };
    const Bytes fresh = image;
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        image = fresh;
        g_efs_wear_leveling_threshold = c.threshold;
        ASSERT_EQ(remount(), 0u);
        for (uint32_t i = 0; i < 10; ++i) {
            put_block_header(i, c.counts[i]);
        }
        for (uint32_t slot = 0; slot < 3; ++slot) {
            block(7 + slot)[50] = c.status[slot] == EFS_BLOCK_DIRTY ? 0 : 0xFF;
        }
        ASSERT_EQ(EFS_scan_for_Data_Blocks_status_and_EC(), 0u);
        EXPECT_EQ(EFS_wear_leveling(5, 6), 0u);
        EXPECT_EQ(efs_ctx.free_block_count, c.free_after);
        if (c.slot == no_move) {
            EXPECT_EQ(take_events(), "");
            continue;
        }
        const uint32_t target = 7 + c.slot;
        const bool was_dirty = c.status[c.slot] == EFS_BLOCK_DIRTY;
        EXPECT_EQ(take_events(), (was_dirty ? erase_events(target) : "") +
                                     event('W', (2 + target) * 4096 + 16, 4080) + "W26+22 ");
        EXPECT_EQ(efs_ctx.current_bme.valid_map[c.from], target);
        EXPECT_EQ(efs_ctx.current_bme.non_valid_map[c.slot], c.from);
        EXPECT_EQ(efs_ctx.current_bme.aux1, 6u);
        EXPECT_EQ(efs_ctx.block_status[c.slot], EFS_BLOCK_DIRTY);
        EXPECT_EQ(efs_ctx.erase_counts[target], c.counts[target] + (was_dirty ? 1 : 0));
    }
}

TEST_F(EfsTest, LeastWornSparesAreTakenFirst) {
    constexpr uint32_t top = 0xFFFFFFFF, none = 3;
    ASSERT_EQ(EFS_scan_for_Data_Blocks_status_and_EC(), 0u);
    const auto expect = [](std::array<uint32_t, 3> counts, uint32_t expected) {
        std::copy_n(counts.begin(), 3, efs_ctx.erase_counts + 7);
        std::fill_n(efs_ctx.block_status, 3, EFS_BLOCK_FREE);
        uint32_t slot = none;
        EXPECT_EQ(EFS_select_free_page_for_write(&slot), expected == none ? 41u : 0u);
        EXPECT_EQ(slot, expected);
        std::fill_n(efs_ctx.block_status, 3, EFS_BLOCK_DIRTY);
        EXPECT_EQ(EFS_erase_dirty_block(), expected == none ? 41u : 0u);
        for (slot = 0; slot < 3; ++slot) {
            EXPECT_EQ(efs_ctx.block_status[slot], slot == expected ? 2 : 1);
            EXPECT_EQ(efs_ctx.erase_counts[7 + slot], counts[slot] + (slot == expected ? 1 : 0));
        }
    };
    expect({5, 3, 3}, 1);
    expect({3, 3, 3}, 0);
    expect({top, top, 4}, 2);
    expect({top, top, top}, none);
}

TEST_F(EfsTest, IdleReclaimDoesOneThingAtATime) {
    bm(1)[2000] = 0;
    block(8)[50] = 0;
    ASSERT_EQ(remount(), 0u);
    efs_ctx.bme_offset = 2856 - 22;
    const auto expect = [](uint32_t status, const std::string &events, uint8_t next_bm_state) {
        EXPECT_EQ(EFS_idle_reclaim(), status);
        EXPECT_EQ(take_events(), events);
        EXPECT_EQ(efs_ctx.next_bm_state, next_bm_state);
    };
    expect(0, erase_events(8), EFS_NEXT_BM_NEEDS_ERASE);
    expect(0, "", EFS_NEXT_BM_NEEDS_ERASE);
    ++efs_ctx.bme_offset;
    fault(DeviceAccess::erase, 0, 1, Effect::fail);
    expect(5, "W100C+4 ", EFS_NEXT_BM_UNKNOWN);
    expect(0, "W100C+4 E1000+4096 ", EFS_NEXT_BM_ERASED);

    EXPECT_EQ(EFS_check_next_BM_state(2), 22u);
    EXPECT_EQ(EFS_erase_next_BM(2), 22u);
    EXPECT_EQ(efs_ctx.next_bm_state, EFS_NEXT_BM_ERASED);
    EXPECT_EQ(EFS_check_next_BM_state(0), 0u);
    EXPECT_EQ(efs_ctx.next_bm_state, EFS_NEXT_BM_NEEDS_ERASE);
    EXPECT_EQ(EFS_erase_next_BM(1), 0u);
    EXPECT_EQ(efs_ctx.next_bm_state, EFS_NEXT_BM_UNKNOWN);
}

TEST_F(EfsTest, MarkerAndEraseTakeBmsOutOfTheMount) {
    efs_ctx.bm_switch_pending = 1;
    ASSERT_EQ(write(0, efs_pattern(4, 1)), 0u);
    ASSERT_EQ(EFS_write_RTFD_marker(), 0u);
    EXPECT_EQ(Bytes(bm(0), bm(0) + 4), (Bytes{'R', 'D', 'F', 'S'}));
    EXPECT_EQ(remount(), 0u);
    EXPECT_EQ(read(0), efs_pattern(4, 1));
    // The BM in force goes last.
    EXPECT_EQ(EFS_erase(), 0u);
    EXPECT_EQ(take_events(), "WC+4 E0+4096 W100C+4 E1000+4096 ");
    EXPECT_EQ(EFS_is_initialized(), 0);
    EXPECT_EQ(EFS_erase(), 0u);
    EXPECT_EQ(take_events(), "E0+4096 E1000+4096 ");
    EXPECT_EQ(remount(), 41u);
}

TEST_F(EfsTest, LongRunAgreesWithAModel) {
    constexpr uint32_t seed = 20240611;
    SCOPED_TRACE(testing::Message() << "seed " << seed);
    std::mt19937 engine(seed);
    const auto random = [&] { return static_cast<uint32_t>(engine()); };
    const auto pick = [&](const auto &from) { return from[random() % std::size(from)]; };
    const std::pair<uint32_t, uint32_t> files[] = {{0, 4068}, {1, 1000}, {2, 500}, {3, 5000},
                                                   {5, 0},    {8, 3972}, {9, 7144}};
    // Around the ends of records too.
    const uint32_t places[] = {0, 1, 3071, 3072, 3073, 4071, 4072, 4073, 7144, 0x10000};
    std::map<uint32_t, Bytes> model;
    const auto expect_read = [&](uint32_t file, uint32_t offset, uint32_t length) {
        const Bytes found = read(file, offset, length);
        if (!model.contains(file)) {
            ASSERT_EQ(last_status, 2u);
            return;
        }
        const Bytes &whole = model[file];
        const auto end = static_cast<uint32_t>(whole.size());
        ASSERT_EQ(last_status, offset > end && end != 0 ? 34u : 0u);
        ASSERT_EQ(found, Bytes(whole.begin() + std::min(offset, end),
                               whole.begin() + std::min(offset + length, end)));
    };
    for (const Geometry &shape :
         {Geometry{}, Geometry{.bm_num = 3, .wear_leveling_threshold = 4}}) {
        start(shape);
        model.clear();
        for (uint32_t step = 0; step < 3000; ++step) {
            SCOPED_TRACE(step);
            const auto [file, limit] = pick(files);
            const uint32_t kind = random() % 16;
            if (kind == 0) {
                ASSERT_EQ(EFS_delete(file), model.erase(file) != 0 ? 0u : 2u);
            } else if (kind == 1) {
                ASSERT_EQ(remount(), 0u);
                device().keep_log(false);
            } else if (kind < 5) {
                ASSERT_EQ(EFS_idle_reclaim(), 0u);
            } else {
                const uint32_t length = kind < 9 ? pick(places) : random();
                model[file] = efs_pattern(length <= limit ? length : length % (limit + 1), step);
                ASSERT_EQ(write(file, model[file]), 0u);
            }
            expect_read(pick(files).first, pick(places), pick(places));
        }
        EXPECT_TRUE(device().breaches().empty());
        EXPECT_TRUE(device().out_of_range().empty());
    }
}

} // namespace
} // namespace dolm_test
