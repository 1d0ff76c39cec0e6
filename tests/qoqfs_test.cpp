// The front end on sets without flash images: refusals and their reports, the merge, NVAR access,
// termination in all its orders, and a random run against a model of the tables.
#include <gtest/gtest.h>

#include <functional>
#include <random>

#include "frontend/fcs_tables.h"
#include "frontend/report.h"
#include "host_session.h"
#include "memory_utils.h"
#include "vynerrors.h"

using namespace host_session;
using builders::FileTable;
using builders::store_of;
using builders::StoreFile;

namespace {

// The names and limits of the small file table that most tests share.
FileTable small_table() {
    FileTable table;
    table.sku_rows = {{1,
                       {{"/home/a", 1, 8},
                        {"/home/b", 2, 8, 0x81},
                        {"/home/c", 3, 0xFFFF},
                        {"/home/d", 4, 0xFFFFFFFF}}}};
    return table;
}

Inputs small_inputs() {
    Inputs inputs;
    inputs.ftbl = small_table().build();
    inputs.orvel = store_of({{1, "one"}, {2, "two"}, {4, ""}});
    inputs.vync = with_head(store_of({{2, "nine"}, {3, "seven"}}));
    return inputs;
}

class FrontEnd : public testing::Test {
  protected:
    void SetUp() override { release(); }
    void TearDown() override { release(); }

    // Leaves the process-wide state as at load, whatever the test before did.
    static void release() {
        s_mDolmStatusCallback = nullptr;
        qoQfsNvarTerm(false);
        builders::forget_file_table();
        reports.clear();
    }
};

TEST_F(FrontEnd, StartUpRefusesBadInputs) {
    const std::string empty_ftbl = "ftbl data must be defined for flat VFS, but not load by DOLM.";
    const std::string no_orvel = "Orvel.cfg table is mandatory for loading by DOLM.";
    const auto null_data = [](const char *label) {
        return Report{4, 342, "Failed to initialize QFS.",
                      std::string("Invalid table ") + label +
                          ". The table is loaded but data is empty."};
    };
    const Report no_handle{4, 331, "Failed to create FCS handle.", " Library status code: 10"};
    struct Case {
        const char *what;
        std::function<void(_commonDolmInputs &)> damage;
        std::vector<Report> expected;
    };
    const Case cases[] = {
        {"no orvel, though data is there",
         [](auto &in) { in.orvelCfg.size = 0; },
         {{4, 344, "Failed to load Orvel.cfg table.", no_orvel}}},
        {"null orvel",
         [](auto &in) { in.orvelCfg.data = nullptr; },
         {null_data("Orvel.cfg table")}},
        {"null vync and null ftbl: the first counts",
         [](auto &in) { in.vyncCfg.data = in.ftbl.data = nullptr; },
         {null_data("vync.cfg")}},
        {"null ftbl", [](auto &in) { in.ftbl.data = nullptr; }, {null_data("ftbl.bin")}},
        {"null QFS",
         [](auto &in) {
             in.qfsImage = {nullptr, 1};
         },
         {null_data("QFS")}},
        {"null EFS",
         [](auto &in) {
             in.efsImage = {nullptr, 1};
         },
         {null_data("EFS")}},
        {"no ftbl",
         [](auto &in) { in.ftbl.size = 0; },
         {{4, 405, "Failed to load ftbl file.", empty_ftbl}}},
        {"short ftbl",
         [](auto &in) { in.ftbl.size = 1023; },
         {{4, 405, "Failed to load ftbl file.", " Library status code: 1"}}},
        {"short orvel", [](auto &in) { in.orvelCfg.size = 3; }, {no_handle}},
        {"vync shorter than its head",
         [](auto &in) { in.vyncCfg.size = 15; },
         {{4, 116, "Detected error in buffer parsing operation.",
           "Invalid VYNC partition length"}}},
        {"vync shorter than its payload",
         [](auto &in) { --in.vyncCfg.size; },
         {{4, 342, "Failed to initialize QFS.", "Invalid VYNC partition size."}}},
        {"vync with an empty payload",
         [](auto &in) { std::memset(in.vyncCfg.data + 8, 0, 4); },
         {no_handle}},
    };
    for (const Case &test : cases) {
        SCOPED_TRACE(test.what);
        Inputs inputs = small_inputs();
        _commonDolmInputs record = inputs.record();
        test.damage(record);
        reports.clear();
        EXPECT_FALSE(qoQfsDolmInit(&record, on_report));
        EXPECT_EQ(reports, test.expected);
        EXPECT_FALSE(qoFcsIsInitialized());
        EXPECT_FALSE(qoQfsDolmInit(&record, nullptr)) << "without a callback";
    }
    EXPECT_FALSE(qoQfsDolmInit(nullptr, on_report));
}

TEST_F(FrontEnd, MergeTakesBaseOrderAndOverridingValues) {
    Inputs inputs = small_inputs();
    ASSERT_TRUE(inputs.start());
    EXPECT_TRUE(reports.empty());
    std::vector<std::pair<std::string, std::string>> current;
    for (const FcsFileEntry *entry = s_currentValuesTable.firstEntry; entry != nullptr;
         entry = entry->next) {
        current.emplace_back(entry->name, value_of(entry->name));
    }
    EXPECT_EQ(current, (std::vector<std::pair<std::string, std::string>>{
                           {"/home/a", "one"}, {"/home/b", "nine"}, {"/home/d", ""}}));
    EXPECT_EQ(value_of("/home/b", FCS_FILE_ORVEL_CFG), "two");
    EXPECT_EQ(value_of("/home/c", FCS_FILE_VYN_CFG), "seven");
    EXPECT_EQ(rebuilt_store(), store_of({{2, "nine"}, {3, "seven"}})) << "the payload as it came";
}

TEST_F(FrontEnd, StartUpWithoutVyncOrRows) {
    Inputs inputs = small_inputs();
    _commonDolmInputs record = inputs.record();
    record.vyncCfg = {nullptr, 0};
    ASSERT_TRUE(qoQfsDolmInit(&record, on_report));
    EXPECT_EQ(value_of("/home/b"), "two");
    EXPECT_TRUE(rebuilt_store().empty());

    // A SKU without a row must not go on with a selection that points into released bytes.
    inputs.sku = 2;
    ASSERT_TRUE(inputs.start());
    EXPECT_EQ(g_table_buf, nullptr);
    EXPECT_EQ(value_of("/home/b"), "<none>");
    ASSERT_TRUE(qoQfsNvarTerm(true));
    EXPECT_EQ(rebuilt_store(), Bytes(4));
}

TEST_F(FrontEnd, IntakeFailureLeavesWhatStood) {
    Inputs inputs = small_inputs();
    ASSERT_TRUE(inputs.start());
    _commonDolmInputs bad = inputs.record();
    bad.ftbl.size = 0;
    EXPECT_FALSE(qoQfsDolmInit(&bad, on_report));
    EXPECT_EQ(value_of("/home/b"), "nine");
    bad = inputs.record();
    bad.vyncCfg.size = 15;
    EXPECT_FALSE(qoQfsDolmInit(&bad, on_report));
    EXPECT_FALSE(qoFcsIsInitialized()) << "past the intake the old tables are gone";
}

TEST_F(FrontEnd, StartUpTakesBytesThatTheLibraryHandedOut) {
    Inputs inputs = small_inputs();
    ASSERT_TRUE(inputs.start());
    ASSERT_TRUE(qoQfsNvarTerm(true));
    _commonDolmInputs record = inputs.record();
    ASSERT_TRUE(qoQfsGetBuildVynCfgFcsBuffer(&record.orvelCfg.data, &record.orvelCfg.size));
    ASSERT_TRUE(qoQfsDolmInit(&record, on_report));
    EXPECT_EQ(value_of("/home/a"), "one");
}

TEST_F(FrontEnd, FlashImagesThatCannotBeMountedLeaveTheTablesUp) {
    for (const bool efs : {false, true}) {
        Inputs inputs = small_inputs();
        (efs ? inputs.efs : inputs.qfs) = Bytes(64, 0xFF);
        EXPECT_FALSE(inputs.start());
        EXPECT_EQ(take_numbers(), efs ? std::vector<int32_t>{343} : (std::vector<int32_t>{1, 342}));
        EXPECT_TRUE(qoFcsIsInitialized());
        EXPECT_FALSE(qoQfsIsInitialized());
        EXPECT_EQ(value_of("/home/a"), "one");
        EXPECT_TRUE(qoQfsNvarTerm(false));
    }
}

TEST_F(FrontEnd, NvarAccess) {
    Inputs inputs = small_inputs();
    uint8_t *data = nullptr;
    uint32_t size = 7;
    EXPECT_FALSE(qoqfsCheckNvarExists("/home/a", FCS_FILE_CURRENT_VALUES)) << "before start-up";
    ASSERT_TRUE(inputs.start());

    const auto current = FCS_FILE_CURRENT_VALUES;
    EXPECT_TRUE(qoqfsCheckNvarExists("a", current)) << "the prefix may be left out";
    EXPECT_FALSE(qoqfsCheckNvarExists("home/a", current));
    EXPECT_FALSE(qoqfsCheckNvarExists("/home/A", current));
    EXPECT_FALSE(qoqfsCheckNvarExists(("/home/a" + std::string(300, 'x')).c_str(), current));
    EXPECT_TRUE(reports.empty());
    EXPECT_FALSE(qoqfsCheckNvarExists(nullptr, current));
    EXPECT_FALSE(qoqfsCheckNvarExists("a", FCS_FILE_UNSET));
    EXPECT_EQ(take_numbers(), (std::vector<int32_t>{402, 337}));

    bool writable = false;
    uint32_t max_size = 0;
    ASSERT_TRUE(qoQfsNvarGet("b", &data, &size, current, &writable, &max_size));
    EXPECT_EQ(std::string(reinterpret_cast<char *>(data), size), "nine");
    EXPECT_TRUE(writable) << "without a deployed VFS";
    EXPECT_EQ(max_size, 8u);
    EXPECT_TRUE(qoQfsNvarGet("d", &data, &size, current, nullptr, nullptr));
    EXPECT_EQ(data, nullptr);
    EXPECT_EQ(size, 0u);

    const Report no_file{4, 39, "File not found.", ""};
    const std::string corrupted = "Corrupted Buffer Detected.";
    EXPECT_FALSE(qoQfsNvarGet(nullptr, &data, &size, current, nullptr, nullptr));
    EXPECT_FALSE(qoQfsNvarGet("b", nullptr, nullptr, current, nullptr, nullptr));
    EXPECT_FALSE(qoQfsNvarGet("b", &data, nullptr, current, nullptr, nullptr));
    EXPECT_EQ(reports, (std::vector<Report>{{4, 402, corrupted, "Null NVAR path"},
                                            {4, 402, corrupted, "Null data"},
                                            {4, 402, corrupted, "Null data size"}}));
    reports.clear();
    data = reinterpret_cast<uint8_t *>(&size);
    EXPECT_FALSE(qoQfsNvarGet("none", &data, &size, FCS_FILE_UNSET, &writable, &max_size));
    EXPECT_EQ(data, nullptr);
    EXPECT_EQ(take_numbers(), (std::vector<int32_t>{337, 39}));

    s_currentValuesTable.firstEntry->hidden = 1;
    EXPECT_FALSE(qoQfsNvarGet("a", &data, &size, current, nullptr, nullptr));
    EXPECT_FALSE(qoQfsNvarResize("a", &data, 1));
    s_currentValuesTable.firstEntry->hidden = 0;
    EXPECT_EQ(take_numbers(), (std::vector<int32_t>{349, 349}));

    EXPECT_FALSE(qoQfsNvarResize(nullptr, &data, 1));
    EXPECT_FALSE(qoQfsNvarResize("a", nullptr, 1));
    EXPECT_FALSE(qoQfsNvarResize("c", &data, 1)) << "a name of the overriding table alone";
    EXPECT_EQ(reports, (std::vector<Report>{{4, 402, corrupted, "Null NVAR path"},
                                            {4, 402, corrupted, "Null New NVAR data"},
                                            no_file}));
}

TEST_F(FrontEnd, ResizeKeepsTheHeadOfTheValue) {
    Inputs inputs = small_inputs();
    ASSERT_TRUE(inputs.start());
    uint8_t *before = nullptr;
    uint32_t size = 0;
    ASSERT_TRUE(qoQfsNvarGet("b", &before, &size, FCS_FILE_CURRENT_VALUES, nullptr, nullptr));
    uint8_t *data = nullptr;
    ASSERT_TRUE(qoQfsNvarResize("b", &data, 4));
    EXPECT_EQ(data, before) << "nothing moves at the same size";
    ASSERT_TRUE(qoQfsNvarResize("b", &data, 4000));
    EXPECT_EQ(std::memcmp(data, "nine", 4), 0);
    ASSERT_TRUE(qoQfsNvarResize("b", &data, 0));
    EXPECT_EQ(data, nullptr);
    EXPECT_EQ(value_of("b"), "");
    ASSERT_TRUE(qoQfsNvarResize("b", &data, 0));
    ASSERT_TRUE(set_value("b", "x"));
    EXPECT_EQ(value_of("b"), "x");
}

TEST_F(FrontEnd, TerminationRebuildsTheStoreAndStaysOpen) {
    Inputs inputs = small_inputs();
    EXPECT_FALSE(qoQfsNvarTerm(true));
    s_mDolmStatusCallback = on_report;
    EXPECT_FALSE(qoQfsNvarTerm(false));
    EXPECT_EQ(take_numbers(), std::vector<int32_t>{327});

    ASSERT_TRUE(inputs.start());
    ASSERT_TRUE(set_value("a", "12345678") && set_value("b", ""));
    ASSERT_TRUE(qoQfsNvarTerm(true));
    EXPECT_EQ(rebuilt_store(), store_of({{1, "12345678"}, {2, ""}, {4, ""}}));
    EXPECT_EQ(value_of("a"), "12345678");
    EXPECT_EQ(value_of("a", FCS_FILE_VYN_CFG), "12345678");
    EXPECT_EQ(value_of("a", FCS_FILE_ORVEL_CFG), "one");
    EXPECT_EQ(value_of("c", FCS_FILE_VYN_CFG), "<none>") << "not in the base table";

    ASSERT_TRUE(set_value("d", std::string(65523, 'd')));
    ASSERT_TRUE(qoQfsNvarTerm(true));
    EXPECT_EQ(rebuilt_store().size(), 4 + 36 + 8 + 65523u);
    EXPECT_TRUE(qoQfsNvarTerm(false));
    EXPECT_TRUE(rebuilt_store().empty());
    EXPECT_FALSE(qoQfsNvarTerm(false));

    reports.clear();
    uint8_t *bytes = nullptr;
    EXPECT_FALSE(qoQfsGetBuildVynCfgFcsBuffer(&bytes, nullptr));
    EXPECT_EQ(reports,
              (std::vector<Report>{{4, 402, "Corrupted Buffer Detected.", "VYN CFG buffer"}}));
}

TEST_F(FrontEnd, TerminationRefusesValuesOverTheirLimit) {
    const std::pair<const char *, size_t> too_long[] = {{"a", 9}, {"d", 65524}, {"d", 70000}};
    for (const auto &[name, size] : too_long) {
        Inputs inputs = small_inputs();
        ASSERT_TRUE(inputs.start());
        ASSERT_TRUE(set_value(name, std::string(size, 'x')));
        EXPECT_FALSE(qoQfsNvarTerm(true)) << name << size;
        EXPECT_EQ(reports,
                  (std::vector<Report>{
                      {4, 334, "Failed to add new file to FCS.", " Library status code: 12"},
                      {4, 348, "Failed to create new Vyn.cfg table.", ""}}));
        EXPECT_FALSE(qoFcsIsInitialized());
        EXPECT_TRUE(rebuilt_store().empty());
        reports.clear();
    }
}

TEST_F(FrontEnd, AddRefusesAnEntryTwiceAndANameTwice) {
    Inputs inputs = small_inputs();
    ASSERT_TRUE(inputs.start());
    FcsFileEntry *first = s_currentValuesTable.firstEntry;
    EXPECT_FALSE(qoQfsAddNewFileFcs(s_orvelCfgTable, first, false));
    FcsFileEntry *copy = copyFileEntry(first);
    EXPECT_FALSE(qoQfsAddNewFileFcs(s_currentValuesTable, copy, false));
    qoQfsFreeFileEntry(copy);
    EXPECT_FALSE(qoQfsAddNewFileFcs(s_currentValuesTable, nullptr, false));
    EXPECT_EQ(copyFileEntry(nullptr), nullptr);
    EXPECT_EQ(reports, (std::vector<Report>{
                           {4, 330, "FileEntry already being used by another FCS table.", ""},
                           {4, 329, "Detected duplicate special file label.", ""},
                           {4, 0, "", "Invalid FCS handle or fileEntry pointer"}}));
}

TEST_F(FrontEnd, Catalogue) {
    for (int round = 0; round < 2; ++round) {
        EXPECT_TRUE(VynErrors::init());
        EXPECT_EQ(VynErrors::s_imageToolsErrorNameStringMap.size(), 35u);
        EXPECT_EQ(VynErrors::s_imageToolsErrorTypeStringMap.size(), 30u);
    }
    const auto text = [](int32_t number) {
        return VynErrors::getErrorNameString(static_cast<ImageToolsErrorName>(number));
    };
    EXPECT_EQ(text(417), "Max value excceded.");
    EXPECT_EQ(text(418), "General Error");
    EXPECT_EQ(text(-1), "General Error");
    EXPECT_EQ(VynErrors::s_imageToolsErrorTypeStringMap[static_cast<ImageToolsErrorType>(17)],
              "[QO QFS] ");
    s_mDolmStatusCallback = on_report;
    setLibError(IMAGE_TOOLS_QFS_GET_SIZE_FAILED, -1);
    EXPECT_EQ(qoQfsGetFcsFileNameMapping(1), FCS_FILE_VYN_CFG);
    EXPECT_EQ(qoQfsGetFcsFileNameMapping(3), FCS_FILE_CURRENT_VALUES);
    EXPECT_EQ(reports, (std::vector<Report>{{4, 339, "Failed to get file size from QFS.",
                                             " Library status code: -1"},
                                            {4, 0, "", "Invalid fcsFileNameMap value"}}));
}

TEST_F(FrontEnd, MemoryHelpers) {
    uint8_t to[4] = {};
    EXPECT_EQ(ByteCopy(to, 4, "abcde", 5), 40u);
    EXPECT_EQ(to[0], 0);
    EXPECT_EQ(ByteCopy(to, 4, nullptr, 5), 3u);
    EXPECT_EQ(ByteCopy(to, 4, "abcd", 4), 0u);
    EXPECT_LT(LtCompareMemory("abcd", "abce", 4), 0);
    EXPECT_EQ(LtCompareMemory(nullptr, nullptr, 0), 0);
    auto *zeros = static_cast<uint8_t *>(LtAllocateZeroMemory(3));
    EXPECT_EQ(zeros[2], 0);
    EXPECT_EQ(LtSetMemory(zeros, 7, 3), zeros);
    EXPECT_EQ(zeros[2], 7);
    LtFreeMemory(zeros);
}

// Start-ups, changes and terminations on random tables beside a model: two maps and the merge rule.
TEST_F(FrontEnd, RandomRunsMatchTheModel) {
    using Model = std::map<std::string, std::string>;
    const uint32_t seed = 20261122;
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    const auto below = [&](uint32_t n) { return static_cast<uint32_t>(random() % n); };

    for (int round = 0; round < 60; ++round) {
        FileTable table;
        table.sku_rows = {{1, {}}};
        std::vector<StoreFile> base;
        std::vector<StoreFile> overriding;
        Model base_model;
        Model model;
        for (uint32_t i = 0; i < 40; ++i) {
            const std::string name = "/home/" + std::to_string(below(5)) + "/" + std::to_string(i);
            table.sku_rows[0].entries.push_back({name, i + 1, 200});
            const std::string value(below(200), static_cast<char>('a' + below(26)));
            if (below(4) != 0) {
                base.push_back({i + 1, value});
                base_model[name] = value;
                model[name] = value;
            }
            if (below(3) == 0) {
                overriding.push_back({i + 1, "over" + value.substr(0, 150)});
                if (model.count(name) != 0) {
                    model[name] = overriding.back().payload;
                }
            }
        }
        std::shuffle(base.begin(), base.end(), random);
        Inputs inputs;
        inputs.ftbl = table.build();
        inputs.orvel = store_of(base);
        inputs.vync = with_head(store_of(overriding));
        ASSERT_TRUE(inputs.start());

        for (int step = 0; step < 30; ++step) {
            auto chosen = model.begin();
            std::advance(chosen, below(static_cast<uint32_t>(model.size())));
            chosen->second = std::string(below(201), static_cast<char>('A' + below(26)));
            ASSERT_TRUE(set_value(chosen->first, chosen->second));
            if (below(10) == 0) {
                ASSERT_TRUE(qoQfsNvarTerm(true));
                // The host goes on from the rebuilt bytes in a new start-up.
                inputs.vync = with_head(rebuilt_store());
                if (below(2) == 0) {
                    ASSERT_TRUE(qoQfsNvarTerm(false));
                }
                ASSERT_TRUE(inputs.start());
            }
            for (const auto &[name, value] : model) {
                ASSERT_EQ(value_of(name), value);
                ASSERT_EQ(value_of(name, FCS_FILE_ORVEL_CFG), base_model[name]);
            }
        }
    }
    EXPECT_TRUE(reports.empty());
}

} // namespace
