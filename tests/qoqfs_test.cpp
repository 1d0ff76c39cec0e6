// The front end on sets without flash images: every refusal with its reports, and what it brings
// along. What it does on good sets is left to the random runs on full ones.
#include <gtest/gtest.h>

#include <ostream>

#include "dfs.h"
#include "frontend/fcs_tables.h"
#include "frontend/report.h"
#include "memory_utils.h"
#include "proof/host_session.h"
#include "report_text.h"
#include "vynerrors.h"

namespace builders = dolm::proof::builders;
namespace host_session = dolm::proof::host_session;

using dolm::Bytes;
using namespace host_session;
using builders::FileTable;
using builders::store_of;
using dolm_test::report_text;

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

// ---- Every refusal, with its reports, between start-up and termination ----

class FrontEndRefusal : public FrontEnd {
  public:
    using FrontEnd::inputs;
    void SetUp() override { ASSERT_TRUE(inputs.start()); }

    bool start(void (*damage)(_commonDolmInputs &), DolmStatusCallback callback = on_report) {
        _commonDolmInputs record = inputs.record();
        damage(record);
        return qoQfsDolmInit(&record, callback);
    }
    bool get(const char *path, FcsFileName table = FCS_FILE_CURRENT_VALUES) {
        return qoQfsNvarGet(path, &data, &size, table, &writable, &max_size);
    }
    static bool terminate_with(const char *name, size_t size) {
        return set_value(name, std::string(size, 'x')) && qoQfsNvarTerm(true);
    }
    static bool add(FcsFileEntry *entry) {
        const auto result = qoQfsAddNewFileFcs(s_currentValuesTable, entry, false);
        qoQfsFreeFileEntry(entry == &first() ? nullptr : entry);
        return result == dolm::frontend::add_result::added;
    }
    static std::string current_values() {
        std::string all;
        for (const FcsFileEntry *entry = s_currentValuesTable.firstEntry; entry != nullptr;
             entry = entry->next) {
            all += std::string(entry->name) + "=" +
                   std::string(entry->data, entry->data + entry->size) + ' ';
        }
        return all;
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
using Record = _commonDolmInputs &;
constexpr auto current = FCS_FILE_CURRENT_VALUES;

enum class Leaves { everything, nothing_got, no_tables };

struct Refusal {
    const char *name;
    bool (*call)(Test);
    std::string reports;
    Leaves leaves = Leaves::everything;
};

void PrintTo(const Refusal &test, std::ostream *out) {
    *out << test.name;
}

const std::string all_values = "/home/a=one /home/b=nine /home/d= ";
const std::string empty = ". The table is loaded but data is empty.";
const std::string over_limit = "334: Library status code: 12|348:";

const Refusal refusals[] = {
    // What is refused at the intake leaves what stood.
    {"start_on_nothing", [](Test) { return qoQfsDolmInit(nullptr, on_report); },
     "344:Orvel.cfg table is mandatory for loading by DOLM."},
    {"start_without_base_values",
     [](Test t) { return t.start([](Record in) { in.orvelCfg.size = 0; }); },
     "344:Orvel.cfg table is mandatory for loading by DOLM."},
    {"start_on_base_values_without_data",
     [](Test t) { return t.start([](Record in) { in.orvelCfg.data = nullptr; }); },
     "342:Invalid table Orvel.cfg table" + empty},
    {"start_on_overriding_values_without_data",
     [](Test t) { return t.start([](Record in) { in.vyncCfg.data = in.ftbl.data = nullptr; }); },
     "342:Invalid table vync.cfg" + empty},
    {"start_on_a_file_table_without_data",
     [](Test t) { return t.start([](Record in) { in.ftbl.data = nullptr; }); },
     "342:Invalid table ftbl.bin" + empty},
    {"start_on_an_afs_image_without_data",
     [](Test t) { return t.start([](Record in) { in.qfsImage.size = 1; }); },
     "342:Invalid table QFS" + empty},
    {"start_on_an_efs_image_without_data",
     [](Test t) { return t.start([](Record in) { in.efsImage.size = 1; }); },
     "342:Invalid table EFS" + empty},
    {"start_without_file_table",
     [](Test t) { return t.start([](Record in) { in.ftbl.size = 0; }); },
     "405:ftbl data must be defined for flat VFS, but not load by DOLM."},
    {"start_without_callback",
     [](Test t) { return t.start([](Record in) { in.ftbl.size = 0; }, nullptr); }, ""},
    {"start_on_a_file_table_that_is_cut",
     [](Test t) { return t.start([](Record in) { in.ftbl.size = 1023; }); },
     "405: Library status code: 1", Leaves::no_tables},
    {"start_on_base_values_that_are_cut",
     [](Test t) { return t.start([](Record in) { in.orvelCfg.size = in.vyncCfg.size = 3; }); },
     "331: Library status code: 10", Leaves::no_tables},
    {"start_on_overriding_values_without_a_whole_head",
     [](Test t) { return t.start([](Record in) { in.vyncCfg.size = 15; }); },
     "116:Invalid VYNC partition length", Leaves::no_tables},
    {"start_on_overriding_values_that_are_cut",
     [](Test t) { return t.start([](Record in) { --in.vyncCfg.size; }); },
     "342:Invalid VYNC partition size.", Leaves::no_tables},
    {"start_on_overriding_values_without_a_store",
     [](Test t) {
         return t.start([](Record in) { in.vyncCfg.size = 16, in.vyncCfg.data[8] = 0; });
     },
     "331: Library status code: 10", Leaves::no_tables},

    {"terminate_twice", [](Test) { return !qoQfsNvarTerm(false) || qoQfsNvarTerm(false); },
     "327:", Leaves::no_tables},
    {"terminate_with_a_byte_too_many", [](Test t) { return t.terminate_with("a", 9); }, over_limit,
     Leaves::no_tables},
    {"terminate_with_a_byte_more_than_a_store_takes",
     [](Test t) { return t.terminate_with("d", 65524); }, over_limit, Leaves::no_tables},
    {"terminate_on_a_base_value_over_its_limit",
     [](Test t) {
         t.inputs.orvel = store_of({{1, "nine here"}});
         return !t.inputs.start() || qoQfsNvarTerm(true);
     },
     over_limit, Leaves::no_tables},
    {"terminate_with_more_than_a_length_takes", [](Test t) { return t.terminate_with("d", 70000); },
     over_limit, Leaves::no_tables},

    {"add_of_an_entry_in_a_table", [](Test t) { return t.add(&t.first()); }, "330:"},
    {"add_of_a_name_that_is_there", [](Test t) { return t.add(copyFileEntry(&t.first())); },
     "329:"},
    {"add_of_nothing", [](Test t) { return t.add(copyFileEntry(nullptr)); },
     "0:Invalid FCS handle or fileEntry pointer"},
    {"file_name_of_no_table", [](Test) { return qoQfsGetFcsFileNameMapping(3) != current; },
     "0:Invalid fcsFileNameMap value"},

    {"size_in_a_store_that_never_was",
     [](Test t) { return dfs_getsize(1, &t.size) != DFS_NO_SUCH_FILE; }, ""},
    {"delete_in_a_store_that_never_was",
     [](Test) { return dfs_delete_file(1) != DFS_NO_SUCH_FILE; }, ""},

    {"look_for_a_name_without_its_slash",
     [](Test) { return qoqfsCheckNvarExists("home/a", current); }, ""},
    {"look_for_the_head_of_a_name", [](Test) { return qoqfsCheckNvarExists("/home/", current); },
     ""},
    {"look_for_a_name_that_is_too_long",
     [](Test) { return qoqfsCheckNvarExists(("a" + std::string(300, 'x')).c_str(), current); }, ""},
    {"look_for_no_name", [](Test) { return qoqfsCheckNvarExists(nullptr, current); },
     "402:Null NVAR path"},
    {"look_in_no_table", [](Test) { return qoqfsCheckNvarExists("a", FCS_FILE_UNSET); }, "337:"},
    {"get_without_a_name", [](Test t) { return t.get(nullptr); }, "402:Null NVAR path"},
    {"get_without_data",
     [](Test t) { return qoQfsNvarGet("a", nullptr, nullptr, current, &t.writable, nullptr); },
     "402:Null data"},
    {"get_without_size",
     [](Test t) { return qoQfsNvarGet("a", &t.data, nullptr, current, nullptr, &t.max_size); },
     "402:Null data size"},
    {"get_of_no_nvar", [](Test t) { return t.get("none"); }, "39:", Leaves::nothing_got},
    {"get_of_an_overriding_value_alone", [](Test t) { return t.get("c"); },
     "39:", Leaves::nothing_got},
    {"get_from_no_table", [](Test t) { return t.get("a", FCS_FILE_UNSET); },
     "337:|39:", Leaves::nothing_got},
    {"get_of_what_is_hidden", [](Test t) { return t.first().hidden = 1, t.get("a"); },
     "349:", Leaves::nothing_got},
    {"get_of_what_is_not_available", [](Test t) { return t.first().available = 0, t.get("a"); },
     "349:", Leaves::nothing_got},
    {"resize_without_a_name", [](Test t) { return qoQfsNvarResize(nullptr, &t.data, 1); },
     "402:Null NVAR path"},
    {"resize_without_data", [](Test) { return qoQfsNvarResize("a", nullptr, 1); },
     "402:Null New NVAR data"},
    {"resize_of_no_nvar", [](Test t) { return qoQfsNvarResize("none", &t.data, 1); }, "39:"},
    {"resize_of_an_overriding_value_alone", [](Test t) { return qoQfsNvarResize("c", &t.data, 1); },
     "39:"},
    {"resize_of_what_is_hidden",
     [](Test t) { return t.first().hidden = 1, qoQfsNvarResize("a", &t.data, 1); }, "349:"},
    {"built_bytes_into_nothing",
     [](Test t) { return qoQfsGetBuildVynCfgFcsBuffer(nullptr, &t.size); }, "402:VYN CFG buffer"},
    {"built_bytes_without_size",
     [](Test t) { return qoQfsGetBuildVynCfgFcsBuffer(&t.data, nullptr); }, "402:VYN CFG buffer"},
};

class FrontEndRefusalTest : public FrontEndRefusal, public testing::WithParamInterface<Refusal> {};

TEST_P(FrontEndRefusalTest, IsReportedAndLeavesWhatItShould) {
    const Leaves leaves = GetParam().leaves;
    ASSERT_EQ(current_values(), all_values);
    EXPECT_FALSE(GetParam().call(*this));
    EXPECT_EQ(report_text(), GetParam().reports);
    EXPECT_EQ(data, leaves == Leaves::nothing_got ? nullptr : &byte);
    EXPECT_EQ(size, leaves == Leaves::nothing_got ? 0U : 7U);
    EXPECT_TRUE(writable);
    EXPECT_EQ(max_size, 9U);
    EXPECT_EQ(qoFcsIsInitialized(), leaves != Leaves::no_tables);
    EXPECT_EQ(current_values(), leaves == Leaves::no_tables ? "" : all_values);
    EXPECT_EQ(qoqfsCheckNvarExists("a", FCS_FILE_ORVEL_CFG), leaves != Leaves::no_tables);
    EXPECT_EQ(rebuilt_store().empty(), leaves == Leaves::no_tables);
}

INSTANTIATE_TEST_SUITE_P(All, FrontEndRefusalTest, testing::ValuesIn(refusals),
                         [](const auto &test) { return std::string(test.param.name); });

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
    EXPECT_EQ(qoQfsGetFcsFileNameMapping(1), FCS_FILE_VYN_CFG);
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

} // namespace
