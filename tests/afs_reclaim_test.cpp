// Reclaim in the translation layer of AFS: what is copied in which order, what a failure leaves,
// and which EU is picked.
#include <gtest/gtest.h>

#include <string>
#include <tuple>

#include "afs/ftl_format.h"
#include "ftl_store.h"

namespace {

using namespace dolm;
using namespace dolm_test;

// Erase, copies, header, magic of the source, commit.
std::string reclaim_events(uint32_t source, uint32_t target, const std::string &copies) {
    const std::string to = std::to_string(target);
    return " e" + to + ":0 e" + to + ":4096" + copies + " w" + to + ":0+17 w" +
           std::to_string(source) + ":0+4 w" + to + ":17+1";
}

TEST(AfsReclaim, DataEuIsCopiedInRunsThatEndAtDeadSlots) {
    FtlStore store;
    store.fill_data_eu(0);
    store.ftl().alloc_cursor = AFS_FTL_NONE;
    store.attach();
    EXPECT_EQ(reclaim_eu(store.context(), 3, 1), AFS_RC_NOT_RECLAIMED) << "full";
    EXPECT_EQ(store.events(),
              reclaim_events(3, spare, " w7:4100+4092 w7:78+62 w7:140+3960 w7:18+60"));
    EXPECT_EQ(store.ftl().spare_eu, 3);
    EXPECT_EQ(store.row(3).sequence, 0u);
    EXPECT_EQ(store.row(spare).erase_count, 2u);
    EXPECT_EQ(store.row(spare).sequence, 8u);

    for (const uint32_t chunk : {2u, 100u, 121u}) {
        store.trim(store.chunk_va(chunk));
    }
    store.attach();
    EXPECT_EQ(reclaim_eu(store.context(), spare, 1), AFS_RC_OK);
    EXPECT_EQ(store.events(), reclaim_events(spare, 3,
                                             " w3:6806+1320 w3:119+20 w3:2648+4092 w3:56+62"
                                             " w3:338+2310 w3:21+35 w3:140+132 w3:18+2"));
    EXPECT_EQ(store.ftl().alloc_cursor, 2u) << "the lowest dead slot";
    EXPECT_EQ(std::tuple(store.row(3).dirty_pages, store.row(3).free_pages), std::tuple(3, 3));

    store.attach();
    EXPECT_EQ(reclaim_eu(store.context(), 5, 1), AFS_RC_OK) << "dead";
    EXPECT_EQ(store.events(), reclaim_events(5, spare, ""));
    EXPECT_EQ(store.ftl().alloc_cursor, 2u) << "a range that is left is kept";
    EXPECT_EQ(store.row(spare).free_pages, 122);
}

// Fills log EU 0 with pages 0 to 39 alive in its first slots, and the head (EU 1) up to 100.
void prepare_log(FtlStore &store) {
    for (uint32_t i = 0; i < 220; ++i) {
        ASSERT_EQ(store.write_log(i < 40 ? i : 40 + i % 7, i), AFS_RC_OK);
    }
    ASSERT_EQ(std::tuple(store.ftl().write_eu, store.ftl().write_slot), std::tuple(1u, 100u));
    ASSERT_EQ(store.row(0).dirty_pages, 80);
    store.attach();
}

bool log_is_intact(FtlStore &store) {
    bool intact = true;
    for (uint32_t i = 0; i < 220; i += i == 39 ? 174 : 1) {
        intact = intact && store.holds((i < 40 ? i : 40 + i % 7) * AFS_PAGE_SIZE, i);
    }
    return intact;
}

TEST(AfsReclaim, LogPagesFillTheHeadAndGoOnInTheNextEu) {
    FtlStore store;
    prepare_log(store);
    ASSERT_EQ(reclaim_eu(store.context(), 0, 1), AFS_RC_OK);
    EXPECT_EQ(store.events(), reclaim_events(0, spare,
                                             " w1:6860+1320 w1:218+40 w1:259+1"
                                             " w2:260+1320 w2:18+40 w2:59+1"));
    EXPECT_EQ(load_le16(store.at(1, log_entry_offset(120))), 0x7FFF);
    EXPECT_EQ(std::tuple(store.ftl().write_eu, store.ftl().write_slot), std::tuple(2u, 20u));
    EXPECT_EQ(store.row(spare).free_pages, 1);
    EXPECT_TRUE(log_is_intact(store));
}

TEST(AfsReclaim, CommitsWhatTheMountRolledForwardBeforeAnythingElse) {
    FtlStore store;
    ASSERT_EQ(reclaim_eu(store.context(), 5, 1), AFS_RC_OK);
    *store.at(spare, eu_state_offset) = eu_state_pending;
    ASSERT_EQ(store.mount(), AFS_RC_OK);
    ASSERT_EQ(reclaim_eu(store.context(), 4, 0), AFS_RC_OK);
    EXPECT_TRUE(store.events().empty()) << "mode 0 touches no flash";
    ASSERT_EQ(reclaim_eu(store.context(), 4, 1), AFS_RC_OK);
    ASSERT_EQ(reclaim_eu(store.context(), 3, 1), AFS_RC_OK);
    EXPECT_EQ(store.events(), " w7:17+1" + reclaim_events(4, 5, "") + reclaim_events(3, 4, ""));
}

TEST(AfsReclaim, RolledForwardLogThatWasCutInItsFirstWriteStartsItsChainAnew) {
    FtlStore store;
    prepare_log(store);
    ASSERT_EQ(reclaim_eu(store.context(), 0, 1), AFS_RC_OK);
    *store.at(spare, eu_state_offset) = eu_state_pending;
    store_le16(store.at(spare, log_entry_offset(0)), log_chain(0, 3));
    ASSERT_EQ(store.mount(), AFS_RC_OK);
    EXPECT_EQ(std::tuple(store.ftl().write_eu, store.ftl().write_slot), std::tuple(spare, 2u));
    EXPECT_NE(store.ftl().last_page, 0) << "that of the log before";
    ASSERT_EQ(store.write_log(47, 3), AFS_RC_OK);
    ASSERT_EQ(store.write_log(46, 4), AFS_RC_OK);
    ASSERT_EQ(store.mount(), AFS_RC_OK);
    EXPECT_TRUE(store.holds(47 * 64, 3));
    EXPECT_TRUE(store.holds(46 * 64, 4));
}

TEST(AfsReclaim, FailureHalfWayStopsWritesUntilTheNextMount) {
    for (uint32_t write = 0; write < 9; ++write) {
        SCOPED_TRACE(write);
        FtlStore store;
        prepare_log(store);
        DeviceDouble::instance().add_fault({DeviceAccess::write, write});
        ASSERT_EQ(reclaim_eu(store.context(), 0, 1), AFS_RC_IO);
        EXPECT_EQ(store.write_log(47, 3), AFS_RC_IO);
        EXPECT_EQ(reclaim_eu(store.context(), 4, 1), AFS_RC_IO);
        ASSERT_EQ(store.mount(), AFS_RC_OK);
        EXPECT_TRUE(log_is_intact(store));
        EXPECT_EQ(store.write_log(47, 3), AFS_RC_OK);
    }
}

TEST(AfsReclaim, TouchesNothingWhereItCannotRun) {
    FtlStore store;
    EXPECT_EQ(reclaim_eu(store.context(), spare, 1), AFS_RC_NO_SPACE);
    EXPECT_EQ(reclaim_eu(store.context(), spare, 0), AFS_RC_NO_SPACE);
    EXPECT_EQ(reclaim_eu(store.context(), AFS_FTL_NONE, 1), AFS_RC_NO_SPACE);
    store.ftl().sequence = UINT32_MAX;
    EXPECT_EQ(reclaim_eu(store.context(), 4, 1), AFS_RC_IO);
    EXPECT_TRUE(store.events().empty());
}

TEST(AfsChoice, TakesRoomThenDirtUnlessTheWearRuleFires) {
    // Of data EUs 3 to 6.
    const struct {
        const char *name;
        uint8_t dirty[4];
        uint8_t free_pages[4];
        uint32_t erase_count[4];
        uint32_t wear, eu, mode;
    } cases[] = {
        {"oldest with room", {9, 9, 9, 9}, {0, 1, 0, 2}, {1, 1, 1, 1}, 1, 4, 0},
        {"most dirt", {1, 5, 9, 2}, {}, {1, 1, 1, 1}, 1, 5, 1},
        {"of equals the least worn", {9, 9, 9, 2}, {}, {7, 6, 6, 1}, 1, 4, 1},
        {"nothing dirty", {}, {}, {7, 6, 5, 6}, 1, 5, 1},
        {"spread of 101 at a multiple of 10", {9, 0, 0, 0}, {}, {1000, 950, 899, 899}, 1, 5, 1},
        {"the same without the rule", {9, 0, 0, 0}, {}, {1000, 950, 899, 899}, 0, 3, 1},
        {"spread of 100", {9, 0, 0, 0}, {}, {1000, 950, 900, 900}, 1, 3, 1},
        {"no multiple of 10", {9, 0, 0, 0}, {}, {1005, 950, 899, 899}, 1, 3, 1},
    };
    FtlStore store;
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        for (uint32_t i = 0; i < data_eus; ++i) {
            store.row(first_data_eu + i).dirty_pages = c.dirty[i];
            store.row(first_data_eu + i).free_pages = c.free_pages[i];
            store.row(first_data_eu + i).erase_count = c.erase_count[i];
        }
        uint32_t mode = 99;
        EXPECT_EQ(choose_eu_to_reclaim(store.context(), AFS_FTL_KIND_DATA, c.wear, &mode, 0), c.eu);
        EXPECT_EQ(mode, c.mode);
    }
}

TEST(AfsChoice, WrapperChoosesAgainIfTheWearRuleGainedNothing) {
    FtlStore store;
    for (uint32_t index = 0; index < data_eus; ++index) {
        store.fill_data_eu(index);
    }
    store.trim(store.chunk_va(7));
    store.row(5).erase_count = 1;
    store.row(3).erase_count = 1000;
    store.ftl().alloc_cursor = AFS_FTL_NONE;
    ASSERT_EQ(reclaim_eu_wrapper(store.context(), AFS_FTL_KIND_DATA), AFS_RC_OK);
    EXPECT_EQ(store.ftl().alloc_cursor, 7u);
    EXPECT_EQ(store.ftl().spare_eu, 3) << "EU 5 went to EU 7, then EU 3 to EU 5";
}

TEST(AfsIdle, WantsRoomInTheLogThenInTheDataThenDeadUnits) {
    const struct {
        const char *name;
        uint32_t write_slot;           // of the only log EU with room
        uint8_t data_free, data_dirty; // of EU 4
        bool dead_eu;                  // EU 5
        uint32_t needed, kind, eu;
    } cases[] = {
        {"29 slots left", 91, 0, 97, true, 1, AFS_FTL_KIND_LOG, AFS_FTL_NONE},
        {"30 slots left, clean", 90, 0, 0, false, 0, 77, 77},
        {"63 free, 97 dirty", 90, 63, 97, false, 1, AFS_FTL_KIND_DATA, AFS_FTL_NONE},
        {"63 free, 96 dirty", 90, 63, 96, false, 0, 77, 77},
        {"64 free, a dead EU", 90, 64, 97, true, 1, AFS_FTL_KIND_DATA, 5},
    };
    FtlStore store;
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        for (uint32_t eu = 0; eu < spare; ++eu) {
            store.row(eu).free_pages = 0;
            store.row(eu).dirty_pages = 0;
        }
        store.ftl().write_slot = c.write_slot;
        store.row(4).free_pages = c.data_free;
        store.row(4).dirty_pages = c.data_dirty;
        store.row(5).dirty_pages = c.dead_eu ? 122 : 0;
        uint32_t eu = 77;
        uint32_t kind = 77;
        EXPECT_EQ(afs_physical_ftl_idle_reclaim_needed(store.context(), &eu, &kind), c.needed);
        EXPECT_EQ(std::tuple(kind, eu), std::tuple(c.kind, c.eu));
    }
    EXPECT_EQ(afs_physical_ftl_idle_reclaim(store.context()), AFS_RC_OK);
    EXPECT_EQ(store.events(), reclaim_events(5, spare, ""));
}

TEST(AfsForced, FullReclaimWalksAllDataEusAndEndReservedTheFirstTwo) {
    FtlStore store;
    for (const uint32_t cursor : {4u, 5u, 6u, 7u}) {
        EXPECT_EQ(afs_physical_ftl_force_full_reclaim(store.context()), AFS_RC_AGAIN);
        EXPECT_EQ(store.ftl().reclaim_cursor, cursor);
    }
    EXPECT_EQ(afs_physical_ftl_force_full_reclaim(store.context()), AFS_RC_OK);
    EXPECT_EQ(store.ftl().reclaim_cursor, 0);
    ASSERT_EQ(afs_physical_ftl_end_reserved_files_mode(store.context()), AFS_RC_OK);
    EXPECT_EQ(store.ftl().spare_eu, 1);
}

TEST(AfsForced, DirtyEraseZerosDeadAndSpareSlotsAlone) {
    FtlStore store;
    store.fill_data_eu(1);
    store.trim(store.chunk_va(122 + 9));
    store.attach();
    ASSERT_EQ(afs_physical_ftl_force_dirty_erase(store.context()), AFS_RC_OK);
    EXPECT_EQ(DeviceDouble::instance().count(DeviceAccess::read), 5u) << "no read-back";
    std::string expected = " w4:734+66";
    for (uint32_t slot = 0; slot < 122; ++slot) {
        expected += " w7:" + std::to_string(140 + slot * 66) + "+66";
    }
    EXPECT_EQ(store.events(), expected);
}

} // namespace
