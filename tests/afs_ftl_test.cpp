// The translation layer of AFS: what a format puts on the flash, what a mount makes of whatever it
// finds there, in which order pages are written, and which chunks are handed out.
#include <gtest/gtest.h>

#include <functional>
#include <tuple>
#include <type_traits>
#include <vector>

#include "AfsPhysical.h"
#include "afs/ftl_format.h"
#include "ftl_store.h"

namespace {

using namespace dolm;
using namespace dolm_test;
using Header = afs_eu_header;

TEST(AfsFormat, GivesTheWorkedBytesAndMountsBlank) {
    FtlStore store;
    const Bytes first = {0x87, 0x78, 0x55, 0xAA, 1, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 0xB1, 0, 0xFF};
    EXPECT_EQ(Bytes(store.at(0), store.at(0) + first.size()), first);
    const afs_ftl_state &ftl = store.ftl();
    EXPECT_EQ(std::tuple(ftl.sequence, ftl.spare_eu, ftl.write_eu, ftl.write_slot),
              std::tuple(7u, spare, 0u, 0u));
}

using Edit = std::function<void(FtlStore &)>;

// A field of a header, with the checksum that fits.
template <typename T>
Edit field(uint32_t eu, T Header::*member, std::type_identity_t<T> value) {
    return [=](FtlStore &store) {
        Header header = load_eu_header(store.at(eu));
        header.*member = value;
        store_eu_header(store.at(eu), header);
    };
}

// The magic alone.
Edit magic(uint32_t eu, uint32_t value) {
    return [=](FtlStore &store) { store_le32(store.at(eu), value); };
}

Edit pending(uint32_t eu) {
    return [=](FtlStore &store) { *store.at(eu, eu_state_offset) = eu_state_pending; };
}

TEST(AfsMount, SettlesWhatTheHeadersShow) {
    const uint32_t refused = AFS_FTL_NONE;
    const struct {
        const char *name;
        std::vector<Edit> edits;
        uint32_t sequence; // after the mount, or refused
        uint32_t spare_erases = 1;
    } cases[] = {
        {"erased spare: average wear",
         {magic(7, 0xFFFFFFFF), field(1, &Header::erase_count, 77)},
         7,
         (6 + 77) / 7},
        {"cleared spare keeps its wear",
         {field(7, &Header::magic, eu_magic), field(7, &Header::erase_count, 9), magic(7, 0)},
         7,
         9},
        {"partial magic", {magic(1, eu_magic_partial)}, 7},
        {"its own checksum", {field(1, &Header::magic, eu_magic_partial)}, refused},
        {"other magic", {magic(1, eu_magic_alt)}, 7},
        {"its own checksum", {field(1, &Header::magic, eu_magic_alt)}, 7},
        {"sequence 0", {field(1, &Header::sequence, 0)}, refused},
        {"erase count 0", {field(1, &Header::erase_count, 0)}, refused},
        {"rolled forward", {pending(6), field(6, &Header::sequence, 40)}, 40},
        {"an old header that lost its state", {pending(1), field(1, &Header::next_spare, 7)}, 7},
        {"pending names another spare", {pending(6), field(6, &Header::next_spare, 2)}, refused},
        {"two pending", {pending(6), pending(1)}, refused},
        {"rolled back",
         {field(7, &Header::magic, eu_magic), field(7, &Header::sequence, 1), pending(7)},
         7},
        {"data EU below the data area", {field(4, &Header::va_base, 1)}, refused},
        {"data EU past the chunks", {field(6, &Header::va_base, 48 + 4 * 122)}, refused},
        {"no log EU left, before the geometry is known",
         {field(0, &Header::va_base, 1), field(1, &Header::va_base, 1),
          field(2, &Header::va_base, 1),
          [](FtlStore &store) { store.context()->total_va_size = store.context()->data_va_start; }},
         refused},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        FtlStore store;
        ASSERT_EQ(store.context()->data_va_start, 48 * AFS_PAGE_SIZE);
        for (const Edit &edit : c.edits) {
            edit(store);
        }
        const Bytes before = store.image();
        ASSERT_EQ(store.mount_ftl(), c.sequence == refused ? AFS_RC_IO : AFS_RC_OK);
        EXPECT_EQ(store.image(), before);
        if (c.sequence == refused) {
            EXPECT_EQ(store.write_log(0, 1), AFS_RC_INVALID) << "not mounted";
            continue;
        }
        EXPECT_EQ(store.ftl().spare_eu, spare);
        EXPECT_EQ(store.ftl().write_eu, 0u) << "never the spare, whatever its sequence";
        EXPECT_EQ(store.ftl().sequence, c.sequence);
        EXPECT_EQ(store.row(spare).erase_count, c.spare_erases);
        EXPECT_EQ(reclaim_eu(store.context(), 5, 1), AFS_RC_OK);
        EXPECT_EQ(store.mount_ftl(), AFS_RC_OK);
    }
}

// Writes a log of its own into EU 1: pages 0 to 9 in turn in their chain, then what closes it.
void put_log(FtlStore &store, uint32_t slots, uint16_t close) {
    uint16_t last = 0;
    for (uint32_t slot = 0; slot < slots; ++slot) {
        const auto page = static_cast<uint16_t>(slot % 10);
        store_le16(store.at(1, log_entry_offset(slot)), log_chain(last, page));
        const Page data = make_page(slot);
        std::copy(data.begin(), data.end(), store.at(1, log_slot_offset(slot)));
        store_le16(store.at(1, log_slot_offset(slot) + 64), page_crc(data.data(), page));
        last = page;
    }
    store_le16(store.at(1, log_entry_offset(slots)), close);
}

TEST(AfsLogScan, FindsTheEndOfTheLog) {
    const struct {
        const char *name;
        uint32_t slots;
        uint16_t close;
        uint32_t write_slot;
        uint16_t last_page;
        uint8_t dirty;
    } cases[] = {
        {"three pages", 3, 0x7FFF, 3, 2, 117},
        {"the last one was cut", 3, 0xFFFF, 4, 1, 118},
        {"the only one was cut", 1, 0xFFFF, 2, 0, 120},
        {"a torn entry after the mark", 3, 0x7F12, 5, 2, 117},
        {"full", 120, 0x7FFF, 120, 9, 110},
        {"full, the last one cut", 120, 0xFFFF, 120, 8, 110},
        {"cut in the last slot but one", 119, 0xFFFF, 120, 7, 110},
        {"full without a mark", 120, 0x0000, 0, 9, 110},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        FtlStore store;
        put_log(store, c.slots, c.close);
        ASSERT_EQ(store.mount(), AFS_RC_OK);
        EXPECT_EQ(store.ftl().write_eu, 1u);
        EXPECT_EQ(store.ftl().write_slot, c.write_slot);
        EXPECT_EQ(store.ftl().last_page, c.last_page);
        EXPECT_EQ(store.row(1).dirty_pages, c.dirty);
        // What is written next is chained so that the next mount finds it, and the rest as well.
        ASSERT_EQ(store.write_log(20, 55), AFS_RC_OK);
        ASSERT_EQ(store.mount(), AFS_RC_OK);
        EXPECT_TRUE(store.holds(20 * 64, 55));
        EXPECT_TRUE(c.slots == 1 || store.holds(0, (c.slots - 1) / 10 * 10));
    }
}

// What a run of entries leaves that landed in part would commit whatever is written before it: the
// log must not go on there.
TEST(AfsLogScan, EndsWhereARunOfEntriesLandedInPart) {
    constexpr uint16_t erased = log_entry_erased;
    constexpr uint16_t mark = log_entry_commit_mark;
    constexpr uint16_t any = 0x0123;
    const auto astray = [](uint16_t link) { return log_chain(link, 0x3000); };
    const struct {
        const char *name;
        std::vector<uint16_t> behind; // pages 0 to 2 in slots 0 to 2
        uint32_t committed;           // or none, if the mount fails
        bool closed = true;
    } cases[] = {
        {"behind the mark", {mark, any, any}, 3},
        {"behind a run, its first entry missing", {erased, astray(1), any}, 2},
        {"the same, and an entry that leads into the map",
         {erased, log_chain(1, 5), mark},
         3,
         false},
        {"that one leads to one that does not", {erased, log_chain(1, 5), astray(5), any}, 0},
        {"behind a run, most of it missing", {erased, erased, erased, any, any}, 2},
        {"an entry that stands for no page", {log_chain(2, 5), 0x4000, any}, 4},
        {"a page that the store does not have", {astray(2), any}, 0},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        FtlStore store;
        put_log(store, 3, c.behind[0]);
        for (uint32_t i = 1; i < c.behind.size(); ++i) {
            store_le16(store.at(1, log_entry_offset(3 + i)), c.behind[i]);
        }
        ASSERT_EQ(store.mount(), c.committed == 0 ? AFS_RC_IO : AFS_RC_OK);
        if (c.committed == 0) {
            continue;
        }
        EXPECT_EQ(store.ftl().write_eu, 1u);
        EXPECT_EQ(log_head_is_full(store.ftl()), c.closed);
        EXPECT_EQ(store.row(1).dirty_pages, 120 - c.committed);
        for (uint32_t i = 0; i < 3; ++i) {
            ASSERT_EQ(store.write_log(3, i), AFS_RC_OK);
            ASSERT_EQ(store.mount(), AFS_RC_OK);
            EXPECT_TRUE(store.holds(3 * 64, i));
            EXPECT_TRUE(store.holds(64, 1));
        }
    }
}

// A blank EU is erased from its first entry on. One that only lacks that entry waits for a reclaim.
TEST(AfsLogScan, PassesOverAnEuWithoutItsFirstEntryWhileABlankOneIsLeft) {
    for (const bool blank_left : {true, false}) {
        FtlStore store;
        for (uint32_t i = 0; i < (blank_left ? 3 : 123); ++i) {
            ASSERT_EQ(store.write_log(i % 7, i), AFS_RC_OK);
        }
        const uint32_t before = store.ftl().write_eu;
        store_le16(store.at(2, log_entry_offset(1)), 0x0123);
        ASSERT_EQ(store.mount(), AFS_RC_OK);
        EXPECT_EQ(store.ftl().write_eu, blank_left ? before : 2u);
        EXPECT_EQ(std::tuple(store.row(2).dirty_pages, store.row(2).free_pages),
                  std::tuple(120, 0));
        ASSERT_EQ(store.write_log(8, 55), AFS_RC_OK);
        ASSERT_EQ(store.mount(), AFS_RC_OK);
        EXPECT_TRUE(store.holds(8 * 64, 55));
        EXPECT_TRUE(store.holds(2 * 64, blank_left ? 2 : 121));
    }
}

TEST(AfsPages, TrimmedPagesReadAsZeros) {
    FtlStore store;
    ASSERT_EQ(store.write_log(7, 2), AFS_RC_OK);
    ASSERT_EQ(store.write(store.chunk_va(125), 1), AFS_RC_OK);
    for (const uint32_t va : {7 * AFS_PAGE_SIZE, store.chunk_va(125), store.chunk_va(126)}) {
        store.trim(va);
        store.trim(va); // counts once
        EXPECT_TRUE(store.is_zero(va));
    }
    EXPECT_EQ(std::tuple(store.row(0).dirty_pages, store.row(4).dirty_pages), std::tuple(120, 122));
    ASSERT_EQ(store.mount(), AFS_RC_OK);
    EXPECT_TRUE(store.holds(7 * AFS_PAGE_SIZE, 2)) << "a trim lasts until the next mount";
}

TEST(AfsPages, PlacesThatNoEuCoversAreRefused) {
    FtlStore store;
    store.row(4).va_base = 0; // as if the EU of chunks 122 to 243 did not exist
    store.attach();
    Page pages[2];
    for (const uint32_t va : {store.chunk_va(122), store.chunk_va(data_eus * 122), 0xFFFFFFC0u}) {
        EXPECT_EQ(store.write(va, 1), AFS_RC_IO);
        EXPECT_EQ(afs_physical_ftl_read_page(store.context(), va, 0, pages, 0), AFS_RC_IO);
        EXPECT_EQ(afs_physical_ftl_read_data_pages(store.context(), pages, va, 1), AFS_RC_IO);
        EXPECT_EQ(store.trim(va), AFS_RC_OK);
    }
    EXPECT_EQ(afs_physical_ftl_read_data_pages(store.context(), pages, 0, 1), AFS_RC_IO);
    EXPECT_EQ(read_ftl_data_pages(store.context(), 3, 122, 1, 0, pages), AFS_RC_IO);
    EXPECT_EQ(read_ftl_data_pages(store.context(), eus, 0, 1, 0, pages), AFS_RC_IO);
    EXPECT_EQ(DeviceDouble::instance().count(DeviceAccess::read), 0u);
}

TEST(AfsPages, BatchCrossesIntoTheNextEuWhereverThatLies) {
    FtlStore store;
    for (uint32_t chunk = 120; chunk < 124; ++chunk) {
        ASSERT_EQ(store.write(store.chunk_va(chunk), chunk), AFS_RC_OK);
    }
    ASSERT_EQ(reclaim_eu(store.context(), 4, 1), AFS_RC_OK); // chunks 122 and on move to EU 7
    store.attach();
    Page pages[5]; // for 4 records on the way
    ASSERT_EQ(afs_physical_ftl_read_data_pages(store.context(), pages, store.chunk_va(120), 4),
              AFS_RC_OK);
    EXPECT_EQ(DeviceDouble::instance().count(DeviceAccess::read), 2u);
    for (uint32_t i = 0; i < 4; ++i) {
        EXPECT_EQ(pages[i], make_page(120 + i)) << i;
    }
}

TEST(AfsPages, ReadsAreRepeatedUpToSevenTimesAndWritesNever) {
    using Effect = DeviceFault::Effect;
    using Operation = uint32_t (*)(FtlStore &);
    const Operation read = [](FtlStore &store) {
        Page page;
        return afs_physical_ftl_read_page(store.context(), 64, 0, page.data(), 0);
    };
    const Operation batch = [](FtlStore &store) {
        Page pages[3];
        return afs_physical_ftl_read_data_pages(store.context(), pages, store.chunk_va(0), 2);
    };
    const Operation write = [](FtlStore &store) { return store.write_log(2, 1); };
    const struct {
        const char *name;
        DeviceFault fault;
        Operation run;
        uint32_t result, reads, writes;
    } cases[] = {
        {"read, six bad", {DeviceAccess::read, 0, 6, Effect::flip_bit}, read, 0, 7, 0},
        {"read, seven bad", {DeviceAccess::read, 0, 7, Effect::flip_bit}, read, 5, 7, 0},
        {"read, one failed", {DeviceAccess::read, 0, 1, Effect::fail}, read, 5, 1, 0},
        {"batch, six bad", {DeviceAccess::read, 0, 6, Effect::flip_bit}, batch, 0, 7, 0},
        {"batch, seven bad", {DeviceAccess::read, 0, 7, Effect::flip_bit}, batch, 5, 7, 0},
        {"entry, six bad", {DeviceAccess::read, 0, 6, Effect::flip_bit}, write, 0, 9, 3},
        {"entry, seven bad", {DeviceAccess::read, 0, 7, Effect::flip_bit}, write, 5, 7, 1},
        {"read, all lost", {DeviceAccess::read, 0, 7, Effect::lose}, read, 5, 7, 0},
        {"read-backs of the entry lost", {DeviceAccess::read, 0, 7, Effect::lose}, write, 5, 7, 1},
        {"page write lost", {DeviceAccess::write, 1, 1, Effect::lose}, write, 5, 8, 2},
        {"commit fails", {DeviceAccess::write, 2, 1, Effect::fail}, write, 5, 2, 3},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        FtlStore store;
        ASSERT_EQ(store.write_log(1, 1), AFS_RC_OK);
        ASSERT_EQ(store.write(store.chunk_va(0), 1), AFS_RC_OK);
        ASSERT_EQ(store.write(store.chunk_va(1), 2), AFS_RC_OK);
        store.attach();
        DeviceDouble::instance().add_fault(c.fault);
        EXPECT_EQ(c.run(store), c.result);
        EXPECT_EQ(DeviceDouble::instance().count(DeviceAccess::read), c.reads);
        EXPECT_EQ(DeviceDouble::instance().count(DeviceAccess::write), c.writes);
        EXPECT_EQ(store.ftl().write_slot, c.run == write && c.result == 0 ? 2u : 1u);
    }
}

// Allocates and writes until the allocator asks for a flush.
uint32_t allocate_all(FtlStore &store) {
    uint32_t count = 0;
    uint16_t cid;
    while (afs_physical_ftl_allocate_page(store.context(), &cid) == AFS_RC_OK) {
        EXPECT_EQ(store.write(store.chunk_va(cid - file_count), cid), AFS_RC_OK);
        ++count;
    }
    return count;
}

TEST(AfsAllocator, FillsTheNewestEuThenTheOldestWithRoomAndThenGivesUp) {
    FtlStore store(30);
    uint16_t cid = 0;
    ASSERT_EQ(afs_physical_ftl_allocate_page(store.context(), &cid), AFS_RC_OK);
    EXPECT_EQ(cid, file_count + 3 * 122) << "EU 6 has the highest sequence";
    EXPECT_EQ(allocate_all(store), 92u - 1) << "the slots past the last chunk are never free";
    for (uint32_t index = 0; index < 3; ++index) {
        EXPECT_EQ(allocate_all(store), 122u) << index;
    }
    EXPECT_EQ(allocate_all(store), 1u) << "the chunk that was handed out and never written";
    EXPECT_EQ(afs_physical_ftl_allocate_page(store.context(), &cid), AFS_RC_NO_SPACE);
    EXPECT_EQ(afs_physical_ftl_allocate_page(store.context(), &cid), AFS_RC_FLUSH_FIRST);
    EXPECT_EQ(afs_physical_ftl_allocate_page(store.context(), &cid), AFS_RC_NO_SPACE);
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
    for (afs_context *context : {static_cast<afs_context *>(nullptr), &unmounted}) {
        const afs_physical_ops &ops = afs_physical_spi_handler;
        for (const uint32_t rc :
             {ops.read_page(context, 0, 0, page.data(), 0),
              ops.write_page(context, 0, 0, page.data(), 0), ops.trim_page(context, 0, 0, 0),
              afs_physical_ftl_format(context, 1), afs_physical_ftl_init(context, 65536, 0),
              afs_physical_ftl_read_data_pages(context, page.data(), 0, 1),
              afs_physical_ftl_allocate_page(context, &cid), reclaim_eu(context, 0, 1),
              afs_physical_ftl_idle_reclaim(context)}) {
            EXPECT_EQ(rc, AFS_RC_INVALID);
        }
    }
}

TEST(AfsDevice, RawAccessReplacesBytesWithinTheStore) {
    Bytes image(3 * 4096, 0);
    DeviceDouble::instance().detach();
    ASSERT_EQ(SpiFlashDrvInitialize(image.data()), 0u);
    afs_context context{};
    context.device_offset = 4000;
    context.device_size = 5000;
    const Bytes bytes{1, 0xFE, 3};
    ASSERT_EQ(afs_sub_pt_write(&context, 10, 3, bytes.data()), 0u);
    EXPECT_EQ(Bytes(&image[4009], &image[4014]), (Bytes{0, 1, 0xFE, 3, 0}));
    Bytes read(3);
    ASSERT_EQ(afs_sub_pt_read(&context, 10, 3, read.data()), 0u);
    EXPECT_EQ(read, bytes);
    EXPECT_EQ(afs_sub_pt_read(&context, 4998, 3, read.data()), AFS_RC_INVALID);
    ASSERT_EQ(SpiDrvEraseBlock(4096), 0u);
    EXPECT_EQ(image[4095], 0);
    EXPECT_EQ(Bytes(&image[4096], &image[8192]), Bytes(4096, 0xFF));
    EXPECT_EQ(image[8192], 0);
    SpiFlashDrvInitialize(nullptr);
    EXPECT_NE(SpiDrvRead(0, 3, read.data()), 0u);
}

} // namespace
