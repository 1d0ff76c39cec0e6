// Every kind of change of an EFS store, cut at every write and erase, two cuts deep.
#include <algorithm>

#include "efs_fixture.h"
#include "fault_run.h"
#include "image/efs_image.h"
#include "power_cut_run.h"
#include "proof/efs_store.h"

namespace builders = dolm::proof::builders;

namespace dolm_test {
namespace {

constexpr uint32_t block_size = 4096;
constexpr uint32_t entry_size = 19; // with 7 blocks

// Two files in one block, one over up to three blocks, and one that shares the last of these.
constexpr uint32_t small_file = 0;
constexpr uint32_t neighbour = 1;
constexpr uint32_t large_file = 2;
constexpr uint32_t shared_end = 3;
const dolm::EfsLayout layout{2,
                             4,
                             3,
                             0,
                             {{small_file, 0, 0, 500},
                              {neighbour, 0, 1000, 300},
                              {large_file, 1, 0, 10000},
                              {shared_end, 3, 2000, 1000}}};

void load_layout(uint32_t threshold) {
    builders::Geometry geometry{.bm_num = layout.bm_num,
                                .valid_block_num = layout.valid_blocks,
                                .non_valid_block_num = layout.spare_blocks,
                                .wear_leveling_threshold = threshold};
    for (const dolm::EfsPlace &place : layout.files) {
        const auto word = [](uint32_t value) { return static_cast<uint16_t>(value); };
        geometry.records.push_back(
            {word(place.number), word(place.block), word(place.offset), word(place.max_size)});
    }
    const dolm::Bytes table = builders::FileTable{{}, {geometry}}.build();
    load_file_table(table.data(), geometry.sku, static_cast<uint32_t>(table.size()));
}

// The mapping in force again and again, until the next entry would go to that slot.
Change fill_bm(uint32_t slot) {
    return {"the filling of the BM",
            [slot] {
                uint32_t status = EFS_OK;
                while (status == EFS_OK &&
                       efs_ctx.bme_offset + entry_size < 16 + slot * entry_size) {
                    status = EFS_commit_BME(&efs_ctx.current_bme, 0, 0);
                }
                return status;
            },
            {}};
}

// What has become of the image meanwhile, under the store.
Change damage(uint32_t at) {
    return {"damage", [at] { return efs_image[at] = 0, EFS_OK; }, {}};
}

Change set_erase_count(uint32_t block, uint32_t count) {
    return {"wear",
            [=] {
                uint8_t *const header = efs_image + (layout.bm_num + block) * block_size;
                dolm::store_le32(header, count);
                dolm::store_le32(header + 12, EFS_crc32(0, header, 12));
                return EFS_OK;
            },
            {}};
}

using Changes = std::vector<Change>;
using S = EfsStore;

struct Case {
    const char *name;
    Changes before; // on a formatted store
    Changes cut;
    uint32_t threshold = 100;
};

constexpr auto write = S::write;
constexpr uint32_t slots = (4095 - 16) / entry_size;

void PrintTo(const Case &test, std::ostream *out) {
    *out << test.name;
}

const Case cases[] = {
    {"write_one_block", {}, {write(small_file, 100, 1), write(neighbour, 300, 2)}},
    {"write_two_blocks", {}, {write(large_file, 5000, 1)}},
    {"write_three_blocks", {}, {write(large_file, 10000, 1), write(shared_end, 1000, 2)}},
    {"rewrite",
     {write(large_file, 9000, 1), write(shared_end, 30, 2), write(small_file, 500, 3)},
     {write(large_file, 10000, 4), write(small_file, 20, 5)}},
    {"shrink_to_empty",
     {write(large_file, 9000, 1), write(shared_end, 30, 2)},
     {write(large_file, 0, 3), write(shared_end, 0, 3)}},
    {"delete",
     {write(large_file, 9000, 1), write(neighbour, 30, 2), write(small_file, 9, 1)},
     {S::remove(large_file), S::remove(neighbour), write(large_file, 4073, 5)}},
    {"switch_at_slot_limit",
     {fill_bm(slots - 1)},
     {write(small_file, 9, 1), write(large_file, 5000, 2)}},
    {"switch_into_used_bm",
     {S::switch_bm(), write(neighbour, 7, 7), fill_bm(slots)},
     {write(small_file, 100, 1), S::switch_bm()}},
    {"switch_after_torn_entry",
     {write(small_file, 100, 1), write(neighbour, 5, 5), damage(16 + 3 * entry_size)},
     {write(small_file, 200, 2), write(small_file, 300, 2)}},
    {"wear_onto_free",
     {write(large_file, 100, 1), set_erase_count(6, 51)},
     {write(small_file, 100, 2)},
     50},
    {"wear_onto_dirty",
     {write(large_file, 100, 1), set_erase_count(1, 80)},
     {write(small_file, 100, 2), write(small_file, 90, 3)},
     50},
    {"wear_again_and_again",
     {write(large_file, 9000, 1)},
     {write(small_file, 9, 2), S::idle_reclaim(), write(neighbour, 9, 3)},
     0},
    {"dirty_erase", {write(large_file, 9000, 1)}, {S::dirty_erase(), S::dirty_erase()}},
    {"idle_erase_of_next_bm",
     {S::switch_bm(), S::switch_bm(), write(small_file, 4, 4), fill_bm(160)},
     {S::idle_reclaim(), S::idle_reclaim(), S::switch_bm()}},
    {"repair",
     {write(small_file, 100, 1), damage((2 + 5) * block_size + 12)},
     {write(small_file, 200, 2)}},
};

void run(const Changes &changes, Files &files) {
    for (const Change &change : changes) {
        ASSERT_EQ(change.run(), 0u) << change.name;
        if (change.effect) {
            change.effect(files);
        }
    }
}

Image formatted(EfsStore &store) {
    Image image(layout.image_size(), 0xFF);
    EXPECT_EQ(store.mount(image), EFS_BAD_DATA);
    EXPECT_EQ(EFS_do_format(), EFS_OK);
    EXPECT_EQ(store.mount(image), EFS_OK);
    return image;
}

class EfsPowerCut : public testing::TestWithParam<Case> {};

TEST_P(EfsPowerCut, EveryCutLeavesTheOldOrTheNew) {
    load_layout(GetParam().threshold);
    EfsStore store(layout);
    Image image = formatted(store);
    Files files;
    run(GetParam().before, files);
    expect_every_cut_holds("EFS", store, {GetParam().name, image, files, GetParam().cut});
}

TEST_P(EfsPowerCut, EveryFaultLeavesTheOldOrTheNew) {
    load_layout(GetParam().threshold);
    EfsStore store(layout);
    Image image = formatted(store);
    Files files;
    run(GetParam().before, files);
    // No call does more than read, erase and write every block.
    const uint64_t blocks = layout.bm_num + layout.data_blocks();
    expect_every_fault_is_survived(store, {GetParam().name, image, files, GetParam().cut},
                                   {{device_failure, EFS_BAD_DATA}, 12 * blocks, true});
}

// Cuts follow each other without end, over stores that wear.
TEST(EfsPowerCutChain, HoldsFromCutToCut) {
    EfsStore store(layout);
    expect_chains_hold("EFS", store, 40, [&](uint64_t seed) {
        load_layout(seed % 2 == 0 ? 3 : 100);
        return Workload{"chain", formatted(store), {}, {}};
    });
}

INSTANTIATE_TEST_SUITE_P(All, EfsPowerCut, testing::ValuesIn(cases),
                         [](const auto &test) { return std::string(test.param.name); });

TEST(EfsWipe, EveryFaultInAFormatCanBeWiped) {
    load_layout(100);
    EfsStore store(layout);
    const Change format = {"the format", EFS_do_format, {}};
    expect_every_fault_can_be_wiped(store, {"format", formatted(store), {}, {format}},
                                    {{device_failure, EFS_BAD_DATA}, 1000, true});
}

// What leaves no store behind: cut anywhere, the old files are whole or nothing mounts, and a
// format makes a good store of what is left.
TEST(EfsWipe, EveryCutLeavesTheOldFilesOrNoStore) {
    load_layout(100);
    EfsStore store(layout);
    for (const auto wipe : {EFS_erase, EFS_do_format}) {
        Image start = formatted(store);
        Files files;
        run({write(large_file, 9000, 1), S::switch_bm(), write(small_file, 5, 2)}, files);
        Image image = start;
        ASSERT_EQ(store.mount(image), EFS_OK);
        DeviceDouble::instance().attach(image);
        ASSERT_EQ(wipe(), EFS_OK);
        const std::vector<DeviceEvent> events = DeviceDouble::instance().log();
        DeviceDouble::instance().detach();
        uint32_t mounted = 0;
        for (const DeviceEvent &event : events) {
            std::vector<uint32_t> cuts = store.boundaries(event);
            cuts.push_back(event.length);
            for (const uint32_t cut : cuts) {
                for (uint32_t i = 0; i < std::min(cut, event.length); ++i) {
                    start[event.address + i] =
                        event.kind == DeviceEvent::Kind::erase ? uint8_t{0xFF} : event.bytes[i];
                }
                image = start;
                const uint32_t status = store.mount(image);
                if (status == EFS_OK) {
                    const Files shown = store.read_files();
                    ++mounted;
                    ASSERT_TRUE(shown == files || (&event == &events.back() && shown.empty()));
                    continue;
                }
                ASSERT_EQ(status, EFS_BAD_DATA);
                ASSERT_EQ(EFS_do_format(), EFS_OK);
                ASSERT_EQ(store.mount(image), EFS_OK);
                ASSERT_TRUE(store.read_files().empty());
            }
        }
        EXPECT_GT(mounted, 5u);
        count_states(mounted);
    }
}

} // namespace
} // namespace dolm_test
