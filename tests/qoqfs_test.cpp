// The front end on sets without flash images: refusals and their reports, the merge, NVAR access,
// termination in all its orders, and a random run against a model of the tables.
#include <gtest/gtest.h>

#include <functional>
#include <ostream>
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
    EXPECT_TRUE(reports.empty());
}

// ---- Every refusal between start-up and termination, with its reports ----

class FrontEndRefusal : public FrontEnd {
  public:
    void SetUp() override { ASSERT_TRUE(inputs.start()); }

    static std::string current_values() {
        std::string all;
        for (const FcsFileEntry *entry = s_currentValuesTable.firstEntry; entry != nullptr;
             entry = entry->next) {
            all += std::string(entry->name) + "=";
            all.append(reinterpret_cast<const char *>(entry->data), entry->size) += '\n';
        }
        return all;
    }
    bool get(const char *path, FcsFileName table = FCS_FILE_CURRENT_VALUES) {
        return qoQfsNvarGet(path, &data, &size, table, &writable, &max_size);
    }
    // Of the first entry, as no load leaves it.
    static FcsFileEntry &first() { return *s_currentValuesTable.firstEntry; }

    uint8_t byte = 0;
    uint8_t *data = &byte;
    uint32_t size = 7;
    bool writable = true;
    uint32_t max_size = 9;
};

using Test = FrontEndRefusal &;
constexpr auto current = FCS_FILE_CURRENT_VALUES;

struct Refusal {
    const char *name;
    bool (*call)(Test);
    Reports reports;
    bool clears = false; // what a get delivers
};

void PrintTo(const Refusal &test, std::ostream *out) {
    *out << test.name;
}

const Refusal refusals[] = {
    {"look_for_a_name_without_its_slash",
     [](Test) { return qoqfsCheckNvarExists("home/a", current); },
     {}},
    {"look_for_the_head_of_a_name",
     [](Test) { return qoqfsCheckNvarExists("/home/", current); },
     {}},
    {"look_for_a_name_that_is_too_long",
     [](Test) { return qoqfsCheckNvarExists(("a" + std::string(300, 'x')).c_str(), current); },
     {}},
    {"look_for_no_name",
     [](Test) { return qoqfsCheckNvarExists(nullptr, current); },
     {"402:Null NVAR path"}},
    {"look_in_no_table", [](Test) { return qoqfsCheckNvarExists("a", FCS_FILE_UNSET); }, {"337:"}},
    {"get_without_a_name", [](Test t) { return t.get(nullptr); }, {"402:Null NVAR path"}},
    {"get_without_data",
     [](Test t) { return qoQfsNvarGet("a", nullptr, nullptr, current, &t.writable, nullptr); },
     {"402:Null data"}},
    {"get_without_size",
     [](Test t) { return qoQfsNvarGet("a", &t.data, nullptr, current, nullptr, &t.max_size); },
     {"402:Null data size"}},
    {"get_of_no_nvar", [](Test t) { return t.get("none"); }, {"39:"}, true},
    {"get_of_an_overriding_value_alone", [](Test t) { return t.get("c"); }, {"39:"}, true},
    {"get_from_no_table", [](Test t) { return t.get("a", FCS_FILE_UNSET); }, {"337:", "39:"}, true},
    {"get_of_what_is_hidden",
     [](Test t) {
         t.first().hidden = 1;
         return t.get("a");
     },
     {"349:"},
     true},
    {"get_of_what_is_not_available",
     [](Test t) {
         t.first().available = 0;
         return t.get("a");
     },
     {"349:"},
     true},
    {"resize_without_a_name",
     [](Test t) { return qoQfsNvarResize(nullptr, &t.data, 1); },
     {"402:Null NVAR path"}},
    {"resize_without_data",
     [](Test) { return qoQfsNvarResize("a", nullptr, 1); },
     {"402:Null New NVAR data"}},
    {"resize_of_no_nvar", [](Test t) { return qoQfsNvarResize("none", &t.data, 1); }, {"39:"}},
    {"resize_of_an_overriding_value_alone",
     [](Test t) { return qoQfsNvarResize("c", &t.data, 1); },
     {"39:"}},
    {"resize_of_what_is_hidden",
     [](Test t) {
         t.first().hidden = 1;
         return qoQfsNvarResize("a", &t.data, 1);
     },
     {"349:"}},
    {"built_bytes_into_nothing",
     [](Test t) { return qoQfsGetBuildVynCfgFcsBuffer(nullptr, &t.size); },
     {"402:VYN CFG buffer"}},
    {"built_bytes_without_size",
     [](Test t) { return qoQfsGetBuildVynCfgFcsBuffer(&t.data, nullptr); },
     {"402:VYN CFG buffer"}},
};

class FrontEndRefusalTest : public FrontEndRefusal, public testing::WithParamInterface<Refusal> {};

TEST_P(FrontEndRefusalTest, IsReportedAndChangesNothing) {
    const std::string before = current_values();
    EXPECT_FALSE(GetParam().call(*this));
    EXPECT_EQ(take_reports(), GetParam().reports);
    EXPECT_EQ(data, GetParam().clears ? nullptr : &byte);
    EXPECT_EQ(size, GetParam().clears ? 0U : 7U);
    EXPECT_TRUE(writable);
    EXPECT_EQ(max_size, 9U);
    EXPECT_EQ(current_values(), before);
    EXPECT_TRUE(qoFcsIsInitialized());
}

INSTANTIATE_TEST_SUITE_P(All, FrontEndRefusalTest, testing::ValuesIn(refusals),
                         [](const auto &test) { return std::string(test.param.name); });

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
