// Everything that changes an image: file operations, commits, BM switches, wear levelling, idle
// work.
#include <algorithm>
#include <functional>
#include <map>
#include <random>

#include "efs_fixture.h"

namespace dolm_test {
namespace {

using dolm::load_le16;
using dolm::load_le32;
using Effect = DeviceFault::Effect;

TEST_F(EfsTest, WriteOverTwoBlocksTouchesSparesAndOneEntryAlone) {
    const Bytes content = efs_pattern(5000, 1);
    ASSERT_EQ(write(3, content), 0u);
    EXPECT_EQ(take_steps(), (Steps{{'W', 0x9010, 4076},
                                   {'W', 0x9FFC, 4},
                                   {'W', 0xA010, 4076},
                                   {'W', 0xAFFC, 4},
                                   {'W', 38, 22}}));
    EXPECT_EQ(Bytes(bme(0, 1), bme(0, 1) + 10), (Bytes{0, 1, 2, 7, 8, 5, 6, 3, 4, 9}));
    EXPECT_EQ(load_le16(block(7) + 16), 5000);
    EXPECT_EQ(load_le16(block(8) + 16), 0xFFFF);
    EXPECT_EQ(load_le32(block(7)), 1u) << "the spare keeps its header";
    EXPECT_EQ(read(3), content);
    EXPECT_EQ(efs_ctx.free_block_count, 1u);

    // One free block is left and one is needed; the next write has to erase first.
    ASSERT_EQ(write(0, efs_pattern(3, 2)), 0u);
    take_steps();
    ASSERT_EQ(write(0, efs_pattern(4, 3)), 0u);
    EXPECT_EQ(take_steps(), (Steps{{'W', 0x500C, 4},
                                   {'E', 0x5000, 4096},
                                   {'W', 0x5000, 16},
                                   {'W', 0x5010, 4076},
                                   {'W', 0x5FFC, 4},
                                   {'W', 82, 22}}));
    EXPECT_EQ(load_le32(block(3)), 2u);
    EXPECT_TRUE(device().breaches().empty());
}

TEST_F(EfsTest, FilesThatShareBlocksKeepTheirBytes) {
    std::map<uint32_t, Bytes> expected;
    uint32_t seed = 0;
    for (const auto &[file, length] : std::vector<std::pair<uint32_t, uint32_t>>{{1, 1000},
                                                                                 {2, 500},
                                                                                 {3, 5000},
                                                                                 {9, 7144},
                                                                                 {0, 4068},
                                                                                 {5, 0},
                                                                                 {8, 3972},
                                                                                 {3, 4073},
                                                                                 {9, 3072},
                                                                                 {3, 4072},
                                                                                 {9, 3073},
                                                                                 {1, 0},
                                                                                 {8, 1},
                                                                                 {4, 4072}}) {
        SCOPED_TRACE(testing::Message() << "file " << file << " length " << length);
        expected[file] = efs_pattern(length, ++seed);
        ASSERT_EQ(write(file, expected[file]), 0u);
        for (const auto &[other, content] : expected) {
            ASSERT_EQ(read(other), content);
            uint32_t size = 0;
            EXPECT_EQ(EFS_get_file_size(other, &size), 0u);
            EXPECT_EQ(size, content.size());
            for (const uint32_t offset : {1u, 3071u, 3072u, 3073u, 4071u, 4072u, 4073u, 7141u}) {
                if (offset <= content.size()) {
                    const auto end = std::min<size_t>(offset + 4100, content.size());
                    EXPECT_EQ(
                        read(other, offset, 4100),
                        Bytes(content.begin() + offset, content.begin() + static_cast<long>(end)));
                }
            }
        }
    }
    ASSERT_EQ(EFS_delete(3), 0u);
    expected.erase(3);
    ASSERT_EQ(remount(), 0u);
    for (const auto &[other, content] : expected) {
        EXPECT_EQ(read(other), content);
    }
}

TEST_F(EfsTest, FileOperationsGiveTheirResults) {
    ASSERT_EQ(write(1, efs_pattern(10, 1)), 0u);
    ASSERT_EQ(write(5, {}), 0u);
    const Bytes data(0x10000, 1);
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
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        Bytes buffer(0x10000, 0);
        uint32_t length = c.length;
        EXPECT_EQ(EFS_read(c.file, c.offset, &length, buffer.data()), c.read);
        EXPECT_EQ(length, c.delivered);
        EXPECT_EQ(EFS_write(c.file, c.offset, c.length, data.data()), c.write);
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
    EXPECT_EQ(EFS_get_file_size(1, &length), 2u);
    EXPECT_EQ(EFS_erase(), 0u);
    length = 7;
    EXPECT_EQ(EFS_read(1, 0, &length, &length), 1u);
    EXPECT_EQ(length, 0u);
    EXPECT_EQ(EFS_write(1, 0, 0, &length), 1u);
    EXPECT_EQ(EFS_delete(1), 1u);
    EXPECT_EQ(EFS_get_file_size(1, &length), 1u);
}

TEST_F(EfsTest, WithoutSparesNothingCanBeChanged) {
    start({.non_valid_block_num = 0});
    EXPECT_EQ(write(0, efs_pattern(4, 1)), 28u);
    EXPECT_EQ(EFS_delete(0), 28u);
    EXPECT_EQ(EFS_erase_dirty_block(), 41u);
    EXPECT_EQ(EFS_idle_reclaim(), 0u);
}

TEST_F(EfsTest, DamagedRecordsAndBlocksAreRefused) {
    ASSERT_EQ(write(3, efs_pattern(5000, 1)), 0u);
    ASSERT_EQ(write(8, efs_pattern(50, 2)), 0u);
    const Bytes sound = image;
    const auto reseal = [&](uint8_t *at) { seal(at + 16, 4076); };
    uint8_t *const head = block(efs_ctx.current_bme.valid_map[3]);
    uint8_t *const tail = block(efs_ctx.current_bme.valid_map[4]);
    const struct {
        const char *name;
        std::function<void()> damage;
        uint32_t read, size, write;
    } cases[] = {
        {"payload of the first record", [&] { head[30] ^= 1; }, 41, 41, 41},
        {"the same, block sound", [&] { head[30] ^= 1, reseal(head); }, 41, 41, 0},
        {"payload of the second record", [&] { tail[30] ^= 1; }, 41, 0, 41},
        {"the same, block sound", [&] { tail[30] ^= 1, reseal(tail); }, 2, 0, 0},
        {"no file, bad checksum", [&] { head[16] = head[17] = 0xFF, reseal(head); }, 2, 2, 0},
        {"no file in a bad block", [&] { head[16] = head[17] = 0xFF; }, 41, 41, 41},
        {"footer", [&] { head[4095] ^= 1; }, 0, 0, 41},
        {"header", [&] { head[0] ^= 1; }, 0, 0, 41},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        image = sound;
        c.damage();
        ASSERT_EQ(remount(), 0u);
        read(3);
        EXPECT_EQ(last_status, c.read);
        uint32_t size = 0;
        EXPECT_EQ(EFS_get_file_size(3, &size), c.size);
        EXPECT_EQ(write(3, efs_pattern(4500, 3)), c.write);
        EXPECT_EQ(read(8), efs_pattern(50, 2));
    }
    // A length that the list no longer allows, and a continuation past the last block.
    image = sound;
    ASSERT_EQ(load({.records = {{3, 3, 0, 4999}}}), 0u);
    ASSERT_EQ(remount(), 0u);
    read(3);
    EXPECT_EQ(last_status, 41u);
    ASSERT_EQ(load({.records = {{3, 6, 0, 5000}}}), 0u);
    uint8_t *const last = block(efs_ctx.current_bme.valid_map[6]) + 16;
    dolm::store_le16(last, 4073);
    Bytes record{last[0], last[1]};
    record.insert(record.end(), last + 4, last + 4076);
    dolm::store_le16(last + 2, static_cast<uint16_t>(EFS_crc16(6, record.data(), 4074)));
    EXPECT_EQ(read(3).size(), 0u);
    EXPECT_EQ(last_status, 41u);
    EXPECT_EQ(read(3, 0, 4072).size(), 4072u);
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

    for (uint32_t failing = 0; failing < 5; ++failing) {
        SCOPED_TRACE(failing);
        ASSERT_EQ(remount(), 0u);
        while (EFS_scan_for_Data_Blocks_status_and_EC() == 0 && efs_ctx.free_block_count < 3) {
            ASSERT_EQ(EFS_erase_dirty_block(), 0u);
        }
        const uint32_t bm_before = efs_ctx.current_bm;
        fault(DeviceAccess::write, failing, 1, Effect::flip_bit);
        EXPECT_EQ(write(3, efs_pattern(4900, failing)), 41u);
        EXPECT_EQ(read(3), old);
        EXPECT_EQ(efs_ctx.bm_switch_pending, failing == 4 ? 1 : 0);
        ASSERT_EQ(write(8, efs_pattern(9, failing)), 0u);
        EXPECT_EQ(efs_ctx.current_bm == bm_before, failing != 4);
        EXPECT_EQ(efs_ctx.bm_switch_pending, 0);
        ASSERT_EQ(remount(), 0u);
        EXPECT_EQ(read(3), old);
        EXPECT_EQ(read(8), efs_pattern(9, failing));
    }
    // A spare that has lost its erased state since the scan is left alone.
    ASSERT_EQ(EFS_scan_for_Data_Blocks_status_and_EC(), 0u);
    ASSERT_EQ(EFS_erase_dirty_block(), 0u);
    uint32_t slot = 0;
    ASSERT_EQ(EFS_select_free_page_for_write(&slot), 0u);
    block(efs_ctx.current_bme.non_valid_map[slot])[4000] = 0;
    take_steps();
    EXPECT_EQ(write(8, efs_pattern(9, 9)), 41u);
    EXPECT_TRUE(take_steps().empty());
    fault(DeviceAccess::erase, 0, 1, Effect::fail);
    EXPECT_EQ(EFS_erase_dirty_block(), 5u);
    EXPECT_EQ(efs_ctx.scan_done, 0);
    EXPECT_EQ(EFS_idle_reclaim(), 0u);
    EXPECT_EQ(read(3), old);
}

TEST_F(EfsTest, SwitchesBmWhenTheSlotsAreUsedUp) {
    for (uint32_t round = 0; round < 3; ++round) {
        SCOPED_TRACE(round);
        const uint32_t old = round % 2;
        for (uint32_t slot = 1; slot < 185; ++slot) {
            ASSERT_EQ(EFS_commit_BME(&efs_ctx.current_bme, slot, round), 0u);
        }
        EXPECT_EQ(efs_ctx.bme_offset, 4064u);
        EXPECT_EQ(Bytes(bm(old) + 4086, bm(old) + 4096), Bytes(10, 0xFF));
        take_steps();
        ASSERT_EQ(EFS_commit_BME(&efs_ctx.current_bme, 7, 8), 0u);
        const uint32_t from = old * 4096, to = 4096 - from;
        Steps steps = {{'W', to + 16, 22}, {'W', to, 16}, {'W', from, 16}};
        if (round != 0) {
            steps.insert(steps.begin(), {{'W', to + 12, 4}, {'E', to, 4096}});
        }
        EXPECT_EQ(take_steps(), steps);
        EXPECT_EQ(efs_ctx.current_bm, 1 - old);
        EXPECT_EQ(efs_ctx.bme_offset, 16u);
        EXPECT_EQ(load_le32(bm(1 - old) + 4), round + 2);
        EXPECT_EQ(Bytes(bm(old), bm(old) + 16), Bytes(16, 0));
        ASSERT_EQ(remount(), 0u);
        EXPECT_EQ(efs_ctx.current_bm, 1 - old);
        EXPECT_EQ(efs_ctx.current_bme.aux0, 7u);
        EXPECT_EQ(efs_ctx.current_bme.aux1, 8u);
    }
    EXPECT_TRUE(device().breaches().empty());
}

TEST_F(EfsTest, NoEntryEndsAtTheEndOfTheBlock) {
    start({.valid_block_num = 5}); // entries of 20 bytes, of which 204 would fill the block
    for (uint32_t slot = 1; slot < 203; ++slot) {
        ASSERT_EQ(EFS_commit_BME(&efs_ctx.current_bme, 0, 0), 0u);
    }
    EXPECT_EQ(efs_ctx.bme_offset, 4056u);
    ASSERT_EQ(EFS_commit_BME(&efs_ctx.current_bme, 0, 0), 0u);
    EXPECT_EQ(efs_ctx.current_bm, 1u);
    EXPECT_EQ(Bytes(bm(0) + 4076, bm(1)), Bytes(20, 0xFF));
}

TEST_F(EfsTest, SwitchFollowsWhatIsKnownOfTheNextBm) {
    const struct {
        const char *name;
        uint8_t state;
        bool dirty;
        uint32_t unsteady_reads, status, erases, reads;
    } cases[] = {
        {"known erased", 1, false, 0, 0, 0, 5},
        {"known erased but not", 1, true, 0, 41, 0, 7},
        {"known dirty", 2, true, 0, 0, 1, 5},
        {"unknown, erased", 0, false, 0, 0, 0, 6},
        {"unknown, erased at the seventh read", 0, false, 6, 0, 0, 12},
        {"unknown, dirty", 0, true, 0, 0, 1, 12},
    };
    const Bytes fresh = image;
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        image = fresh;
        std::fill_n(bm(1) + 16, c.dirty ? 30 : 0, uint8_t{0});
        ASSERT_EQ(remount(), 0u);
        efs_ctx.next_bm_state = c.state;
        fault(DeviceAccess::read, 0, c.unsteady_reads, Effect::flip_bit);
        EXPECT_EQ(EFS_switch_BM(&efs_ctx.current_bme), c.status);
        EXPECT_EQ(device().count(DeviceAccess::erase), c.erases);
        EXPECT_EQ(device().count(DeviceAccess::read), c.reads);
        EXPECT_EQ(efs_ctx.current_bm, c.status == 0 ? 1u : 0u);
        EXPECT_EQ(efs_ctx.next_bm_state, 0);
    }
}

TEST_F(EfsTest, SwitchEndsWithTheSequenceAndNeedsASecondBm) {
    efs_ctx.bm_sequence = 0xFFFFFFFE;
    efs_ctx.bm_switch_pending = 1;
    ASSERT_EQ(write(0, efs_pattern(4, 1)), 0u);
    EXPECT_EQ(load_le32(bm(1) + 4), 0xFFFFFFFFu);
    efs_ctx.bm_switch_pending = 1;
    const Bytes before(bm(0), bm(2));
    EXPECT_EQ(write(0, efs_pattern(4, 2)), 5u);
    EXPECT_EQ(efs_ctx.bm_switch_pending, 1);
    EXPECT_EQ(Bytes(bm(0), bm(2)), before);
    EXPECT_EQ(read(0), efs_pattern(4, 1));

    start({.bm_num = 1});
    efs_ctx.bm_switch_pending = 1;
    const Bytes bms(bm(0), bm(1));
    EXPECT_EQ(write(0, efs_pattern(4, 2)), 41u);
    EXPECT_EQ(EFS_idle_reclaim(), 0u);
    EXPECT_EQ(Bytes(bm(0), bm(1)), bms);
}

TEST_F(EfsTest, CommitRefusesMapsThatNameNoBlock) {
    uint8_t maps[] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 10};
    EFS_bme bme{maps, maps + 7, 0, 0, 0};
    take_steps();
    EXPECT_EQ(EFS_commit_BME(&bme, 0, 0), 22u);
    EXPECT_EQ(EFS_commit_BME(nullptr, 0, 0), 22u);
    EXPECT_EQ(EFS_bme_swap_and_write_new_block(&bme, 7, image.data()), 22u);
    EXPECT_EQ(EFS_erase_data_block(10, 0), 22u);
    EXPECT_EQ(EFS_write_data_block(0xFFFFF - 1, image.data()), 22u);
    EXPECT_TRUE(take_steps().empty());
}

TEST_F(EfsTest, WearLevelingMovesTheColdestBlockOntoTheHottestSpare) {
    struct Case {
        const char *name;
        uint32_t threshold;
        std::vector<uint32_t> counts; // by block
        Bytes status;                 // by slot
        uint32_t result, from, slot;  // slot 3: no move
        uint32_t free_after;
    };
    const uint32_t top = 0xFFFFFFFF;
    const std::vector<Case> cases = {
        {"all equal", 100, {5, 5, 5, 5, 5, 5, 5, 5, 5, 5}, {2, 2, 2}, 0, 0, 3, 3},
        {"all equal, no threshold", 0, {5, 5, 5, 5, 5, 5, 5, 5, 5, 5}, {2, 2, 2}, 0, 6, 2, 2},
        {"gap one short", 100, {5, 6, 6, 6, 6, 6, 6, 1, 104, 1}, {2, 2, 2}, 0, 0, 3, 3},
        {"gap reached", 100, {5, 6, 6, 6, 6, 6, 6, 1, 105, 1}, {2, 2, 2}, 0, 0, 1, 2},
        {"later on equal counts", 100, {9, 9, 3, 9, 3, 9, 9, 200, 200, 50}, {2, 2, 2}, 0, 4, 1, 2},
        {"dirty target", 100, {9, 9, 3, 9, 9, 9, 9, 200, 200, 300}, {2, 2, 1}, 0, 2, 2, 2},
        {"spares colder", 0, {9, 9, 9, 9, 9, 9, 9, 1, 2, 3}, {2, 2, 2}, 0, 0, 3, 3},
        {"worn out dirty spare", 100, {9, 9, 9, 9, 9, 9, 9, 9, 200, top}, {2, 2, 1}, 0, 6, 1, 1},
        {"all spares worn out", 0, {0, 0, 0, 0, 0, 0, 0, top, top, top}, {1, 1, 1}, 0, 0, 3, 0},
    };
    const Bytes fresh = image;
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        image = fresh;
        ASSERT_EQ(load({.wear_leveling_threshold = c.threshold}), 0u);
        ASSERT_EQ(remount(), 0u);
        for (uint32_t i = 0; i < 10; ++i) {
            put_block_header(i, c.counts[i]);
        }
        for (uint32_t slot = 0; slot < 3; ++slot) {
            block(7 + slot)[50] = c.status[slot] == EFS_BLOCK_DIRTY ? 0 : 0xFF;
        }
        ASSERT_EQ(EFS_scan_for_Data_Blocks_status_and_EC(), 0u);
        EXPECT_EQ(EFS_wear_leveling(5, 6), c.result);
        EXPECT_EQ(efs_ctx.free_block_count, c.free_after);
        if (c.slot == 3) {
            EXPECT_TRUE(take_steps().empty());
            continue;
        }
        const uint32_t target = 7 + c.slot;
        const bool was_dirty = c.status[c.slot] == EFS_BLOCK_DIRTY;
        const uint32_t at = (2 + target) * 4096;
        Steps steps = {{'W', at + 16, 4080}, {'W', 38, 22}};
        if (was_dirty) {
            steps.insert(steps.begin(), {{'W', at + 12, 4}, {'E', at, 4096}, {'W', at, 16}});
        }
        EXPECT_EQ(take_steps(), steps);
        EXPECT_EQ(efs_ctx.current_bme.valid_map[c.from], target);
        EXPECT_EQ(efs_ctx.current_bme.non_valid_map[c.slot], c.from);
        EXPECT_EQ(efs_ctx.current_bme.aux1, 6u);
        EXPECT_EQ(efs_ctx.block_status[c.slot], EFS_BLOCK_DIRTY);
        EXPECT_EQ(load_le32(block(target)), c.counts[target] + (was_dirty ? 1 : 0));
        EXPECT_EQ(efs_ctx.erase_counts[target], load_le32(block(target)));
        EXPECT_TRUE(std::equal(block(target) + 16, block(target) + 4096, block(c.from) + 16));
    }
}

TEST_F(EfsTest, LeastWornSparesAreTakenFirst) {
    const uint32_t top = 0xFFFFFFFF;
    const struct {
        uint32_t counts[3];
        uint32_t slot; // 3: none
    } cases[] = {
        {{5, 3, 3}, 1}, {{3, 3, 3}, 0}, {{9, 8, 7}, 2}, {{top, top, 4}, 2}, {{top, top, top}, 3}};
    for (const auto &c : cases) {
        ASSERT_EQ(EFS_scan_for_Data_Blocks_status_and_EC(), 0u);
        std::copy_n(c.counts, 3, efs_ctx.erase_counts + 7);
        uint32_t slot = 3;
        EXPECT_EQ(EFS_select_free_page_for_write(&slot), c.slot == 3 ? 41u : 0u);
        EXPECT_EQ(slot, c.slot);
        std::fill_n(efs_ctx.block_status, 3, EFS_BLOCK_DIRTY);
        efs_ctx.free_block_count = 0;
        EXPECT_EQ(EFS_erase_dirty_block(), c.slot == 3 ? 41u : 0u);
        if (c.slot < 3) {
            EXPECT_EQ(efs_ctx.block_status[c.slot], EFS_BLOCK_FREE);
            EXPECT_EQ(efs_ctx.erase_counts[7 + c.slot], c.counts[c.slot] + 1);
            EXPECT_EQ(efs_ctx.free_block_count, 1u);
        }
    }
}

TEST_F(EfsTest, IdleReclaimDoesOneThingAtATime) {
    bm(1)[2000] = 0;
    block(8)[50] = 0;
    ASSERT_EQ(remount(), 0u);
    efs_ctx.bme_offset = 2856 - 22;
    ASSERT_EQ(EFS_idle_reclaim(), 0u);
    EXPECT_EQ(efs_ctx.next_bm_state, EFS_NEXT_BM_NEEDS_ERASE);
    EXPECT_EQ(take_steps(), (Steps{{'W', 0xA00C, 4}, {'E', 0xA000, 4096}, {'W', 0xA000, 16}}));
    ASSERT_EQ(EFS_idle_reclaim(), 0u);
    EXPECT_TRUE(take_steps().empty());
    ++efs_ctx.bme_offset;
    fault(DeviceAccess::erase, 0, 1, Effect::fail);
    EXPECT_EQ(EFS_idle_reclaim(), 5u);
    EXPECT_EQ(efs_ctx.next_bm_state, EFS_NEXT_BM_UNKNOWN);
    take_steps();
    ASSERT_EQ(EFS_idle_reclaim(), 0u);
    EXPECT_EQ(take_steps(), (Steps{{'W', 0x100C, 4}, {'E', 0x1000, 4096}}));
    EXPECT_EQ(efs_ctx.next_bm_state, EFS_NEXT_BM_ERASED);

    EXPECT_EQ(EFS_check_next_BM_state(2), 22u);
    EXPECT_EQ(EFS_erase_next_BM(2), 22u);
    EXPECT_EQ(efs_ctx.next_bm_state, EFS_NEXT_BM_ERASED);
    EXPECT_EQ(EFS_check_next_BM_state(0), 0u);
    EXPECT_EQ(efs_ctx.next_bm_state, EFS_NEXT_BM_NEEDS_ERASE);
    EXPECT_EQ(EFS_erase_next_BM(1), 0u);
    EXPECT_EQ(efs_ctx.next_bm_state, EFS_NEXT_BM_UNKNOWN);
}

TEST_F(EfsTest, EraseWipesTheBmInForceLast) {
    efs_ctx.bm_switch_pending = 1;
    ASSERT_EQ(write(0, efs_pattern(4, 1)), 0u);
    ASSERT_EQ(efs_ctx.current_bm, 1u);
    take_steps();
    EXPECT_EQ(EFS_erase(), 0u);
    EXPECT_EQ(take_steps(),
              (Steps{{'W', 12, 4}, {'E', 0, 4096}, {'W', 0x100C, 4}, {'E', 0x1000, 4096}}));
    EXPECT_EQ(EFS_is_initialized(), 0);
    EXPECT_EQ(EFS_erase(), 0u);
    EXPECT_EQ(take_steps(), (Steps{{'E', 0, 4096}, {'E', 0x1000, 4096}}));
    EXPECT_EQ(remount(), 41u);
}

TEST_F(EfsTest, MarkerTakesBm0OutOfTheMount) {
    efs_ctx.bm_switch_pending = 1;
    ASSERT_EQ(write(0, efs_pattern(4, 1)), 0u);
    ASSERT_EQ(EFS_write_RTFD_marker(), 0u);
    EXPECT_EQ(Bytes(bm(0), bm(0) + 4), (Bytes{'R', 'D', 'F', 'S'}));
    EXPECT_EQ(remount(), 0u);
    EXPECT_EQ(read(0), efs_pattern(4, 1));
    efs_ctx.bm_switch_pending = 1;
    ASSERT_EQ(write(0, efs_pattern(5, 1)), 0u);
    ASSERT_EQ(EFS_write_RTFD_marker(), 0u);
    EXPECT_EQ(remount(), 41u);
}

TEST_F(EfsTest, LongRunAgreesWithAModel) {
    for (const Geometry &shape :
         {Geometry{}, Geometry{.bm_num = 3, .wear_leveling_threshold = 4}}) {
        start(shape);
        constexpr uint32_t seed = 20240611;
        SCOPED_TRACE(testing::Message() << "seed " << seed);
        std::mt19937 engine(seed);
        const auto random = [&] { return static_cast<uint32_t>(engine()); };
        std::map<uint32_t, Bytes> model;
        const std::pair<uint32_t, uint32_t> files[] = {{0, 4068}, {1, 1000}, {2, 500}, {3, 5000},
                                                       {5, 0},    {8, 3972}, {9, 7144}};
        for (uint32_t step = 0; step < 3000; ++step) {
            SCOPED_TRACE(step);
            const auto [file, limit] = files[random() % std::size(files)];
            const uint32_t kind = random() % 16;
            if (kind == 0) {
                const uint32_t before = model.contains(file) ? 0 : 2;
                ASSERT_EQ(EFS_delete(file), before);
                model.erase(file);
            } else if (kind == 1) {
                ASSERT_EQ(remount(), 0u);
                device().keep_log(false);
            } else if (kind < 5) {
                ASSERT_EQ(EFS_idle_reclaim(), 0u);
            } else {
                model[file] = efs_pattern(random() % (limit + 1), step);
                ASSERT_EQ(write(file, model[file]), 0u);
            }
            const uint32_t other = files[random() % std::size(files)].first;
            const Bytes content = read(other);
            ASSERT_EQ(last_status, model.contains(other) ? 0u : 2u);
            ASSERT_EQ(content, model.contains(other) ? model[other] : Bytes{});
        }
        EXPECT_TRUE(device().breaches().empty());
        EXPECT_TRUE(device().out_of_range().empty());
        // Levelling keeps the counts together where the threshold is low.
        ASSERT_EQ(EFS_scan_for_Data_Blocks_status_and_EC(), 0u);
        const auto [low, high] =
            std::minmax_element(efs_ctx.erase_counts, efs_ctx.erase_counts + blocks());
        EXPECT_LE(*high - *low, shape.wear_leveling_threshold + 8);
    }
}

} // namespace
} // namespace dolm_test
