// The whole library on full sets: both flash stores behind the front end. Files come in at start-up
// and go out at termination; what fails is reported and leaves behind what it should; a cut of
// power at any device write of a termination costs nothing but the change under way.
#include <gtest/gtest.h>
#include <malloc.h>

#include <algorithm>
#include <functional>
#include <optional>
#include <random>

#include "EFS.h"
#include "EFS_phy_win32.h"
#include "device_double.h"
#include "dfs.h"
#include "full_set.h"
#include "miniVfs.h"

using namespace full_set;
using namespace host_session;
using dolm_test::DeviceDouble;

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
        DeviceDouble::instance().restore_power();
        qoQfsNvarTerm(false);
        builders::forget_file_table();
        reports.clear();
    }
};

TEST_F(FlashStage, FourStates) {
    const FlashSet whole;
    struct Case {
        bool with_afs;
        bool with_efs;
        std::string plain;
    };
    for (const Case &state : {Case{false, false, "base"}, Case{true, false, ""},
                              Case{false, true, "base"}, Case{true, true, "from flash"}}) {
        FlashSet set = whole;
        if (!state.with_afs) {
            set.qfs.clear();
        }
        if (!state.with_efs) {
            set.efs.clear();
        }
        // With AFS alone the deployed files of EFS cannot be read, which fails the start-up.
        const bool readable = !state.with_afs || state.with_efs;
        EXPECT_EQ(set.start(), readable);
        EXPECT_EQ(take_numbers(), readable ? std::vector<int32_t>{} : std::vector<int32_t>{342});
        EXPECT_TRUE(qoFcsIsInitialized());
        EXPECT_EQ(qoQfsIsInitialized(), state.with_afs && readable);
        EXPECT_EQ(qoQfsIsVfsDeployed(), state.with_afs && readable);
        EXPECT_EQ(EFS_is_initialized(), state.with_efs);
        EXPECT_EQ(efs_image != nullptr, state.with_efs);
        EXPECT_EQ(qoQfsGetEfsSize(), 49152u);
        if (readable) {
            EXPECT_EQ(value_of("afs/plain"), state.plain);
        }
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
        EXPECT_EQ(value_of(name), value) << name;
    }
    EXPECT_EQ(value_of("afs/plain", FCS_FILE_ORVEL_CFG), "base");
    for (const auto &[name, is_writable] :
         {std::pair{"afs/trailer", false}, {"efs/trailer", false}, {"afs/notpulled", true}}) {
        bool writable = !is_writable;
        uint8_t *data = nullptr;
        uint32_t size = 0;
        EXPECT_TRUE(qoQfsNvarGet(name, &data, &size, FCS_FILE_CURRENT_VALUES, &writable, nullptr));
        EXPECT_EQ(writable, is_writable) << name;
    }
}

TEST_F(FlashStage, WritesValuesBack) {
    FlashSet set;
    ASSERT_TRUE(set.start());
    const std::pair<const char *, std::string> changes[] = {
        {"/home/afs/plain", std::string(300, 'p')},
        {"/home/afs/long", "short"},
        {"/home/afs/empty", "grown"},
        {"/home/afs/trailer", "not written back"},
        {"/home/efs/plain", ""},
        {"/home/efs/long", std::string(6000, 'e')},
    };
    for (const auto &[name, value] : changes) {
        ASSERT_TRUE(set_value(name, value));
    }
    ASSERT_TRUE(qoQfsNvarTerm(true));
    EXPECT_EQ(value_of("afs/trailer"), "not written back") << "in the rebuilt store";
    EXPECT_EQ(flash_content("/home/afs/trailer"), with_trailer("sealed", 40));
    EXPECT_EQ(flash_content("/home/afs/notpulled"), "from the tables");
    set.vync = with_head(rebuilt_store());
    ASSERT_TRUE(qoQfsNvarTerm(false));

    ASSERT_TRUE(set.start()) << "on the changed images";
    EXPECT_TRUE(reports.empty());
    for (const auto &[name, value] : changes) {
        const bool sealed = std::string(name) == "/home/afs/trailer";
        EXPECT_EQ(value_of(name), sealed ? "sealed" : value) << name;
        EXPECT_EQ(flash_content(name), sealed ? with_trailer("sealed", 40) : value) << name;
    }
    // Emptied again, an AFS file is cut to nothing, and then left alone.
    ASSERT_TRUE(set_value("afs/empty", ""));
    ASSERT_TRUE(qoQfsNvarTerm(true));
    EXPECT_EQ(flash_content("/home/afs/empty"), "");
    const Bytes before = set.qfs;
    ASSERT_TRUE(set_value("mca/deploy", "deployed"));
    ASSERT_TRUE(qoQfsNvarTerm(false));
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
        EXPECT_TRUE(qoQfsNvarTerm(true));
        EXPECT_EQ(set.qfs, before);
        EXPECT_TRUE(qoQfsNvarTerm(false));
    }
}

TEST_F(FlashStage, StartUpFailures) {
    const Report no_qfs{4, 342, "Failed to initialize QFS.", ""};
    const Report no_efs{4, 343, "Failed to initialize EFS.", ""};
    struct Case {
        const char *what;
        std::function<void(std::vector<SetFile> &)> change;
        std::function<void(FlashSet &)> damage;
        std::vector<Report> expected;
    };
    const auto nothing = [](auto &) {};
    const Case cases[] = {
        {"erased AFS image",
         nothing,
         [](FlashSet &set) { set.qfs.assign(65536, 0xFF); },
         {{4, 1, "Initialize Error", " Library status code: 5"}, no_qfs}},
        {"tiny AFS image",
         nothing,
         [](FlashSet &set) { set.qfs.resize(64); },
         {{4, 1, "Initialize Error", " Library status code: 22"}, no_qfs}},
        {"erased EFS image", nothing, [](FlashSet &set) { set.efs.assign(49152, 0xFF); }, {no_efs}},
        {"EFS image one byte short",
         nothing,
         [](FlashSet &set) {
             set.efs.pop_back();
             set.efs.shrink_to_fit();
         },
         {no_efs}},
        {"file shorter than its trailer",
         [](auto &files) { files[4].flash = std::string(39, 't'); },
         nothing,
         {no_qfs}},
        {"file shorter than its long trailer",
         [](auto &files) { files[5].flash = std::string(55, 't'); },
         nothing,
         {no_qfs}},
        {"damaged file in EFS",
         nothing,
         [](FlashSet &set) { std::replace(set.efs.begin(), set.efs.end(), 'E', 'F'); },
         {no_qfs}},
    };
    for (const Case &test : cases) {
        SCOPED_TRACE(test.what);
        std::vector<SetFile> files = default_set;
        test.change(files);
        FlashSet set(files);
        test.damage(set);
        EXPECT_FALSE(set.start());
        EXPECT_EQ(reports, test.expected);
        EXPECT_TRUE(qoFcsIsInitialized());
        EXPECT_FALSE(qoQfsIsInitialized());
        reports.clear();
        EXPECT_TRUE(qoQfsNvarTerm(false));
    }
}

TEST_F(FlashStage, FailureInTheTablesLeavesNoStoreInUse) {
    FlashSet set;
    ASSERT_TRUE(set.start());
    _commonDolmInputs cut = set.record();
    cut.orvelCfg.size = 3;
    EXPECT_FALSE(qoQfsDolmInit(&cut, on_report));
    EXPECT_FALSE(qoQfsIsInitialized());
    EXPECT_EQ(EFS_is_initialized(), 0);
    EXPECT_EQ(efs_image, nullptr);
}

TEST_F(FlashStage, MissingFileIsAWarningAtStartUpAndAFailureAtTermination) {
    std::vector<SetFile> files = default_set;
    files[1].flash = std::nullopt;
    FlashSet set(files);
    ASSERT_TRUE(set.start());
    EXPECT_EQ(reports,
              (std::vector<Report>{{2, 0, "",
                                    "File \"/home/afs/plain\" found in orvel.cfg, but missing in "
                                    "deployed VFS. The file will be skipped"}}));
    EXPECT_EQ(value_of("afs/plain"), "base");
    reports.clear();
    EXPECT_FALSE(qoQfsNvarTerm(true));
    EXPECT_EQ(reports, (std::vector<Report>{
                           {4, 339, "Failed to get file size from QFS.", " Library status code: 0"},
                           {4, 348, "Failed to create new Vyn.cfg table.", ""}}));
    EXPECT_FALSE(qoFcsIsInitialized());
    EXPECT_FALSE(qoQfsIsInitialized());
}

TEST_F(FlashStage, WriteBackFailures) {
    // A file number of 0 is passed over at start-up and refused at termination.
    std::vector<SetFile> files = default_set;
    files[1].id = 0;
    // An EFS file whose place is shorter than its limit in the file table.
    std::vector<SetFile> narrow = default_set;
    narrow[7].limit = 2000;
    for (const auto &[set_files, value, status] :
         {std::tuple{files, std::string("x"), 0}, {narrow, std::string(1500, 'x'), 5}}) {
        FlashSet set(set_files);
        ASSERT_TRUE(set.start());
        ASSERT_TRUE(set_value(status == 0 ? "afs/plain" : "efs/plain", value));
        EXPECT_FALSE(qoQfsNvarTerm(true));
        EXPECT_EQ(reports,
                  (std::vector<Report>{{4, 102, "Error writing to file.",
                                        " Library status code: " + std::to_string(status)},
                                       {4, 348, "Failed to create new Vyn.cfg table.", ""}}));
        reports.clear();
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
        EXPECT_EQ(dfs_delete_file(selector), DFS_INVALID_ARGUMENT);
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
    EXPECT_EQ(pathToFileNumber("/home/efs/plain", &number), 0u);
    EXPECT_EQ(number, efs_plain);
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

// A termination that changes files of both stores, cut behind each of its device writes and erases.
TEST_F(FlashStage, TerminationCutAtEveryDeviceWrite) {
    const FlashSet start;
    const std::map<std::string, std::string> changes = {
        {"/home/afs/plain", std::string(500, 'p')},
        {"/home/afs/long", "short"},
        {"/home/efs/plain", "changed"},
        {"/home/efs/long", std::string(4500, 'e')},
        {"/home/mca/deploy", "still deployed"},
    };
    uint64_t states = 0;
    for (bool finished = false; !finished; ++states) {
        SCOPED_TRACE("cut after " + std::to_string(states) + " writes and erases");
        FlashSet set = start;
        ASSERT_TRUE(set.start());
        for (const auto &[name, value] : changes) {
            ASSERT_TRUE(set_value(name, value));
        }
        DeviceDouble::instance().cut_after(states);
        finished = qoQfsNvarTerm(true);
        qoQfsNvarTerm(false);
        DeviceDouble::instance().restore_power();
        reports.clear();

        ASSERT_TRUE(set.start()) << "on what the cut left";
        EXPECT_TRUE(reports.empty());
        for (const SetFile &file : default_set) {
            const auto content = flash_content(file.name);
            const auto change = changes.find(file.name);
            const bool is_new = change != changes.end() && content == change->second;
            // What is never pulled is written from the tables at each termination.
            const bool from_tables = (file.attributes & 2) != 0 && content == file.base;
            EXPECT_TRUE(is_new || from_tables || content == file.flash) << file.name;
            EXPECT_TRUE(!finished || change == changes.end() || is_new) << file.name;
        }
        ASSERT_TRUE(set_value("afs/long", "after") && set_value("efs/long", "after"));
        ASSERT_TRUE(qoQfsNvarTerm(true)) << "a further write";
        EXPECT_EQ(flash_content("/home/afs/long"), "after");
        EXPECT_EQ(flash_content("/home/efs/long"), "after");
        ASSERT_TRUE(qoQfsNvarTerm(false));
    }
    EXPECT_GT(states, 50u);
}

// Many start-ups, changes and terminations on one set beside a model: a map of names to values.
TEST_F(FlashStage, RandomRunsMatchTheModel) {
    const uint32_t seed = 20261122;
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    FlashSet set;
    std::map<std::string, std::string> model;
    std::map<std::string, uint32_t> limits;
    for (const SetFile &file : default_set) {
        if ((file.attributes & 3) == 0) {
            model[file.name] = *file.flash;
            limits[file.name] = std::min(file.limit, 1500u);
        }
    }
    for (int round = 0; round < 200; ++round) {
        ASSERT_TRUE(set.start()) << round;
        for (auto change = random() % 4; change > 0; --change) {
            auto chosen = model.begin();
            std::advance(chosen, random() % model.size());
            const bool is_marker = chosen->first == "/home/mca/deploy"; // must not become empty
            const auto size = random() % limits[chosen->first] + (is_marker ? 1 : 0);
            chosen->second = std::string(size, static_cast<char>('a' + random() % 26));
            ASSERT_TRUE(set_value(chosen->first, chosen->second));
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

#ifndef __SANITIZE_ADDRESS__
TEST_F(FlashStage, MemoryDoesNotGrow) {
    FlashSet set;
    size_t settled = 0;
    for (int round = 0; round < 1000; ++round) {
        ASSERT_TRUE(set.start());
        ASSERT_TRUE(set_value("afs/plain", std::to_string(round)));
        ASSERT_TRUE(qoQfsNvarTerm(round % 7 == 0));
        if (round == 100) {
            qoQfsNvarTerm(false);
            settled = mallinfo2().uordblks;
        }
    }
    qoQfsNvarTerm(false);
    // The allocator counts what it caches as in use; one lost block a round would be 28,800 bytes.
    EXPECT_LE(mallinfo2().uordblks, settled + 16384);
}
#endif

} // namespace
