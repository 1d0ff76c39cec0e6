// What the translation layer of AFS writes and erases, in which order, operation by operation; and
// which EU it reclaims when.
#include <gtest/gtest.h>

#include <functional>
#include <ostream>
#include <string>
#include <tuple>

#include "afs/ftl_format.h"
#include "ftl_store.h"

namespace {

using namespace dolm;
using namespace dolm_test;

// Erase, copies, header, magic of the source, commit.
std::string reclaim_log(uint32_t source, uint32_t target, const std::string &copies = "") {
    const std::string to = std::to_string(target);
    return " e" + to + ":0 e" + to + ":4096" + copies + " w" + to + ":0+17 w" +
           std::to_string(source) + ":0+4 w" + to + ":17+1";
}

std::string format_log(bool erase) {
    std::string log;
    for (uint32_t eu = 0; eu < eus; ++eu) {
        const std::string at = std::to_string(eu) + ':';
        log += (erase ? " e" + at + "0 e" + at + "4096" : "") + " w" + at + "0+17 w" + at + "17+1";
    }
    return log;
}

// Zeros over a dead page and all of the spare.
std::string dirty_erase_log() {
    std::string log = " w4:734+66";
    for (uint32_t slot = 0; slot < AFS_DATA_EU_PAGES; ++slot) {
        log += " w7:" + std::to_string(data_slot_offset(slot)) + "+66";
    }
    return log;
}

using Step = std::function<void(FtlStore &)>;
using Operation = std::function<uint32_t(FtlStore &)>;

Operation reclaim(uint32_t eu, int32_t mode = AFS_FTL_MODE_RECLAIM) {
    return [=](FtlStore &store) { return reclaim_eu(store.context(), eu, mode); };
}

// Fills a data EU of four; without a range left for the allocator.
Step fill(uint32_t index, const std::vector<uint32_t> &dead_slots = {}) {
    return [=](FtlStore &store) {
        store.fill_data_eu(index);
        for (const uint32_t slot : dead_slots) {
            store.trim(store.chunk_va(index * AFS_DATA_EU_PAGES + slot));
        }
        store.ftl().alloc_cursor = AFS_FTL_NONE;
    };
}

// Fills log EU 0 with pages 0 to 39 alive in its first slots, and the head (EU 1) up to 100.
void prepare_log(FtlStore &store) {
    for (uint32_t i = 0; i < 220; ++i) {
        ASSERT_EQ(store.write_log(i < 40 ? i : 40 + i % 7, i), AFS_RC_OK);
    }
}

void roll_forward(FtlStore &store) {
    ASSERT_EQ(reclaim_eu(store.context(), 5, AFS_FTL_MODE_RECLAIM), AFS_RC_OK);
    *store.at(spare, eu_state_offset) = eu_state_pending;
    ASSERT_EQ(store.mount(), AFS_RC_OK);
}

uint32_t allocate_and_write(FtlStore &store) {
    uint16_t cid = 0;
    const uint32_t status = afs_physical_ftl_allocate_page(store.context(), &cid);
    return status != AFS_RC_OK ? status : store.write(store.chunk_va(cid - file_count), cid);
}

struct Case {
    const char *name;
    Step before;
    Operation run;
    std::string log;
    uint32_t status = AFS_RC_OK;
};

void PrintTo(const Case &test, std::ostream *out) {
    *out << test.name;
}

void nothing(FtlStore &) {}

const Case log_cases[] = {
    {"mount", nothing, [](FtlStore &store) { return store.mount(); }, ""},
    {"format", [](FtlStore &) { DeviceDouble::instance().allow_rewrites(true); },
     [](FtlStore &store) { return afs_physical_ftl_format(store.context(), 1); }, format_log(true)},
    {"format_without_erase", [](FtlStore &) { DeviceDouble::instance().allow_rewrites(true); },
     [](FtlStore &store) { return afs_physical_ftl_format(store.context(), 0); },
     format_log(false)},
    {"log_page", [](FtlStore &store) { store.write_log(7, 1); },
     [](FtlStore &store) { return store.write_log(7, 2); }, " w0:20+2 w0:326+66 w0:23+1"},
    {"data_page", nothing, [](FtlStore &store) { return store.write(store.chunk_va(125), 1); },
     " w4:21+1 w4:338+66 w4:21+1"},
    {"data_page_in_use", [](FtlStore &store) { store.write(store.chunk_va(125), 1); },
     [](FtlStore &store) { return store.write(store.chunk_va(125), 2); }, "", AFS_RC_IO},
    {"trimmed_data_page_in_use",
     [](FtlStore &store) {
         store.write(store.chunk_va(125), 1);
         store.trim(store.chunk_va(125));
         store.trim(store.chunk_va(125));
     },
     [](FtlStore &store) { return store.write(store.chunk_va(125), 2); }, "", AFS_RC_IO},
    {"allocation_in_the_newest_eu", nothing, allocate_and_write, " w6:18+1 w6:140+66 w6:18+1"},
    {"allocation_past_dead_slots", fill(3, {0}),
     [](FtlStore &store) {
         store.write(store.chunk_va(2 * 122), 1);
         store.trim(store.chunk_va(2 * 122));
         store.mount();
         return allocate_and_write(store);
     },
     " w5:19+1 w5:206+66 w5:19+1"},
    {"reclaim_of_a_full_data_eu", fill(0), reclaim(3),
     reclaim_log(3, spare, " w7:4100+4092 w7:78+62 w7:140+3960 w7:18+60"), AFS_RC_NOT_RECLAIMED},
    {"reclaim_of_a_data_eu_with_dead_slots", fill(0, {2, 100, 121}), reclaim(3),
     reclaim_log(3, spare,
                 " w7:6806+1320 w7:119+20 w7:2648+4092 w7:56+62"
                 " w7:338+2310 w7:21+35 w7:140+132 w7:18+2")},
    {"allocation_behind_a_reclaim", fill(0, {2, 100, 121}),
     [](FtlStore &store) {
         reclaim_eu(store.context(), 3, AFS_FTL_MODE_RECLAIM);
         DeviceDouble::instance().log().clear();
         return allocate_and_write(store);
     },
     " w7:20+1 w7:272+66 w7:20+1"},
    {"reclaim_of_a_dead_data_eu", nothing, reclaim(5), reclaim_log(5, spare)},
    {"reclaim_of_a_log_eu_into_two", prepare_log, reclaim(0),
     reclaim_log(0, spare, " w1:6860+1320 w1:218+40 w1:259+1 w2:260+1320 w2:18+40 w2:59+1")},
    {"reclaim_behind_a_mount_that_rolled_forward", roll_forward, reclaim(4),
     " w7:17+1" + reclaim_log(4, 5)},
    {"move_of_the_allocator", roll_forward, reclaim(4, AFS_FTL_MODE_MOVE), ""},
    {"reclaim_of_the_spare", nothing, reclaim(spare), "", AFS_RC_NO_SPACE},
    {"move_to_the_spare", nothing, reclaim(spare, AFS_FTL_MODE_MOVE), "", AFS_RC_NO_SPACE},
    {"reclaim_of_no_eu", nothing, reclaim(AFS_FTL_NONE), "", AFS_RC_NO_SPACE},
    {"reclaim_at_the_end_of_the_sequence",
     [](FtlStore &store) { store.ftl().sequence = UINT32_MAX; }, reclaim(4), "", AFS_RC_IO},
    {"reclaim_by_wear_that_gains_nothing",
     [](FtlStore &store) {
         afs_eu_header worn = load_eu_header(store.at(3));
         worn.erase_count = 1000;
         store_eu_header(store.at(3), worn);
         store.mount();
         for (uint32_t index = 0; index < data_eus; ++index) {
             fill(index)(store);
         }
         store.trim(store.chunk_va(7));
     },
     [](FtlStore &store) { return reclaim_eu_wrapper(store.context(), AFS_FTL_KIND_DATA); },
     reclaim_log(4, spare, " w7:4100+4092 w7:78+62 w7:140+3960 w7:18+60") +
         reclaim_log(3, 4, " w4:4100+4092 w4:78+62 w4:668+3432 w4:26+52 w4:140+462 w4:18+7")},
    {"full_reclaim", nothing,
     [](FtlStore &store) {
         uint32_t status = AFS_RC_AGAIN;
         for (uint32_t calls = 0; status == AFS_RC_AGAIN && calls < 5; ++calls) {
             status = afs_physical_ftl_force_full_reclaim(store.context());
         }
         return status;
     },
     reclaim_log(3, 7) + reclaim_log(4, 3) + reclaim_log(5, 4) + reclaim_log(6, 5) +
         reclaim_log(7, 6)},
    {"end_of_reserved_files", nothing,
     [](FtlStore &store) { return afs_physical_ftl_end_reserved_files_mode(store.context()); },
     reclaim_log(0, 7) + reclaim_log(1, 0)},
    {"dirty_erase", fill(1, {9}),
     [](FtlStore &store) { return afs_physical_ftl_force_dirty_erase(store.context()); },
     dirty_erase_log()},
    {"idle_reclaim_of_a_dead_eu",
     [](FtlStore &store) {
         fill(2)(store);
         for (uint32_t slot = 0; slot < AFS_DATA_EU_PAGES; ++slot) {
             store.trim(store.chunk_va(2 * AFS_DATA_EU_PAGES + slot));
         }
     },
     [](FtlStore &store) { return afs_physical_ftl_idle_reclaim(store.context()); },
     reclaim_log(5, spare)},
};

// What the tables say of each EU, and where the log goes on.
std::vector<std::tuple<uint32_t, uint16_t, uint32_t, uint32_t>> tables(FtlStore &store) {
    std::vector<std::tuple<uint32_t, uint16_t, uint32_t, uint32_t>> rows;
    for (uint32_t eu = 0; eu < eus; ++eu) {
        const afs_eu_info &row = store.row(eu);
        rows.emplace_back(row.erase_count, row.va_base, row.dirty_pages, row.free_pages);
    }
    rows.emplace_back(store.ftl().spare_eu, uint16_t{0}, store.ftl().write_eu,
                      store.ftl().write_slot);
    return rows;
}

class AfsDeviceLog : public testing::TestWithParam<Case> {};

TEST_P(AfsDeviceLog, IsAsExpectedAndAgreesWithTheTables) {
    const Case &test = GetParam();
    FtlStore store;
    test.before(store);
    DeviceDouble::instance().log().clear();
    ASSERT_EQ(test.run(store), test.status);
    ASSERT_EQ(store.events(), test.log);
    EXPECT_TRUE(DeviceDouble::instance().breaches().empty());
    if (!test.log.empty()) {
        const auto left = tables(store);
        ASSERT_EQ(store.mount(), AFS_RC_OK);
        EXPECT_EQ(tables(store), left);
    }
}

INSTANTIATE_TEST_SUITE_P(All, AfsDeviceLog, testing::ValuesIn(log_cases),
                         [](const auto &test) { return std::string(test.param.name); });

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

TEST(AfsIdle, WantsRoomInTheLogThenInTheDataThenDeadUnits) {
    constexpr uint32_t no_eu = AFS_FTL_NONE;
    const struct {
        const char *name;
        uint32_t write_slot;           // of the only log EU with room
        uint8_t data_free, data_dirty; // of EU 4
        uint32_t dead_eu;              // nothing live in it
        uint32_t needed, kind, eu;
    } cases[] = {
        {"29 slots left", 91, 0, 97, 5, 1, AFS_FTL_KIND_LOG, AFS_FTL_NONE},
        {"30 slots left, clean", 90, 0, 0, no_eu, 0, 77, 77},
        {"63 free, 97 dirty", 90, 63, 97, no_eu, 1, AFS_FTL_KIND_DATA, AFS_FTL_NONE},
        {"63 free, 96 dirty", 90, 63, 96, no_eu, 0, 77, 77},
        {"64 free, a dead EU", 90, 64, 97, 5, 1, AFS_FTL_KIND_DATA, 5},
        {"a dead EU of the log", 90, 64, 0, 1, 1, AFS_FTL_KIND_LOG, 1},
        {"the head alone is dead", 90, 64, 0, 0, 0, 77, 77},
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
        if (c.dead_eu != no_eu) {
            store.row(c.dead_eu).dirty_pages =
                c.dead_eu < first_data_eu ? AFS_FTL_EU_PAGES : AFS_DATA_EU_PAGES;
        }
        uint32_t eu = 77;
        uint32_t kind = 77;
        EXPECT_EQ(afs_physical_ftl_idle_reclaim_needed(store.context(), &eu, &kind), c.needed);
        EXPECT_EQ(std::tuple(kind, eu), std::tuple(c.kind, c.eu));
    }
}

} // namespace
