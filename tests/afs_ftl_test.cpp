// The translation layer of AFS: what a format puts on the flash, what a mount makes of whatever it
// finds there, in which order pages are written, and which chunks are handed out.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <tuple>
#include <vector>

#include "AfsPhysical.h"
#include "afs/ftl_format.h"
#include "ftl_store.h"

namespace {

using namespace dolm;
using namespace dolm_test;

TEST(AfsFormat, WritesHeadersOfLogDataAndSpareInOrder) {
    FtlStore store(eus, data_eus);
    ASSERT_EQ(store.mount_ftl(), AFS_RC_IO);
    store.attach();
    ASSERT_EQ(afs_physical_ftl_format(store.context(), 1), AFS_RC_OK);
    std::string expected;
    for (uint32_t eu = 0; eu < eus; ++eu) {
        const std::string at = std::to_string(eu) + ':';
        expected += " e" + at + "0 e" + at + "4096 w" + at + "0+17 w" + at + "17+1";
    }
    EXPECT_EQ(store.events(), expected);

    const Bytes first = {0x87, 0x78, 0x55, 0xAA, 1, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 0xB1, 0, 0xFF};
    EXPECT_EQ(Bytes(store.at(0), store.at(0) + first.size()), first);
    const uint32_t data_page = store.context()->data_va_start / AFS_PAGE_SIZE;
    for (uint32_t eu = 0; eu < eus; ++eu) {
        const afs_eu_header header = load_eu_header(store.at(eu));
        const bool is_data = eu >= first_data_eu && eu != spare;
        EXPECT_EQ(header.magic, eu == spare ? 0 : eu_magic);
        EXPECT_EQ(header.sequence, eu + 1);
        EXPECT_EQ(header.next_spare, eu + 1);
        EXPECT_EQ(header.va_base, is_data ? data_page + (eu - first_data_eu) * 122 : 0);
    }
    ASSERT_EQ(store.mount(), AFS_RC_OK);
    EXPECT_TRUE(store.events().empty()) << "a mount writes nothing";
    EXPECT_EQ(store.ftl().sequence, 7u);
    EXPECT_EQ(store.ftl().spare_eu, spare);
    EXPECT_EQ(std::tuple(store.ftl().write_eu, store.ftl().write_slot), std::tuple(0u, 0u));
    for (uint32_t eu = 0; eu < eus; ++eu) {
        const uint8_t slots = eu < first_data_eu ? 120 : eu == spare ? 0 : 122;
        const uint8_t free_pages = eu < first_data_eu ? 1 : slots;
        EXPECT_EQ(store.row(eu).dirty_pages, slots) << eu;
        EXPECT_EQ(store.row(eu).free_pages, free_pages) << eu;
    }
}

TEST(AfsFormat, WithoutEraseKeepsWhatLiesBehindTheHeaders) {
    FtlStore store(eus, data_eus);
    store.format();
    *store.at(2, 5000) = 0x12;
    ASSERT_EQ(afs_physical_ftl_format(store.context(), 0), AFS_RC_OK);
    EXPECT_EQ(*store.at(2, 5000), 0x12);
}

TEST(AfsMount, CountsErasureUnitsInEightBits) {
    for (const auto &[count, expected] : {std::pair{255u, AFS_RC_OK}, {256u, AFS_RC_IO}}) {
        FtlStore store(count, 20);
        store.mount_ftl();
        ASSERT_EQ(afs_physical_ftl_format(store.context(), 1), AFS_RC_OK);
        EXPECT_EQ(store.mount_ftl(), expected) << count;
    }
}

// Damage to headers: a field set on the flash, most with a checksum that fits it.
struct Field {
    uint32_t offset;
    uint32_t width;
    bool fix_checksum = true;
};

constexpr Field raw_magic{eu_magic_offset, 4, false};
constexpr Field raw_crc{eu_crc_offset, 1, false};
constexpr Field raw_state{eu_state_offset, 1, false};
constexpr Field magic{eu_magic_offset, 4};
constexpr Field sequence{eu_sequence_offset, 4};
constexpr Field erases{eu_erase_count_offset, 4};
constexpr Field next_spare{eu_next_spare_offset, 2};
constexpr Field va_base{eu_va_base_offset, 2};

struct Edit {
    uint32_t eu;
    Field field;
    uint32_t value;
};

void apply(FtlStore &store, const Edit &edit) {
    uint8_t value[4];
    store_le32(value, edit.value);
    std::copy_n(value, edit.field.width, store.at(edit.eu, edit.field.offset));
    if (edit.field.fix_checksum) {
        store_eu_header(store.at(edit.eu), load_eu_header(store.at(edit.eu)));
    }
}

struct MountCase {
    const char *name;
    std::vector<Edit> edits;
    uint32_t result;
    uint32_t sequence = 7;
    uint32_t uncommitted_eu = AFS_FTL_NONE;
    uint32_t spare_erases = 1;
};

TEST(AfsMount, SettlesWhatTheHeadersShow) {
    constexpr uint32_t base = 48; // page of chunk 0
    const MountCase cases[] = {
        {"erased spare: average wear",
         {{7, raw_magic, 0xFFFFFFFF}, {1, erases, 75}},
         0,
         7,
         AFS_FTL_NONE,
         (6 + 75) / 7},
        {"cleared spare keeps its wear",
         {{7, magic, eu_magic}, {7, erases, 9}, {7, raw_magic, 0}},
         0,
         7,
         AFS_FTL_NONE,
         9},
        {"partial magic", {{1, raw_magic, eu_magic_partial}}, 0},
        {"partial magic, checksum its own", {{1, magic, eu_magic_partial}}, 5},
        {"other magic", {{1, raw_magic, eu_magic_alt}}, 0},
        {"other magic, checksum its own", {{1, magic, eu_magic_alt}}, 0},
        {"second spare", {{1, raw_magic, 0}}, 5},
        {"sequence 0", {{1, sequence, 0}}, 5},
        {"erase count 0", {{1, erases, 0}}, 5},
        {"checksum wrong", {{4, raw_crc, 0x99}}, 5},
        {"newest names another spare", {{6, next_spare, 2}}, 5},
        {"no spare and nothing pending", {{7, magic, eu_magic}}, 5},
        {"rolled forward", {{6, raw_state, 0xFF}, {6, sequence, 40}}, 0, 40, 6},
        {"pending names another spare", {{6, raw_state, 0xFF}, {6, next_spare, 2}}, 5},
        {"two pending", {{6, raw_state, 0xFF}, {1, raw_state, 0xFF}}, 5},
        {"rolled back", {{7, magic, eu_magic}, {7, sequence, 1}, {7, raw_state, 0xFF}}, 0},
        {"data EU off the grid", {{4, va_base, base + 123}}, 5},
        {"data EU below the data area", {{4, va_base, 1}}, 5},
        {"data EU past the chunks", {{6, va_base, base + 4 * 122}}, 5},
        {"two data EUs in one place", {{4, va_base, base + 2 * 122}}, 5},
        {"no log", {{0, va_base, 1}, {1, va_base, 1}, {2, va_base, 1}}, 5},
    };
    for (const MountCase &c : cases) {
        SCOPED_TRACE(c.name);
        FtlStore store(eus, data_eus);
        store.format();
        ASSERT_EQ(store.context()->data_va_start, base * 64);
        for (const Edit &edit : c.edits) {
            apply(store, edit);
        }
        const Bytes before = store.image();
        ASSERT_EQ(store.mount_ftl(), c.result);
        EXPECT_EQ(store.image(), before);
        if (c.result != AFS_RC_OK) {
            EXPECT_EQ(store.write_log(0, 1), AFS_RC_INVALID) << "not mounted";
            continue;
        }
        EXPECT_EQ(store.ftl().spare_eu, spare);
        EXPECT_EQ(store.ftl().write_eu, 0u) << "never the spare, whatever its sequence";
        EXPECT_EQ(store.ftl().sequence, c.sequence);
        EXPECT_EQ(store.ftl().uncommitted_eu, c.uncommitted_eu);
        EXPECT_EQ(store.row(spare).erase_count, c.spare_erases);
    }
}

// Writes a log of its own: page entries in their chain, then what closes it.
void put_log(FtlStore &store, uint32_t eu, const std::vector<uint16_t> &pages, uint16_t close) {
    uint16_t last = 0;
    uint32_t slot = 0;
    for (const uint16_t page : pages) {
        store_le16(store.at(eu, log_entry_offset(slot)), log_chain(last, page));
        const Page data = make_page(eu * 1000 + slot);
        std::copy(data.begin(), data.end(), store.at(eu, log_slot_offset(slot)));
        store_le16(store.at(eu, log_slot_offset(slot) + 64), page_crc(data.data(), page));
        last = page;
        ++slot;
    }
    store_le16(store.at(eu, log_entry_offset(slot)), close);
}

struct LogCase {
    const char *name;
    size_t pages; // in the log, numbers going round from 0 to 9
    uint16_t close;
    uint32_t write_slot;
    uint16_t last_page;
    uint8_t dirty;
};

TEST(AfsLogScan, FindsTheEndOfTheLog) {
    const LogCase cases[] = {
        {"three pages", 3, 0x7FFF, 3, 2, 117},
        {"the last one was cut", 3, 0xFFFF, 4, 1, 118},
        {"the only one was cut", 1, 0xFFFF, 2, 0, 120},
        {"a torn entry after the mark", 3, 0x7F12, 5, 2, 117},
        {"full", 120, 0x7FFF, 120, 9, 110},
        {"full, the last one cut", 120, 0xFFFF, 120, 8, 110},
        {"cut in the last slot but one", 119, 0xFFFF, 120, 7, 110},
        {"full without a mark", 120, 0x0000, 0, 9, 110},
    };
    for (const LogCase &c : cases) {
        SCOPED_TRACE(c.name);
        FtlStore store(eus, data_eus);
        store.format();
        std::vector<uint16_t> pages(c.pages);
        for (size_t i = 0; i < pages.size(); ++i) {
            pages[i] = static_cast<uint16_t>(i % 10);
        }
        put_log(store, 1, pages, c.close);
        ASSERT_EQ(store.mount(), AFS_RC_OK);
        EXPECT_EQ(store.ftl().write_eu, 1u);
        EXPECT_EQ(store.ftl().write_slot, c.write_slot);
        EXPECT_EQ(store.ftl().last_page, c.last_page);
        EXPECT_EQ(store.row(1).dirty_pages, c.dirty);
        // What is written next is chained so that the next mount finds it, and the rest as well.
        ASSERT_EQ(store.write_log(20, 55), AFS_RC_OK);
        ASSERT_EQ(store.mount(), AFS_RC_OK);
        EXPECT_TRUE(store.holds(20 * 64, 55));
        const auto newest_of_page_0 = static_cast<uint32_t>((c.pages - 1) / 10 * 10);
        EXPECT_TRUE(c.pages < 3 || store.holds(0, 1000 + newest_of_page_0));
    }
}

TEST(AfsLogScan, RefusesAPagePastTheMap) {
    FtlStore store(eus, data_eus);
    store.format();
    put_log(store, 1, {static_cast<uint16_t>(store.context()->data_va_start / 64)}, 0x7FFF);
    EXPECT_EQ(store.mount(), AFS_RC_IO);
}

// A run of entries of which only the later ones reached the flash would commit whatever is written
// before them: the log must not go on there.
TEST(AfsLogScan, DoesNotWriteInFrontOfLeftOverEntries) {
    FtlStore store(eus, data_eus);
    store.format();
    put_log(store, 0, {1, 2}, 0x7FFF);
    for (const uint32_t slot : {3u, 4u}) {
        store_le16(store.at(0, log_entry_offset(slot)), 0x0123);
    }
    ASSERT_EQ(store.mount(), AFS_RC_OK);
    EXPECT_EQ(std::tuple(store.ftl().write_slot, store.row(0).dirty_pages), std::tuple(2u, 118));
    for (uint32_t i = 0; i < 3; ++i) {
        ASSERT_EQ(store.write_log(3, i), AFS_RC_OK);
        ASSERT_EQ(store.mount(), AFS_RC_OK);
        EXPECT_TRUE(store.holds(3 * 64, i));
    }
}

TEST(AfsLogScan, HigherSequenceWinsWhicheverComesFirst) {
    for (const bool newer_first : {false, true}) {
        FtlStore store(eus, data_eus);
        store.format();
        const uint32_t newer = newer_first ? 0 : 1;
        const uint32_t older = 1 - newer;
        apply(store, {newer, sequence, 6});
        put_log(store, newer, {4, 5}, 0x7FFF);
        put_log(store, older, {3, 4, 5, 4}, 0x7FFF);
        ASSERT_EQ(store.mount(), AFS_RC_OK);
        EXPECT_EQ(store.ftl().write_eu, newer);
        EXPECT_EQ(store.ftl().write_slot, 2u);
        EXPECT_EQ(store.row(newer).dirty_pages, 118);
        EXPECT_EQ(store.row(older).dirty_pages, 119);
        EXPECT_TRUE(store.holds(4 * 64, newer * 1000));
        EXPECT_TRUE(store.holds(3 * 64, older * 1000));
    }
}

TEST(AfsPages, LogPageIsEntryThenPageThenCommit) {
    FtlStore store(eus, data_eus);
    store.format();
    EXPECT_TRUE(store.is_zero(7 * 64));
    store.attach();
    ASSERT_EQ(store.write_log(7, 1), AFS_RC_OK);
    ASSERT_EQ(store.write_log(7, 2), AFS_RC_OK);
    EXPECT_EQ(store.events(), " w0:18+2 w0:260+66 w0:21+1 w0:20+2 w0:326+66 w0:23+1");
    EXPECT_TRUE(DeviceDouble::instance().breaches().empty());
    EXPECT_EQ(store.ftl().write_slot, 2u);
    EXPECT_EQ(store.row(0).dirty_pages, 119);
    EXPECT_EQ(store.row(0).free_pages, 0);
    EXPECT_TRUE(store.holds(7 * 64, 2));

    // A trim counts once and lasts until the next mount.
    store.trim(7 * 64);
    store.trim(7 * 64);
    EXPECT_EQ(store.row(0).dirty_pages, 120);
    EXPECT_TRUE(store.is_zero(7 * 64));
    ASSERT_EQ(store.mount(), AFS_RC_OK);
    EXPECT_TRUE(store.holds(7 * 64, 2));
}

TEST(AfsPages, DataPageIsOpenedWrittenAndClosedOnce) {
    FtlStore store(eus, data_eus);
    store.format();
    EXPECT_TRUE(store.is_zero(store.chunk_va(125)));
    store.attach();
    ASSERT_EQ(store.write(store.chunk_va(125), 1), AFS_RC_OK);
    const std::string expected = " w4:21+1 w4:338+66 w4:21+1";
    EXPECT_EQ(store.events(), expected);
    EXPECT_EQ(store.write(store.chunk_va(125), 2), AFS_RC_IO);
    EXPECT_EQ(store.events(), expected);
    EXPECT_TRUE(store.holds(store.chunk_va(125), 1));
    EXPECT_EQ(store.row(4).dirty_pages, 121);
    EXPECT_EQ(store.row(4).free_pages, 121);
    store.trim(store.chunk_va(125));
    store.trim(store.chunk_va(125));
    EXPECT_EQ(store.row(4).dirty_pages, 122);
    EXPECT_TRUE(store.is_zero(store.chunk_va(125)));
}

TEST(AfsPages, PlacesThatNoEuCoversAreRefused) {
    FtlStore store(eus, data_eus);
    store.format();
    store.row(4).va_base = 0; // as if the EU of chunks 122 to 243 did not exist
    store.attach();
    Bytes buffer(300 * 66);
    for (const uint32_t va : {store.chunk_va(122), store.chunk_va(data_eus * 122), 0xFFFFFFC0u}) {
        EXPECT_EQ(store.write(va, 1), AFS_RC_IO);
        EXPECT_EQ(afs_physical_ftl_read_page(store.context(), va, 0, buffer.data(), 0), AFS_RC_IO);
        EXPECT_EQ(afs_physical_ftl_read_data_pages(store.context(), buffer.data(), va, 1),
                  AFS_RC_IO);
        EXPECT_EQ(store.trim(va), AFS_RC_OK);
    }
    ASSERT_EQ(store.write(store.chunk_va(0), 1), AFS_RC_OK);
    EXPECT_EQ(afs_physical_ftl_read_data_pages(store.context(), buffer.data(), 0, 1), AFS_RC_IO);
    EXPECT_EQ(read_ftl_data_pages(store.context(), 3, 100, 23, 0, buffer.data()), AFS_RC_IO);
    EXPECT_EQ(read_ftl_data_pages(store.context(), eus, 0, 1, 0, buffer.data()), AFS_RC_IO);
    EXPECT_EQ(store.events(), " w3:18+1 w3:140+66 w3:18+1");
    EXPECT_TRUE(DeviceDouble::instance().out_of_range().empty());
}

TEST(AfsPages, BatchCrossesIntoTheNextEuWhereverThatLies) {
    FtlStore store(eus, data_eus);
    store.format();
    for (uint32_t chunk = 120; chunk < 124; ++chunk) {
        ASSERT_EQ(store.write(store.chunk_va(chunk), chunk), AFS_RC_OK);
    }
    ASSERT_EQ(reclaim_eu(store.context(), 4, 1), AFS_RC_OK); // chunks 122 and on move to EU 7
    store.attach();
    Bytes buffer(4 * 66);
    ASSERT_EQ(
        afs_physical_ftl_read_data_pages(store.context(), buffer.data(), store.chunk_va(120), 4),
        AFS_RC_OK);
    EXPECT_EQ(DeviceDouble::instance().count(DeviceAccess::read), 2u);
    for (uint32_t i = 0; i < 4; ++i) {
        const Page page = make_page(120 + i);
        EXPECT_TRUE(std::equal(page.begin(), page.end(), &buffer[i * 64])) << i;
    }
}

struct FaultCase {
    const char *name;
    DeviceFault fault;
    std::function<uint32_t(FtlStore &)> run;
    uint32_t result;
    uint32_t reads;
    uint32_t writes;
};

TEST(AfsPages, ReadsAreRepeatedUpToSevenTimesAndWritesNever) {
    using Effect = DeviceFault::Effect;
    const auto read = [](FtlStore &store) {
        Page page;
        return afs_physical_ftl_read_page(store.context(), 64, 0, page.data(), 0);
    };
    const auto batch = [](FtlStore &store) {
        Bytes buffer(2 * 66);
        return afs_physical_ftl_read_data_pages(store.context(), buffer.data(), store.chunk_va(0),
                                                2);
    };
    const auto write = [](FtlStore &store) { return store.write_log(2, 1); };
    const FaultCase cases[] = {
        {"read, six bad", {DeviceAccess::read, 0, 6, Effect::flip_bit}, read, 0, 7, 0},
        {"read, seven bad", {DeviceAccess::read, 0, 7, Effect::flip_bit}, read, 5, 7, 0},
        {"read, one failed", {DeviceAccess::read, 0, 1, Effect::fail}, read, 5, 1, 0},
        {"batch, six bad", {DeviceAccess::read, 0, 6, Effect::flip_bit}, batch, 0, 7, 0},
        {"batch, seven bad", {DeviceAccess::read, 0, 7, Effect::flip_bit}, batch, 5, 7, 0},
        {"entry, six bad", {DeviceAccess::read, 0, 6, Effect::flip_bit}, write, 0, 9, 3},
        {"entry, seven bad", {DeviceAccess::read, 0, 7, Effect::flip_bit}, write, 5, 7, 1},
        {"page write lost", {DeviceAccess::write, 1, 1, Effect::lose}, write, 5, 8, 2},
        {"commit fails", {DeviceAccess::write, 2, 1, Effect::fail}, write, 5, 2, 3},
    };
    for (const FaultCase &c : cases) {
        SCOPED_TRACE(c.name);
        FtlStore store(eus, data_eus);
        store.format();
        ASSERT_EQ(store.write_log(1, 1), AFS_RC_OK);
        ASSERT_EQ(store.write(store.chunk_va(0), 1), AFS_RC_OK);
        ASSERT_EQ(store.write(store.chunk_va(1), 2), AFS_RC_OK);
        store.attach();
        DeviceDouble::instance().add_fault(c.fault);
        EXPECT_EQ(c.run(store), c.result);
        EXPECT_EQ(DeviceDouble::instance().count(DeviceAccess::read), c.reads);
        EXPECT_EQ(DeviceDouble::instance().count(DeviceAccess::write), c.writes);
        EXPECT_EQ(store.ftl().write_slot, c.writes == 3 && c.result == 0 ? 2u : 1u);
    }
}

// Allocates and writes until the allocator has to be asked twice.
uint32_t allocate_all(FtlStore &store) {
    uint32_t count = 0;
    uint16_t cid;
    while (afs_physical_ftl_allocate_page(store.context(), &cid) == AFS_RC_OK) {
        EXPECT_LT(cid - file_count, store.context()->chunk_count);
        EXPECT_EQ(store.write(store.chunk_va(cid - file_count), cid), AFS_RC_OK);
        ++count;
    }
    return count;
}

TEST(AfsAllocator, FillsTheNewestEuThenTheOldestWithRoomAndThenGivesUp) {
    FtlStore store(eus, data_eus, 30);
    store.format();
    uint16_t cid = 0;
    ASSERT_EQ(afs_physical_ftl_allocate_page(store.context(), &cid), AFS_RC_OK);
    EXPECT_EQ(cid, file_count + 3 * 122) << "EU 6 has the highest sequence";
    EXPECT_EQ(allocate_all(store), 92u - 1) << "the slots past the last chunk are never free";
    for (uint32_t index = 0; index < 3; ++index) {
        // The flush was asked for; the next call may go on.
        EXPECT_EQ(store.ftl().reclaim_armed, 1);
        EXPECT_EQ(allocate_all(store), 122u) << index;
    }
    // The chunk that was handed out and never written is still free.
    EXPECT_EQ(allocate_all(store), 1u);
    EXPECT_EQ(afs_physical_ftl_allocate_page(store.context(), &cid), AFS_RC_NO_SPACE);
    EXPECT_EQ(afs_physical_ftl_allocate_page(store.context(), &cid), AFS_RC_FLUSH_FIRST);
    EXPECT_EQ(afs_physical_ftl_allocate_page(store.context(), &cid), AFS_RC_NO_SPACE);
}

TEST(AfsAllocator, TellsDeadSlotsFromFreeOnes) {
    FtlStore store(eus, data_eus);
    store.format();
    store.fill_data_eu(3);
    store.trim(store.chunk_va(3 * 122 + 5));
    ASSERT_EQ(store.mount(), AFS_RC_OK);
    EXPECT_EQ(store.row(6).dirty_pages, 1);
    EXPECT_EQ(store.row(6).free_pages, 0);
    uint16_t cid = 0;
    ASSERT_EQ(afs_physical_ftl_allocate_page(store.context(), &cid), AFS_RC_OK);
    EXPECT_EQ(cid, file_count + 2 * 122) << "the newest EU with an erased slot";
    // A dead slot in the middle of the range is passed over.
    ASSERT_EQ(store.write(store.chunk_va(2 * 122 + 2), 1), AFS_RC_OK);
    store.trim(store.chunk_va(2 * 122 + 2));
    ASSERT_EQ(store.mount(), AFS_RC_OK);
    for (const uint32_t chunk : {0u, 1u, 3u}) {
        ASSERT_EQ(afs_physical_ftl_allocate_page(store.context(), &cid), AFS_RC_OK);
        EXPECT_EQ(cid, file_count + 2 * 122 + chunk);
    }
    // A live chunk whose page is not complete.
    *store.at(6, data_status_offset) = slot_being_written;
    EXPECT_EQ(store.mount(), AFS_RC_IO);
}

TEST(AfsAllocator, StoreWithoutDataEusHasNoSpace) {
    FtlStore store(eus, 0);
    store.context()->chunk_count = 100;
    std::vector<uint32_t> map(4);
    store.format();
    store.context()->chunk_map = map.data();
    store.attach();
    uint16_t cid;
    EXPECT_EQ(afs_physical_ftl_allocate_page(store.context(), &cid), AFS_RC_FLUSH_FIRST);
    EXPECT_EQ(afs_physical_ftl_allocate_page(store.context(), &cid), AFS_RC_NO_SPACE);
    EXPECT_TRUE(store.events().empty());
}

TEST(AfsFtl, OffersDataSpaceBesideSpareAndLog) {
    const std::pair<uint32_t, uint32_t> cases[] = {
        {0, 0}, {1, 0}, {2, 0}, {3, 1}, {4, 2}, {11, 9}, {12, 10}, {23, 21}, {24, 21}, {255, 233}};
    for (const auto &[count, data] : cases) {
        afs_context context{};
        context.device_size = count * AFS_EU_SIZE + 100;
        EXPECT_EQ(afs_physical_ftl_get_data_vas(&context, 0), data * 7808) << count;
    }
}

TEST(AfsFtl, AnswersWithoutAStore) {
    afs_context unmounted{};
    unmounted.device_size = 65536;
    Page page;
    uint16_t cid;
    uint32_t out;
    for (afs_context *context : {static_cast<afs_context *>(nullptr), &unmounted}) {
        const afs_physical_ops &ops = afs_physical_spi_handler;
        for (const uint32_t rc :
             {ops.read_page(context, 0, 0, page.data(), 0),
              ops.write_page(context, 0, 0, page.data(), 0), ops.trim_page(context, 0, 0, 0),
              ops.force_full_reclaim(context), ops.force_dirty_erase(context),
              afs_physical_ftl_format(context, 1), ftl_process_pages(context, 0, 1),
              afs_physical_ftl_init(context, 65536, 0),
              afs_physical_ftl_read_data_pages(context, page.data(), 0, 1),
              read_ftl_data_pages(context, 0, 0, 1, 0, page.data()),
              afs_physical_ftl_allocate_page(context, &cid),
              afs_physical_ftl_set_allocation_map(context), reclaim_eu_wrapper(context, 0),
              reclaim_eu(context, 0, 1), reclaim_eu_write_eu_header(context, 0, 1, 0, 8192),
              ftl_copy_pages(context, 0, 8192, 0, 1, page.data(), page.data(), 0),
              afs_physical_ftl_idle_reclaim(context),
              afs_physical_ftl_end_reserved_files_mode(context)}) {
            EXPECT_EQ(rc, AFS_RC_INVALID);
        }
        EXPECT_EQ(choose_eu_to_reclaim(context, 0, 1, &out, 0), AFS_FTL_NONE);
        EXPECT_EQ(afs_physical_ftl_idle_reclaim_needed(context, &out, &out), 0u);
    }
}

TEST(AfsDevice, RawAccessReplacesBytesWithinTheStore) {
    Bytes image(3 * 4096, 0);
    DeviceDouble::instance().detach();
    ASSERT_EQ(SpiFlashDrvInitialize(image.data()), 0u);
    afs_context context{};
    context.device_offset = 4000;
    context.device_size = 5000;
    const uint8_t bytes[3] = {1, 0xFE, 3};
    ASSERT_EQ(afs_sub_pt_write(&context, 10, 3, bytes), 0u);
    EXPECT_EQ(Bytes(&image[4009], &image[4014]), (Bytes{0, 1, 0xFE, 3, 0}));
    uint8_t read[3] = {};
    ASSERT_EQ(afs_sub_pt_read(&context, 10, 3, read), 0u);
    EXPECT_EQ(std::memcmp(read, bytes, 3), 0);
    EXPECT_EQ(afs_sub_pt_read(&context, 4998, 3, read), AFS_RC_INVALID);
    ASSERT_EQ(SpiDrvEraseBlock(4096), 0u);
    EXPECT_EQ(image[4095], 0);
    EXPECT_EQ(Bytes(&image[4096], &image[8192]), Bytes(4096, 0xFF));
    EXPECT_EQ(image[8192], 0);
    SpiFlashDrvInitialize(nullptr);
    EXPECT_NE(SpiDrvRead(0, 3, read), 0u);
}

} // namespace
