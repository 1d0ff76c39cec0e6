// Everything that changes an image: file operations, commits, BM switches, wear levelling, idle
// work.
#include <algorithm>
#include <array>
#include <functional>
#include <map>
#include <ostream>
#include <random>

#include "efs_fixture.h"

namespace dolm_test {
namespace {

using Effect = DeviceFault::Effect;

// Operations and what they write and erase.
class EfsDeviceLog : public EfsTest {
  public:
    using EfsTest::block;
    using EfsTest::bm;
    using EfsTest::image;
    using EfsTest::remount;
    using EfsTest::start;
    using EfsTest::write;

    // A store whose BM in force ends there, with something in the next BM and one dirty spare.
    void fill_bm_up_to(uint32_t end) {
        bm(1)[2000] = 0;
        block(8)[50] = 0;
        ASSERT_EQ(remount(), 0u);
        efs_ctx.bme_offset = end - 22;
    }
    // With entries of 20 bytes, of which the last one would fill the block; the one in force there.
    void use_bm_of_204_entries(uint32_t in_force) {
        start({.valid_block_num = 5});
        efs_ctx.bme_offset = in_force;
    }
    static uint32_t commit() { return EFS_commit_BME(&efs_ctx.current_bme, 0, 0); }
    static uint32_t switch_bm() {
        efs_ctx.bm_switch_pending = 1;
        return commit();
    }
};

struct LogCase {
    const char *name;
    std::function<void(EfsDeviceLog &)> before;
    std::function<uint32_t(EfsDeviceLog &)> run;
    std::string log;
    uint32_t status = EFS_OK;
};

void PrintTo(const LogCase &test, std::ostream *out) {
    *out << test.name;
}

// The erase of a data block, by the block's address, and what a write to one adds.
std::string erase_log(const std::string &block) {
    return "W" + block + "00C+4 E" + block + "000+4096 W" + block + "000+16 ";
}
std::string data_log(const std::string &block) {
    return "W" + block + "010+4076 W" + block + "FFC+4 ";
}

using Test = EfsDeviceLog &;
void nothing(Test) {}

const LogCase log_cases[] = {
    {"write_over_two_blocks", nothing, [](Test t) { return t.write(3, efs_pattern(5000, 1)); },
     data_log("9") + data_log("A") + "W26+22 "},
    {"write_that_has_to_erase_first",
     [](Test t) { t.write(3, efs_pattern(5000, 1)), t.write(0, efs_pattern(3, 2)); },
     [](Test t) { return t.write(0, efs_pattern(4, 3)); },
     erase_log("5") + data_log("5") + "W52+22 "},
    {"delete", [](Test t) { t.write(1, efs_pattern(10, 1)); }, [](Test) { return EFS_delete(1); },
     data_log("A") + "W3C+22 "},
    {"delete_of_no_file", nothing, [](Test) { return EFS_delete(1); }, "", EFS_NO_FILE},
    {"write_to_a_spare_that_is_not_erased_any_more",
     [](Test t) {
         EFS_scan_for_Data_Blocks_status_and_EC();
         t.block(7)[4000] = 0;
     },
     [](Test t) { return t.write(8, efs_pattern(9, 9)); }, "", EFS_BAD_DATA},
    {"switch", nothing, [](Test t) { return t.switch_bm(); }, "W1010+22 W1000+16 W0+16 "},
    {"commit_behind_a_switch", [](Test t) { t.commit(), t.switch_bm(); },
     [](Test t) { return t.commit(); }, "W1026+22 "},
    {"switch_into_a_used_bm", [](Test t) { t.switch_bm(); }, [](Test t) { return t.switch_bm(); },
     "WC+4 E0+4096 W10+22 W0+16 W1000+16 "},
    {"last_entry_in_a_bm", [](Test t) { t.use_bm_of_204_entries(4036); },
     [](Test t) { return t.commit(); }, "WFD8+20 "},
    {"switch_rather_than_end_an_entry_with_the_block",
     [](Test t) { t.use_bm_of_204_entries(4056); }, [](Test t) { return t.commit(); },
     "W1010+20 W1000+16 W0+16 "},
    {"switch_to_the_last_sequence", [](Test) { efs_ctx.bm_sequence = 0xFFFFFFFE; },
     [](Test t) { return t.switch_bm(); }, "W1010+22 W1000+16 W0+16 "},
    {"switch_behind_the_last_sequence", [](Test) { efs_ctx.bm_sequence = 0xFFFFFFFF; },
     [](Test t) { return t.switch_bm(); }, "", EFS_SEQUENCE_EXHAUSTED},
    {"switch_with_one_bm", [](Test t) { t.start({.bm_num = 1}); },
     [](Test t) { return t.switch_bm(); }, "", EFS_BAD_DATA},
    {"idle_with_one_bm", [](Test t) { t.start({.bm_num = 1}); },
     [](Test) { return EFS_idle_reclaim(); }, ""},
    {"idle_with_nothing_to_do", nothing, [](Test) { return EFS_idle_reclaim(); }, ""},
    {"idle_below_the_mark", [](Test t) { t.fill_bm_up_to(2856); },
     [](Test) { return EFS_idle_reclaim(); }, erase_log("A")},
    {"idle_above_the_mark", [](Test t) { t.fill_bm_up_to(2857); },
     [](Test) { return EFS_idle_reclaim(); }, "W100C+4 E1000+4096 "},
    {"idle_above_the_mark_again",
     [](Test t) {
         t.fill_bm_up_to(2857);
         EFS_idle_reclaim();
         EXPECT_EQ(efs_ctx.next_bm_state, EFS_NEXT_BM_ERASED) << "no second look is needed";
     },
     [](Test) { return EFS_idle_reclaim(); }, erase_log("A")},
    {"erase_of_the_next_bm", nothing, [](Test) { return EFS_erase_next_BM(1); },
     "W100C+4 E1000+4096 "},
    {"marker", nothing, [](Test) { return EFS_write_RTFD_marker(); }, "W0+4 "},
    {"wipe_ends_with_the_bm_in_force", nothing, [](Test) { return EFS_erase(); },
     "W100C+4 E1000+4096 WC+4 E0+4096 "},
    {"wipe_of_an_unmounted_store", [](Test) { EFS_erase(); }, [](Test) { return EFS_erase(); },
     "E0+4096 E1000+4096 "},
};

class EfsDeviceLogTest : public EfsDeviceLog, public testing::WithParamInterface<LogCase> {};

TEST_P(EfsDeviceLogTest, IsAsExpected) {
    GetParam().before(*this);
    take_events();
    EXPECT_EQ(GetParam().run(*this), GetParam().status);
    EXPECT_EQ(take_events(), GetParam().log);
    EXPECT_TRUE(device().out_of_range().empty());
}

INSTANTIATE_TEST_SUITE_P(All, EfsDeviceLogTest, testing::ValuesIn(log_cases),
                         [](const auto &test) { return std::string(test.param.name); });

TEST_F(EfsTest, SwitchesCountAndTheMarkerTakesItsBmOutOfTheMount) {
    for (uint32_t sequence = 2; sequence < 5; ++sequence) {
        efs_ctx.bm_switch_pending = 1;
        ASSERT_EQ(EFS_commit_BME(&efs_ctx.current_bme, sequence, 9), 0u);
        const uint32_t in_force = efs_ctx.current_bm;
        EXPECT_EQ(dolm::load_le32(bm(in_force) + 4), sequence);
        EXPECT_EQ(Bytes(bm(1 - in_force), bm(1 - in_force) + 16), Bytes(16, 0));
    }
    ASSERT_EQ(remount(), 0u);
    EXPECT_EQ(std::pair(efs_ctx.current_bme.aux0, efs_ctx.current_bme.aux1), std::pair(4u, 9u));
    ASSERT_EQ(write(0, efs_pattern(4, 1)), 0u);
    ASSERT_EQ(EFS_write_RTFD_marker(), 0u);
    EXPECT_EQ(Bytes(bm(0), bm(0) + 4), (Bytes{'R', 'D', 'F', 'S'}));
    EXPECT_EQ(remount(), 0u);
    EXPECT_EQ(read(0), efs_pattern(4, 1));
    EXPECT_EQ(EFS_erase(), 0u);
    EXPECT_EQ(EFS_is_initialized(), 0);
    EXPECT_EQ(remount(), 41u);
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
    EXPECT_EQ(EFS_delete(7), 22u);
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
