// The whole library on full sets: both flash stores behind the front end. Files come in at start-up
// and go out at termination; what fails is reported and leaves behind what it should.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <optional>
#include <random>

#include "AfsPhysical.h"
#include "EFS.h"
#include "EFS_phy_win32.h"
#include "dfs.h"
#include "frontend/fcs_tables.h"
#include "heap_double.h"
#include "miniVfs.h"
#include "proof/full_set.h"

namespace builders = dolm::proof::builders;
namespace host_session = dolm::proof::host_session;
namespace full_set = dolm::proof::full_set;

using dolm::Bytes;
using namespace full_set;
using namespace host_session;

namespace {

// What a store holds under a name now; nothing if there is no such file.
std::optional<std::string> flash_content(const std::string &name) {
    uint32_t number = 0;
    uint32_t size = 0;
    if (pathToFileNumber(name.c_str(), &number) != 0 || dfs_getsize(number, &size) != DFS_OK) {
        return std::nullopt;
    }
    std::string content(size, '\0');
    EXPECT_EQ(dfs_read(number, 0, &size, content.data()), DFS_OK) << name;
    EXPECT_EQ(size, content.size());
    return content;
}

class FlashStage : public testing::Test {
  protected:
    void TearDown() override {
        qoQfsNvarTerm(false);
        builders::forget_file_table();
        reports.clear();
    }
};

TEST_F(FlashStage, FourStates) {
    for (const auto &[with_afs, with_efs, plain] : {std::tuple(false, false, "base"),
                                                    {true, false, "from flash"},
                                                    {false, true, "base"},
                                                    {true, true, "from flash"}}) {
        FlashSet set;
        if (!with_afs) {
            set.qfs.clear();
        }
        if (!with_efs) {
            set.efs.clear();
        }
        // With AFS alone the deployed files of EFS cannot be read, which fails the start-up.
        const bool readable = !with_afs || with_efs;
        EXPECT_EQ(set.start(), readable);
        EXPECT_EQ(take_reports(), readable ? Reports{} : Reports{"342:"});
        EXPECT_TRUE(qoFcsIsInitialized());
        EXPECT_EQ(qoQfsIsInitialized(), with_afs && readable);
        EXPECT_EQ(qoQfsIsVfsDeployed(), with_afs && readable);
        EXPECT_EQ(EFS_is_initialized(), with_efs);
        EXPECT_EQ(efs_image != nullptr, with_efs);
        EXPECT_EQ(qoQfsGetEfsSize(), 49152u);
        EXPECT_EQ(value_of("afs/plain"), plain);
        EXPECT_TRUE(qoQfsNvarTerm(false));
    }
}

TEST_F(FlashStage, PullsValuesByTheirAttributes) {
    FlashSet set;
    ASSERT_TRUE(set.start());
    EXPECT_TRUE(reports.empty());
    const std::pair<const char *, std::string> expected[] = {
        {"mca/deploy", "deployed"},
        {"afs/plain", "from flash"},
        {"afs/long", std::string(2000, 'L')},
        {"afs/empty", ""},
        {"afs/trailer", "sealed"},
        {"afs/longtrailer", ""},
        {"afs/notpulled", "from the tables"},
        {"efs/plain", "from EFS"},
        {"efs/long", std::string(5000, 'E')},
        {"efs/trailer", "x"},
    };
    for (const auto &[name, value] : expected) {
        uint8_t *data = nullptr;
        uint32_t size = 0;
        bool writable = false;
        ASSERT_TRUE(qoQfsNvarGet(name, &data, &size, FCS_FILE_CURRENT_VALUES, &writable, nullptr));
        EXPECT_EQ(std::string(data, data + size), value) << name;
        EXPECT_EQ(writable, std::strstr(name, "trailer") == nullptr) << name;
    }
    EXPECT_EQ(value_of("afs/plain", FCS_FILE_ORVEL_CFG), "base");
}

// What else termination writes is left to the random runs.
TEST_F(FlashStage, WritesBackWhatIsNotPulledButNothingWithATrailer) {
    FlashSet set;
    ASSERT_TRUE(set.start());
    ASSERT_TRUE(set_value("afs/trailer", "changed"));
    ASSERT_TRUE(qoQfsNvarTerm(true));
    EXPECT_EQ(value_of("afs/trailer"), "changed") << "in the rebuilt store";
    EXPECT_EQ(flash_content("/home/afs/trailer"), with_trailer("sealed", 40));
    EXPECT_EQ(flash_content("/home/afs/notpulled"), "from the tables");
    set.vync = with_head(rebuilt_store());
    ASSERT_TRUE(set.start());
    EXPECT_EQ(value_of("afs/trailer"), "sealed");
}

// A value that is hidden from the host goes into the store and not into flash, and a file that is
// empty on both sides is left alone: a write would cost EFS a block.
TEST_F(FlashStage, WritesBackNeitherHiddenNorNothing) {
    std::vector<SetFile> files = {default_set[0], default_set[1], default_set[7]};
    files[2].base = "";
    files[2].flash = "";
    FlashSet set(files);
    const Bytes before = set.efs;
    ASSERT_TRUE(set.start());
    ASSERT_TRUE(set_value("afs/plain", "changed"));
    for (FcsFileEntry *entry = s_currentValuesTable.firstEntry; entry != nullptr;
         entry = entry->next) {
        entry->hidden = std::string_view(entry->name) == "/home/afs/plain";
    }
    ASSERT_TRUE(qoQfsNvarTerm(true));
    EXPECT_EQ(flash_content("/home/afs/plain"), "from flash");
    EXPECT_EQ(rebuilt_store(), builders::store_of({{2, "changed"}, {3, ""}, {1, "deployed"}}));
    EXPECT_EQ(set.efs, before);
}

TEST_F(FlashStage, ARefusedValueKeepsTheOthersOutOfTheFlash) {
    FlashSet set;
    ASSERT_TRUE(set.start());
    const Bytes before = set.qfs;
    ASSERT_TRUE(set_value("afs/plain", "changed"));
    ASSERT_TRUE(set_value("efs/trailer", std::string(1001, 'x')));
    EXPECT_FALSE(qoQfsNvarTerm(true));
    EXPECT_EQ(set.qfs, before);
}

TEST_F(FlashStage, WithoutMarkerNothingIsReadOrWritten) {
    std::vector<SetFile> files = default_set;
    for (const std::optional<std::string> &marker : {std::optional<std::string>(), {""}}) {
        files[0].flash = marker;
        FlashSet set(files);
        const Bytes before = set.qfs;
        ASSERT_TRUE(set.start());
        EXPECT_TRUE(qoQfsIsInitialized());
        EXPECT_FALSE(qoQfsIsVfsDeployed());
        EXPECT_EQ(value_of("afs/plain"), "base");
        ASSERT_TRUE(set_value("afs/plain", "changed"));
        EXPECT_TRUE(qoQfsNvarTerm(false));
        EXPECT_EQ(set.qfs, before);
    }
}

TEST_F(FlashStage, StartUpFailures) {
    const auto holding = [](size_t file, const std::string &content) {
        std::vector<SetFile> files = default_set;
        files[file].flash = content;
        return FlashSet(files);
    };
    const auto damaged = [](auto damage) {
        FlashSet set;
        damage(set);
        return set;
    };
    const std::tuple<const char *, FlashSet, Reports> cases[] = {
        {"tiny AFS image",
         damaged([](auto &set) { set.qfs.resize(64); }),
         {"1: Library status code: 22", "342:"}},
        {"erased EFS image", damaged([](auto &set) { set.efs.assign(49152, 0xFF); }), {"343:"}},
        {"EFS image one byte short", damaged([](auto &set) { set.efs.pop_back(); }), {"343:"}},
        {"damaged file in EFS",
         damaged([](auto &set) { std::replace(set.efs.begin(), set.efs.end(), 'E', 'F'); }),
         {"342:"}},
        {"file shorter than its trailer", holding(4, std::string(39, 't')), {"342:"}},
        {"file shorter than its long trailer", holding(5, std::string(55, 't')), {"342:"}},
    };
    for (auto [what, set, expected] : cases) {
        SCOPED_TRACE(what);
        EXPECT_FALSE(set.start());
        EXPECT_EQ(take_reports(), expected);
        EXPECT_TRUE(qoFcsIsInitialized());
        EXPECT_FALSE(qoQfsIsInitialized());
        EXPECT_TRUE(qoQfsNvarTerm(false));
    }
}

TEST_F(FlashStage, AFileThatCannotBeReadLeavesTheValueOfTheTables) {
    // One bit flips in a page behind the first, in a file longer than its value and in one as long.
    for (const size_t size : {size_t{2000}, size_t{100}}) {
        std::vector<SetFile> files = default_set;
        files[2].base = std::string(100, 'b');
        files[2].flash = std::string(size, 'L');
        FlashSet set(files);
        const std::string page(36, 'L');
        const auto place = std::find_end(set.qfs.begin(), set.qfs.end(), page.begin(), page.end());
        ASSERT_NE(place, set.qfs.end());
        *place ^= 1;
        EXPECT_FALSE(set.start());
        EXPECT_EQ(take_reports(), Reports{"342:"});
        EXPECT_TRUE(value_of("afs/long") == files[2].base);
        EXPECT_EQ(value_of("afs/empty"), "") << "pulled before it";
        ASSERT_TRUE(qoQfsNvarTerm(true));
        EXPECT_TRUE(value_of("afs/long") == files[2].base);
    }
}

// Whatever comes of a start-up past its intake: nothing is left that reads the images of the one
// before, which the host may have released.
TEST_F(FlashStage, StartUpTakesTheStoresBeforeOutOfUse) {
    for (const bool failing : {false, true}) {
        FlashSet set, next;
        next.qfs.clear();
        next.efs.clear();
        next.orvel.resize(failing ? 3 : next.orvel.size());
        ASSERT_TRUE(set.start());
        EXPECT_EQ(next.start(), !failing);
        EXPECT_FALSE(qoQfsIsInitialized());
        EXPECT_EQ(EFS_is_initialized(), 0);
        EXPECT_EQ(efs_image, nullptr);
        EXPECT_EQ(efs_size, 0u);
        Bytes().swap(set.qfs); // an access would be seen by the address sanitizer

        uint32_t word = 4;
        for (const uint32_t status :
             {dfs_getsize(2, &word), dfs_read(2, 0, &word, &word), dfs_write(2, 0, 4, &word, 0),
              dfs_delete_file(2), dfs_mark_zombie_file(100), dfs_force_full_reclaim(),
              dfs_force_dirty_erase(), dfs_idle_reclaim(), dfs_set_page_size(64),
              afs_sub_pt_read(dfs_context, 0, 4, &word)}) {
            EXPECT_EQ(status, DFS_INVALID_ARGUMENT);
        }
        EXPECT_EQ(dfs_idle_reclaim_needed(), 0u);
        dfs_set_idle_reclaim_enabled();
        EXPECT_EQ(dfs_get_idle_reclaim_enabled(), 0u);
    }
}

TEST_F(FlashStage, WriteBackFailures) {
    // An EFS file whose place is shorter than its limit in the file table.
    std::vector<SetFile> narrow = default_set;
    narrow[7].limit = 2000;
    std::vector<SetFile> missing = narrow;
    missing[1].flash = std::nullopt;
    // A file number of 0 is passed over at start-up and refused at termination.
    std::vector<SetFile> unnumbered = narrow;
    unnumbered[1].id = 0;
    const std::tuple<const std::vector<SetFile> &, Reports, const char *> cases[] = {
        {missing,
         {"level 2 0:File \"/home/afs/plain\" found in orvel.cfg, but missing in deployed VFS. The "
          "file will be skipped"},
         "339: Library status code: 0"},
        {unnumbered, {}, "102: Library status code: 0"},
        {narrow, {}, "102: Library status code: 5"},
    };
    for (const auto &[files, at_start, at_end] : cases) {
        FlashSet set(files);
        ASSERT_TRUE(set.start());
        EXPECT_EQ(take_reports(), at_start);
        EXPECT_EQ(value_of("afs/plain"), &files == &narrow ? "from flash" : "base");
        ASSERT_TRUE(set_value("efs/plain", std::string(1500, 'x')));
        EXPECT_FALSE(qoQfsNvarTerm(true));
        EXPECT_EQ(take_reports(), (Reports{at_end, "348:"}));
        EXPECT_FALSE(qoFcsIsInitialized());
        EXPECT_FALSE(qoQfsIsInitialized());
    }
}

TEST_F(FlashStage, DispatchRoutesAndFolds) {
    uint32_t size = 0;
    uint32_t length = 10;
    char buffer[16];
    FlashSet set;
    ASSERT_TRUE(set.start());
    const uint32_t efs_plain = 2u << 11;
    for (const uint32_t selector : {1u << 11, 3u << 11}) {
        EXPECT_EQ(dfs_getsize(selector, &size), DFS_INVALID_ARGUMENT);
        EXPECT_EQ(dfs_read(selector, 0, &length, buffer), DFS_INVALID_ARGUMENT);
        EXPECT_EQ(dfs_write(selector, 0, 1, buffer, 0), DFS_INVALID_ARGUMENT);
    }
    EXPECT_EQ(dfs_getsize(0xF0000002, &size), DFS_OK) << "the class nibble does not reach AFS";
    EXPECT_EQ(dfs_delete_file(0xF0000002), DFS_INVALID_ARGUMENT) << "here it does";
    EXPECT_EQ(dfs_delete_file(efs_plain), DFS_INVALID_ARGUMENT);
    EXPECT_EQ(dfs_getsize(100, &size), DFS_NO_SUCH_FILE);
    EXPECT_EQ(dfs_write(2, 0, 0x40001, buffer, 0), DFS_FILE_TOO_LARGE);
    EXPECT_EQ(dfs_write(efs_plain, 0, 1001, std::string(1001, 'x').data(), 0), DFS_IO_ERROR);
    EXPECT_EQ(dfs_set_page_size(0), DFS_INVALID_ARGUMENT);
    EXPECT_EQ(dfs_set_page_size(64), DFS_OK);
    EXPECT_EQ(dfs_delete_file(2), DFS_OK);
    EXPECT_EQ(dfs_delete_file(2), DFS_NO_SUCH_FILE);
    EXPECT_EQ(dfs_mark_zombie_file(2), DFS_OK);

    uint32_t number = 7;
    EXPECT_EQ(pathToFileNumber("/home/efs/plain", nullptr), 1u);
    EXPECT_EQ(pathToFileNumber("/home/none", &number), 2u);
    EXPECT_EQ(number, 7u);
    EXPECT_EQ(readVfs("/home/efs/plain", 5, buffer, 3), 0u);
    EXPECT_EQ(std::string(buffer, 3), "EFS");
    EXPECT_EQ(readVfs("/home/none", 0, buffer, 1), 2u);
    EXPECT_EQ(readVfs("/home/afs/plain", 0, buffer, 1), 6u);

    set.efs.clear();
    EXPECT_FALSE(set.start());
    EXPECT_EQ(dfs_read(efs_plain, 0, &length, buffer), DFS_NO_SUCH_FILE);
    EXPECT_EQ(dfs_getsize(efs_plain, &size), DFS_IO_ERROR);
    EXPECT_EQ(mini_vfs_init(set.qfs.data(), 5), 1u);
    EXPECT_EQ(dfs_getsize(1, &size), DFS_INVALID_ARGUMENT) << "no store is mounted";
}

// Many start-ups, changes and terminations on one set beside a model: a map of names to values.
TEST_F(FlashStage, RandomRunsMatchTheModel) {
    const uint32_t seed = 20261122;
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    FlashSet set;
    std::map<std::string, std::string> model;
    for (int round = 0; round < 200; ++round) {
        ASSERT_TRUE(set.start()) << round;
        for (auto change = random() % 4; change > 0; --change) {
            const SetFile &file = default_set[random() % default_set.size()];
            if ((file.attributes & 3) != 0) {
                continue;
            }
            // Often emptied, all but the marker.
            const size_t at_least = &file == &default_set[0] ? 1 : 0;
            const size_t more = random() % 4 == 0 ? 0 : random() % std::min(file.limit, 1500u);
            model[file.name] = std::string(at_least + more, static_cast<char>('a' + random() % 26));
            ASSERT_TRUE(set_value(file.name, model[file.name]));
        }
        ASSERT_TRUE(qoQfsNvarTerm(random() % 2 == 0)) << round;
        for (const auto &[name, value] : model) {
            ASSERT_EQ(flash_content(name), value) << round << name;
        }
        set.vync = random() % 2 == 0 && qoFcsIsInitialized() ? with_head(rebuilt_store()) : Bytes();
        if (random() % 3 == 0) {
            dfs_idle_reclaim();
            EFS_idle_reclaim();
        }
    }
    EXPECT_TRUE(reports.empty());
}

TEST_F(FlashStage, MemoryDoesNotGrow) {
    FlashSet set;
    size_t settled = 0;
    for (int round = 0; round < 1000; ++round) {
        ASSERT_TRUE(set.start());
        ASSERT_TRUE(set_value("afs/plain", std::to_string(round)));
        ASSERT_TRUE(qoQfsNvarTerm(round % 7 == 0));
        if (round == 100) {
            settled = heap_double::bytes_in_use();
        }
    }
    qoQfsNvarTerm(false);
    // The allocator's rounding differs from run to run; one lost block a round would be 900.
    EXPECT_NEAR(static_cast<double>(heap_double::bytes_in_use()), static_cast<double>(settled),
                512);
}

} // namespace
