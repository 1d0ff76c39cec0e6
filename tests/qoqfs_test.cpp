// The front end on sets without flash images: refusals and their reports, the merge, NVAR access,
// termination in all its orders, and a random run against a model of the tables.
#include <gtest/gtest.h>

#include <functional>
#include <random>

#include "frontend/fcs_tables.h"
#include "frontend/report.h"
#include "memory_utils.h"
#include "proof/host_session.h"
#include "vynerrors.h"

namespace builders = dolm::proof::builders;
namespace host_session = dolm::proof::host_session;

using dolm::Bytes;
using namespace host_session;
using builders::FileTable;
using builders::store_of;
using builders::StoreFile;

namespace {

Inputs small_inputs() {
    FileTable table;
    table.sku_rows = {{1,
                       {{"/home/a", 1, 8},
                        {"/home/b", 2, 8, 0x81},
                        {"/home/c", 3, 0xFFFF},
                        {"/home/d", 4, 0xFFFFFFFF}}}};
    Inputs inputs;
    inputs.ftbl = table.build();
    inputs.orvel = store_of({{1, "one"}, {2, "two"}, {4, ""}});
    inputs.vync = with_head(store_of({{2, "nine"}, {3, "seven"}}));
    return inputs;
}

class FrontEnd : public testing::Test {
  protected:
    // Leaves the process-wide state as at load, whatever the test did.
    void TearDown() override {
        s_mDolmStatusCallback = nullptr;
        qoQfsNvarTerm(false);
        builders::forget_file_table();
        reports.clear();
    }

    Inputs inputs = small_inputs();
};

TEST_F(FrontEnd, StartUpRefusesBadInputs) {
    const std::string empty = ". The table is loaded but data is empty.";
    const std::pair<std::function<void(_commonDolmInputs &)>, std::string> cases[] = {
        {[](auto &in) { in.orvelCfg.size = 0; },
         "344:Orvel.cfg table is mandatory for loading by DOLM."},
        {[](auto &in) { in.orvelCfg.data = nullptr; }, "342:Invalid table Orvel.cfg table" + empty},
        {[](auto &in) { in.vyncCfg.data = in.ftbl.data = nullptr; },
         "342:Invalid table vync.cfg" + empty},
        {[](auto &in) { in.ftbl.data = nullptr; }, "342:Invalid table ftbl.bin" + empty},
        {[](auto &in) { in.qfsImage.size = 1; }, "342:Invalid table QFS" + empty},
        {[](auto &in) { in.efsImage.size = 1; }, "342:Invalid table EFS" + empty},
        {[](auto &in) { in.ftbl.size = 0; },
         "405:ftbl data must be defined for flat VFS, but not load by DOLM."},
        {[](auto &in) { in.ftbl.size = 1023; }, "405: Library status code: 1"},
        {[](auto &in) { in.orvelCfg.size = 3; }, "331: Library status code: 10"},
        {[](auto &in) { in.vyncCfg.size = 15; }, "116:Invalid VYNC partition length"},
        {[](auto &in) { --in.vyncCfg.size; }, "342:Invalid VYNC partition size."},
        {[](auto &in) { in.vyncCfg.data[8] = 0; }, "331: Library status code: 10"},
    };
    for (const auto &[damage, expected] : cases) {
        inputs = small_inputs();
        _commonDolmInputs record = inputs.record();
        damage(record);
        EXPECT_FALSE(qoQfsDolmInit(&record, on_report));
        EXPECT_EQ(take_reports(), Reports{expected});
        EXPECT_FALSE(qoFcsIsInitialized());
        EXPECT_FALSE(qoQfsDolmInit(&record, nullptr)) << "without a callback";
    }
    EXPECT_FALSE(qoQfsDolmInit(nullptr, on_report));
}

TEST_F(FrontEnd, MergeTakesBaseOrderAndOverridingValues) {
    ASSERT_TRUE(inputs.start());
    std::string current;
    for (const FcsFileEntry *entry = s_currentValuesTable.firstEntry; entry != nullptr;
         entry = entry->next) {
        current += std::string(entry->name) + "=" + value_of(entry->name) + " ";
    }
    EXPECT_EQ(current, "/home/a=one /home/b=nine /home/d= ");
    EXPECT_EQ(value_of("/home/b", FCS_FILE_ORVEL_CFG), "two");
    EXPECT_EQ(value_of("/home/c", FCS_FILE_VYN_CFG), "seven");
    EXPECT_EQ(rebuilt_store(), store_of({{2, "nine"}, {3, "seven"}})) << "the payload as it came";

    inputs.vync.clear();
    ASSERT_TRUE(inputs.start());
    EXPECT_EQ(value_of("/home/b"), "two");
    EXPECT_TRUE(rebuilt_store().empty());

    // A SKU without a row must not go on with a selection that points into released bytes.
    inputs.sku = 2;
    ASSERT_TRUE(inputs.start());
    EXPECT_EQ(g_table_buf, nullptr);
    ASSERT_TRUE(qoQfsNvarTerm(true));
    EXPECT_EQ(rebuilt_store(), Bytes(4));
    EXPECT_TRUE(reports.empty());
}

TEST_F(FrontEnd, StartUpAgain) {
    ASSERT_TRUE(inputs.start());
    _commonDolmInputs bad = inputs.record();
    bad.ftbl.size = 0;
    EXPECT_FALSE(qoQfsDolmInit(&bad, on_report));
    EXPECT_EQ(value_of("/home/b"), "nine") << "refused at the intake, what stood stays";

    ASSERT_TRUE(qoQfsNvarTerm(true));
    _commonDolmInputs own = inputs.record();
    ASSERT_TRUE(qoQfsGetBuildVynCfgFcsBuffer(&own.orvelCfg.data, &own.orvelCfg.size));
    ASSERT_TRUE(qoQfsDolmInit(&own, on_report)) << "on bytes that the library handed out";
    EXPECT_EQ(value_of("/home/a"), "one");

    bad = inputs.record();
    bad.vyncCfg.size = 15;
    EXPECT_FALSE(qoQfsDolmInit(&bad, on_report));
    EXPECT_FALSE(qoFcsIsInitialized()) << "past the intake the old tables are gone";
}

TEST_F(FrontEnd, NvarAccess) {
    const auto current = FCS_FILE_CURRENT_VALUES;
    EXPECT_FALSE(qoqfsCheckNvarExists("/home/a", current)) << "before start-up";
    ASSERT_TRUE(inputs.start());
    EXPECT_TRUE(qoqfsCheckNvarExists("a", current)) << "the prefix may be left out";
    EXPECT_FALSE(qoqfsCheckNvarExists("home/a", current));
    EXPECT_FALSE(qoqfsCheckNvarExists(("/home/a" + std::string(300, 'x')).c_str(), current));
    EXPECT_TRUE(reports.empty());
    EXPECT_FALSE(qoqfsCheckNvarExists(nullptr, current));
    EXPECT_FALSE(qoqfsCheckNvarExists("a", FCS_FILE_UNSET));
    EXPECT_EQ(take_reports(), (Reports{"402:Null NVAR path", "337:"}));

    uint8_t *data = nullptr;
    uint32_t size = 7;
    bool writable = false;
    uint32_t max_size = 0;
    ASSERT_TRUE(qoQfsNvarGet("b", &data, &size, current, &writable, &max_size));
    EXPECT_EQ(std::string(reinterpret_cast<char *>(data), size), "nine");
    EXPECT_TRUE(writable) << "without a deployed VFS";
    EXPECT_EQ(max_size, 8u);
    ASSERT_TRUE(qoQfsNvarGet("d", &data, &size, FCS_FILE_ORVEL_CFG, nullptr, nullptr));
    EXPECT_EQ(data, nullptr) << "an empty value";
    EXPECT_FALSE(qoQfsNvarGet(nullptr, &data, &size, current, nullptr, nullptr));
    EXPECT_FALSE(qoQfsNvarGet("b", nullptr, nullptr, current, nullptr, nullptr));
    EXPECT_FALSE(qoQfsNvarGet("b", &data, nullptr, current, nullptr, nullptr));
    EXPECT_EQ(take_reports(),
              (Reports{"402:Null NVAR path", "402:Null data", "402:Null data size"}));
    EXPECT_FALSE(qoQfsNvarGet("none", &data, &size, FCS_FILE_UNSET, &writable, &max_size));
    EXPECT_EQ(data, nullptr);
    EXPECT_EQ(size, 0u);
    EXPECT_FALSE(qoQfsNvarResize(nullptr, &data, 1));
    EXPECT_FALSE(qoQfsNvarResize("a", nullptr, 1));
    EXPECT_FALSE(qoQfsNvarResize("c", &data, 1)) << "a name of the overriding table alone";
    EXPECT_EQ(take_reports(),
              (Reports{"337:", "39:", "402:Null NVAR path", "402:Null New NVAR data", "39:"}));
    s_currentValuesTable.firstEntry->hidden = 1;
    EXPECT_FALSE(qoQfsNvarGet("a", &data, &size, current, nullptr, nullptr));
    EXPECT_FALSE(qoQfsNvarResize("a", &data, 1));
    EXPECT_EQ(take_reports(), (Reports{"349:", "349:"}));
}

TEST_F(FrontEnd, ResizeKeepsTheHeadOfTheValue) {
    ASSERT_TRUE(inputs.start());
    uint8_t *data = nullptr;
    ASSERT_TRUE(qoQfsNvarResize("b", &data, 4000));
    EXPECT_EQ(std::memcmp(data, "nine", 4), 0);
    for (int round = 0; round < 2; ++round) {
        ASSERT_TRUE(qoQfsNvarResize("b", &data, 0));
        EXPECT_EQ(data, nullptr);
        EXPECT_EQ(value_of("b"), "");
    }
}

TEST_F(FrontEnd, TerminationRebuildsTheStoreAndStaysOpen) {
    s_mDolmStatusCallback = on_report;
    EXPECT_FALSE(qoQfsNvarTerm(false));
    EXPECT_EQ(take_reports(), Reports{"327:"});

    ASSERT_TRUE(inputs.start());
    ASSERT_TRUE(set_value("a", "12345678") && set_value("b", "") &&
                set_value("d", std::string(65523, 'd')));
    ASSERT_TRUE(qoQfsNvarTerm(true));
    EXPECT_EQ(rebuilt_store(), store_of({{1, "12345678"}, {2, ""}, {4, std::string(65523, 'd')}}));
    for (const auto table : {FCS_FILE_CURRENT_VALUES, FCS_FILE_VYN_CFG}) {
        EXPECT_EQ(value_of("a", table), "12345678");
        EXPECT_EQ(value_of("c", table), "<none>") << "not in the base table";
    }
    EXPECT_EQ(value_of("a", FCS_FILE_ORVEL_CFG), "one");
    EXPECT_TRUE(qoQfsNvarTerm(false));
    EXPECT_TRUE(rebuilt_store().empty());
    EXPECT_FALSE(qoQfsNvarTerm(false));

    uint8_t *bytes = nullptr;
    take_reports();
    EXPECT_FALSE(qoQfsGetBuildVynCfgFcsBuffer(&bytes, nullptr));
    EXPECT_EQ(take_reports(), Reports{"402:VYN CFG buffer"});
}

TEST_F(FrontEnd, TerminationRefusesValuesOverTheirLimit) {
    for (const auto &[name, size] : {std::pair("a", 9), {"d", 65524}, {"d", 70000}}) {
        ASSERT_TRUE(inputs.start());
        ASSERT_TRUE(set_value(name, std::string(static_cast<size_t>(size), 'x')));
        EXPECT_FALSE(qoQfsNvarTerm(true)) << name << size;
        EXPECT_EQ(take_reports(), (Reports{"334: Library status code: 12", "348:"}));
        EXPECT_FALSE(qoFcsIsInitialized());
        EXPECT_TRUE(rebuilt_store().empty());
    }
}

// A file of the number 0 loads by its name, but the merge adds names with a "/" behind them.
TEST_F(FrontEnd, AValueThatTheStoreRefusesIsLeftOut) {
    FileTable table;
    table.sku_rows = {{1, {{"/home/a", 1}, {"/home/zero", 0}, {"/home/z", 2}}}};
    inputs.ftbl = table.build();
    inputs.orvel = store_of({{1, "one"}, {0, "none"}, {2, "two"}});
    inputs.vync.clear();
    ASSERT_TRUE(inputs.start());
    ASSERT_TRUE(qoQfsNvarTerm(true));
    EXPECT_EQ(take_reports(), Reports(2, "334: Library status code: 2"));
    EXPECT_EQ(rebuilt_store(), store_of({{1, "one"}, {2, "two"}}));
}

TEST_F(FrontEnd, AddRefusesAnEntryTwiceAndANameTwice) {
    ASSERT_TRUE(inputs.start());
    FcsFileEntry *first = s_currentValuesTable.firstEntry;
    FcsFileEntry *copy = copyFileEntry(first);
    for (FcsFileEntry *entry : {first, copy, copyFileEntry(nullptr)}) {
        EXPECT_EQ(qoQfsAddNewFileFcs(s_currentValuesTable, entry, false),
                  dolm::frontend::add_result::refused);
    }
    qoQfsFreeFileEntry(copy);
    EXPECT_EQ(take_reports(),
              (Reports{"330:", "329:", "0:Invalid FCS handle or fileEntry pointer"}));
}

TEST_F(FrontEnd, Catalogue) {
    for (int round = 0; round < 2; ++round) {
        EXPECT_TRUE(VynErrors::init());
        EXPECT_EQ(VynErrors::s_imageToolsErrorNameStringMap.size(), 35u);
        EXPECT_EQ(VynErrors::s_imageToolsErrorTypeStringMap.size(), 30u);
    }
    EXPECT_EQ(VynErrors::s_imageToolsErrorTypeStringMap[static_cast<ImageToolsErrorType>(17)],
              "[QO QFS] ");
    static std::string texts;
    s_mDolmStatusCallback = [](ErrorLevel, ImageToolsErrorName, const char *text, const char *) {
        texts += std::string(text) + "|";
    };
    for (const int32_t number : {0, 342, 417, 418, -1}) {
        setLibError(static_cast<ImageToolsErrorName>(number), 0);
    }
    EXPECT_EQ(texts, "|Failed to initialize QFS.|Max value excceded.|General Error|General Error|");

    s_mDolmStatusCallback = on_report;
    EXPECT_EQ(qoQfsGetFcsFileNameMapping(1), FCS_FILE_VYN_CFG);
    EXPECT_EQ(qoQfsGetFcsFileNameMapping(3), FCS_FILE_CURRENT_VALUES);
    EXPECT_EQ(take_reports(), Reports{"0:Invalid fcsFileNameMap value"});
}

TEST_F(FrontEnd, MemoryHelpers) {
    uint8_t to[4] = {};
    EXPECT_EQ(ByteCopy(to, 4, "abcde", 5), 40u);
    EXPECT_EQ(ByteCopy(to, 4, nullptr, 5), 3u);
    EXPECT_EQ(to[0], 0);
    EXPECT_EQ(ByteCopy(to, 4, "abcd", 4), 0u);
    EXPECT_LT(LtCompareMemory(to, "abce", 4), 0);
    EXPECT_EQ(LtCompareMemory(nullptr, nullptr, 0), 0);
    if (sizeof(size_t) == 4) { // sizes that 32 bits would cut short
        const uint64_t huge = uint64_t{SIZE_MAX} + 3;
        EXPECT_EQ(LtAllocateMemory(huge), nullptr);
        EXPECT_EQ(LtAllocateZeroMemory(huge), nullptr);
        EXPECT_EQ(LtSetMemory(to, 'x', huge), nullptr);
        EXPECT_EQ(LtCompareMemory(to, "abcd", huge), -1);
        EXPECT_EQ(ByteCopy(to, huge, "xyz", huge), 40u);
        EXPECT_EQ(std::memcmp(to, "abcd", 4), 0);
    }
}

// Start-ups, changes and terminations on random tables beside a map from name to current value.
TEST_F(FrontEnd, RandomRunsMatchTheModel) {
    const uint32_t seed = 20261122;
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    for (int round = 0; round < 60; ++round) {
        FileTable table;
        table.sku_rows = {{1, {}}};
        std::vector<StoreFile> base;
        std::vector<StoreFile> overriding;
        std::map<std::string, std::string> model;
        const uint32_t entries = round % 20 == 0 ? 700 : 40;
        for (uint32_t fileno = 1; fileno <= entries; ++fileno) {
            const std::string name = std::to_string(random() % 5) + "/" + std::to_string(fileno);
            const std::string value(random() % 200, static_cast<char>('a' + random() % 26));
            table.sku_rows[0].entries.push_back({"/home/" + name, fileno, 204});
            const bool in_base = random() % 4 != 0;
            const bool overridden = random() % 3 == 0;
            if (in_base) {
                base.push_back({fileno, value});
                model[name] = overridden ? value + "over" : value;
            }
            if (overridden) {
                overriding.push_back({fileno, value + "over"});
            }
        }
        std::shuffle(base.begin(), base.end(), random);
        inputs.ftbl = table.build();
        inputs.orvel = store_of(base);
        inputs.vync = with_head(store_of(overriding));
        ASSERT_TRUE(inputs.start());

        for (int step = 0; step < 30; ++step) {
            auto chosen = model.begin();
            std::advance(chosen, random() % model.size());
            chosen->second = std::string(random() % 205, static_cast<char>('A' + random() % 26));
            ASSERT_TRUE(set_value(chosen->first, chosen->second));
            if (random() % 10 == 0) {
                ASSERT_TRUE(qoQfsNvarTerm(true));
                // The host goes on from the rebuilt bytes in a new start-up.
                inputs.vync = with_head(rebuilt_store());
                ASSERT_TRUE(random() % 2 == 0 || qoQfsNvarTerm(false));
                ASSERT_TRUE(inputs.start());
            }
            for (const auto &[name, value] : model) {
                ASSERT_EQ(value_of(name), value);
            }
        }
    }
    EXPECT_TRUE(reports.empty());
}

} // namespace
