// Every kind of change of an EFS store, cut at every write and erase, two cuts deep.
#include <algorithm>
#include <iostream>
#include <stdexcept>

#include "efs_fixture.h"
#include "image/efs_image.h"
#include "power_cut.h"

namespace dolm_test {
namespace {

constexpr uint32_t block_size = 4096;

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

// Everything that counts is under a checksum, and every target is erased or checked before it is
// written, so that the format has no limits here.
class EfsStore : public PowerCutStore {
  public:
    explicit EfsStore(uint32_t threshold) {
        builders::Geometry geometry{.bm_num = layout.bm_num,
                                    .valid_block_num = layout.valid_blocks,
                                    .non_valid_block_num = layout.spare_blocks,
                                    .wear_leveling_threshold = threshold};
        for (const dolm::EfsPlace &place : layout.files) {
            const auto word = [](uint32_t value) { return static_cast<uint16_t>(value); };
            geometry.records.push_back(
                {word(place.number), word(place.block), word(place.offset), word(place.max_size)});
        }
        const builders::Bytes table = builders::FileTable{{}, {geometry}}.build();
        load_file_table(table.data(), geometry.sku, static_cast<uint32_t>(table.size()));
    }

    uint32_t mount(std::span<uint8_t> image) override { return EFS_init_tools(image.data()); }
    void unmount() override {}

    Files read_files() override {
        Files files;
        for (const dolm::EfsPlace &place : layout.files) {
            uint32_t length = place.max_size;
            std::vector<uint8_t> bytes(length);
            const uint32_t status = EFS_read(place.number, 0, &length, bytes.data());
            if (status == EFS_NO_FILE) {
                continue;
            }
            if (status != EFS_OK) {
                throw std::runtime_error("the read of file " + std::to_string(place.number) +
                                         " gives " + std::to_string(status));
            }
            bytes.resize(length);
            files.emplace(place.number, std::move(bytes));
        }
        return files;
    }

    std::vector<std::string> check(std::span<const uint8_t> image, const Files &files) override {
        const dolm::EfsImage found = dolm::read_efs_image(image, layout);
        std::vector<std::string> findings = dolm::efs_damages(found);
        if (!findings.empty()) {
            return findings;
        }
        for (const dolm::EfsFile &file : found.files) {
            const auto known = files.find(file.place.number);
            const bool exists = file.kind == dolm::EfsFile::Kind::contents;
            if (exists != (known != files.end()) || (exists && known->second != file.contents)) {
                findings.push_back("the reader finds another file " +
                                   std::to_string(file.place.number) + " than the store");
            }
        }
        const uint32_t entry_offset = 16 + found.entry_in_force * (layout.data_blocks() + 12);
        if (found.bm_in_force != efs_ctx.current_bm || entry_offset != efs_ctx.bme_offset ||
            found.torn_entry != (efs_ctx.bm_switch_pending != 0)) {
            findings.push_back("the reader finds another entry in force than the store");
        }
        return findings;
    }

    std::vector<Change> further_changes(uint32_t choice, const Files &) override {
        const uint32_t file = choice / 8 % 4;
        const Change overwrite = write(file, 1 + choice % 300, choice);
        const std::vector<Change> sequels[] = {
            {overwrite},
            {write(large_file, 9000, choice), overwrite},
            {write(large_file, choice % 10000, choice), remove(large_file), overwrite},
            {overwrite, remove(file)},
            {idle_reclaim(), overwrite},
            {overwrite, idle_reclaim(), idle_reclaim()},
            {switch_bm(), overwrite},
        };
        return sequels[choice % std::size(sequels)];
    }

    std::vector<uint32_t> boundaries(const DeviceEvent &event) const override {
        if (event.kind == DeviceEvent::Kind::erase) {
            return {4, 12, 16, 20, 35, 2048, 4092};
        }
        switch (event.length) {
        case 4:
            return {2};
        case 16: // a header
            return {2, 4, 8, 12, 14};
        case 19: // an entry
            return {2, 4, 7, 11, 15, 17};
        default: // a data area, with or without footer
            return {2, 4, 104, 1004, 2004, 4076};
        }
    }

    static Change write(uint32_t file, uint32_t length, uint32_t seed) {
        return {"the write of file " + std::to_string(file),
                [=] {
                    const std::vector<uint8_t> bytes = efs_pattern(length + 1, seed);
                    return EFS_write(file, 0, length, bytes.data());
                },
                [=](Files &files) { files[file] = efs_pattern(length, seed); }};
    }
    static Change remove(uint32_t file) {
        return {"the delete of file " + std::to_string(file), [=] { return EFS_delete(file); },
                [=](Files &files) { files.erase(file); }};
    }
    static Change idle_reclaim() { return {"idle reclaim", EFS_idle_reclaim, {}}; }
    static Change switch_bm() {
        return {"a BM switch", [] { return EFS_switch_BM(&efs_ctx.current_bme); }, {}};
    }
    static Change dirty_erase() {
        return {"a dirty erase",
                [] {
                    const uint32_t status = EFS_scan_for_Data_Blocks_status_and_EC();
                    return status == EFS_OK ? EFS_erase_dirty_block() : status;
                },
                {}};
    }
    // The mapping in force again and again, until the next entry would go to that slot.
    static Change fill_bm(uint32_t slot) {
        return {"the filling of the BM",
                [slot] {
                    uint32_t status = EFS_OK;
                    while (status == EFS_OK && efs_ctx.bme_offset + 19 < 16 + slot * 19) {
                        status = EFS_commit_BME(&efs_ctx.current_bme, 0, 0);
                    }
                    return status;
                },
                {}};
    }
    // What has become of the image meanwhile, under the store.
    static Change damage(uint32_t at) {
        return {"damage", [at] { return efs_image[at] = 0, EFS_OK; }, {}};
    }
    static Change set_erase_count(uint32_t block, uint32_t count) {
        return {"wear",
                [=] {
                    uint8_t *const header = efs_image + (layout.bm_num + block) * block_size;
                    dolm::store_le32(header, count);
                    dolm::store_le32(header + 12, EFS_crc32(0, header, 12));
                    return EFS_OK;
                },
                {}};
    }
};

using Changes = std::vector<Change>;
using S = EfsStore;

struct Case {
    const char *name;
    Changes before; // on a formatted store
    Changes cut;
    uint32_t threshold = 100;
};

constexpr auto write = S::write;
constexpr uint32_t slots = (4095 - 16) / 19;

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
     {S::fill_bm(slots - 1)},
     {write(small_file, 9, 1), write(large_file, 5000, 2)}},
    {"switch_into_used_bm",
     {S::switch_bm(), write(neighbour, 7, 7), S::fill_bm(slots)},
     {write(small_file, 100, 1), S::switch_bm()}},
    {"switch_after_torn_entry",
     {write(small_file, 100, 1), write(neighbour, 5, 5), S::damage(16 + 3 * 19)},
     {write(small_file, 200, 2), write(small_file, 300, 2)}},
    {"wear_onto_free",
     {write(large_file, 100, 1), S::set_erase_count(6, 51)},
     {write(small_file, 100, 2)},
     50},
    {"wear_onto_dirty",
     {write(large_file, 100, 1), S::set_erase_count(1, 80)},
     {write(small_file, 100, 2), write(small_file, 90, 3)},
     50},
    {"wear_again_and_again",
     {write(large_file, 9000, 1)},
     {write(small_file, 9, 2), S::idle_reclaim(), write(neighbour, 9, 3)},
     0},
    {"dirty_erase", {write(large_file, 9000, 1)}, {S::dirty_erase(), S::dirty_erase()}},
    {"idle_erase_of_next_bm",
     {S::switch_bm(), S::switch_bm(), write(small_file, 4, 4), S::fill_bm(160)},
     {S::idle_reclaim(), S::idle_reclaim(), S::switch_bm()}},
    {"repair",
     {write(small_file, 100, 1), S::damage((2 + 5) * block_size + 12)},
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
    EfsStore store(GetParam().threshold);
    Image image = formatted(store);
    Files files;
    run(GetParam().before, files);
    PowerCut power_cut(store);
    power_cut.explore({GetParam().name, image, files, GetParam().cut});
    std::cout << "EFS " << GetParam().name << ": " << power_cut.counts() << "\n";
}

// Cuts follow each other without end, over stores that wear.
TEST(EfsPowerCutChain, HoldsFromCutToCut) {
    for (const uint32_t threshold : {3u, 100u}) {
        EfsStore store(threshold);
        PowerCut power_cut(store);
        for (uint64_t seed = 1; seed <= 20; ++seed) {
            power_cut.chain({"chain", formatted(store), {}, {}}, seed, 250);
        }
        std::cout << "EFS chain: " << power_cut.counts().chained << " cuts\n";
    }
}

INSTANTIATE_TEST_SUITE_P(All, EfsPowerCut, testing::ValuesIn(cases),
                         [](const auto &test) { return std::string(test.param.name); });

// What leaves no store behind: cut anywhere, the old files are whole or nothing mounts, and a
// format makes a good store of what is left.
TEST(EfsWipe, EveryCutLeavesTheOldFilesOrNoStore) {
    EfsStore store(100);
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
    }
}

} // namespace
} // namespace dolm_test
