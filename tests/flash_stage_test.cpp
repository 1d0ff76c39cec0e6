// The whole library on full sets, with both flash stores, one or none behind the front end: every
// failure on a deployed VFS, the dispatch, and random runs beside a model of tables and stores.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <map>
#include <optional>
#include <ostream>
#include <random>
#include <set>
#include <tuple>

#include "AfsPhysical.h"
#include "AfsPhysicalWin32Spi.h"
#include "EFS.h"
#include "EFS_phy_win32.h"
#include "dfs.h"
#include "frontend/fcs_tables.h"
#include "heap_double.h"
#include "miniVfs.h"
#include "proof/full_set.h"
#include "report_text.h"

namespace builders = dolm::proof::builders;
namespace host_session = dolm::proof::host_session;
namespace full_set = dolm::proof::full_set;

using dolm::Bytes;
using namespace full_set;
using namespace host_session;
using dolm_test::report_text;

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

// ---- Every failure of a start-up and of a termination on a deployed VFS ----

using Set = FlashSet &;

FlashSet damaged(void (*damage)(Set)) {
    FlashSet set;
    damage(set);
    return set;
}

// The set with one of its files changed.
FlashSet with_file(size_t index, void (*change)(SetFile &)) {
    std::vector<SetFile> files = default_set;
    change(files[index]);
    return FlashSet(files);
}

// One bit flips in a page of the long file behind its first, with a value of that size.
FlashSet with_damaged_page(size_t size) {
    std::vector<SetFile> files = default_set;
    files[2].base = std::string(100, 'b');
    files[2].flash = std::string(size, 'L');
    FlashSet set(files);
    const std::string page(36, 'L');
    *std::find_end(set.qfs.begin(), set.qfs.end(), page.begin(), page.end()) ^= 1;
    return set;
}

// A file of the number 0 loads by its name, but the merge adds names with a "/" behind them.
void take_number_of_plain(Set set) {
    const std::string name = "/home/afs/plain";
    const auto row = std::search(set.ftbl.begin(), set.ftbl.end(), name.begin(), name.end());
    builders::put32(set.ftbl, static_cast<size_t>(row - set.ftbl.begin()) + 48, 0);
    builders::put32(set.orvel, 4 + 12, 0);
}

struct Failure {
    const char *name;
    FlashSet (*set)();
    std::string value; // that a file has after the start-up
    std::string at_start;
    std::string at_end = ""; // where only the termination fails
    size_t size = 900;       // of a value that is to go into EFS
};

void PrintTo(const Failure &test, std::ostream *out) {
    *out << test.name;
}

const std::string over_limit = "334: Library status code: 12|348:";

const Failure failures[] = {
    {"tiny_afs_image", [] { return damaged([](Set set) { set.qfs.resize(64); }); },
     "afs/plain=base", "1: Library status code: 22|342:"},
    {"erased_efs_image", [] { return damaged([](Set set) { set.efs.assign(49152, 0xFF); }); },
     "afs/plain=base", "343:"},
    {"efs_image_a_byte_short", [] { return damaged([](Set set) { set.efs.pop_back(); }); },
     "afs/plain=base", "343:"},
    {"damaged_file_in_efs",
     [] { return damaged([](Set set) { std::ranges::replace(set.efs, 'E', 'F'); }); },
     "efs/long=base", "342:"},
    {"damaged_file_longer_than_its_value", [] { return with_damaged_page(2000); },
     "afs/long=" + std::string(100, 'b'), "342:"},
    {"damaged_file_as_long_as_its_value", [] { return with_damaged_page(100); },
     "afs/long=" + std::string(100, 'b'), "342:"},
    {"file_shorter_than_its_trailer",
     [] { return with_file(4, [](SetFile &file) { file.flash = std::string(39, 't'); }); },
     "afs/trailer=base", "342:"},
    {"file_shorter_than_its_long_trailer",
     [] { return with_file(5, [](SetFile &file) { file.flash = std::string(55, 't'); }); },
     "afs/longtrailer=base", "342:"},
    {"value_that_the_merge_left_out", [] { return damaged(take_number_of_plain); },
     "afs/plain=<none>", "334: Library status code: 2|39:|342:"},

    {"file_that_the_flash_lacks",
     [] { return with_file(1, [](SetFile &file) { file.flash.reset(); }); }, "afs/plain=base",
     "level 2 0:File \"/home/afs/plain\" found in orvel.cfg, but missing in deployed VFS. The "
     "file will be skipped",
     "339: Library status code: 0|348:"},
    {"file_number_of_0_which_the_start_up_passes_over",
     [] { return with_file(1, [](SetFile &file) { file.id = 0; }); }, "afs/plain=base", "",
     "102: Library status code: 0|348:"},
    {"place_shorter_than_the_limit_of_its_file",
     [] { return with_file(7, [](SetFile &file) { file.limit = 2000; }); }, "efs/plain=from EFS",
     "", "102: Library status code: 5|348:", 1500},
    {"value_over_its_limit", [] { return FlashSet(); }, "efs/plain=from EFS", "", over_limit, 1500},
};

class FlashFailure : public FlashStage, public testing::WithParamInterface<Failure> {};

TEST_P(FlashFailure, IsReportedAndLeavesWhatItShould) {
    const Failure &test = GetParam();
    const bool starts = !test.at_end.empty();
    FlashSet set = test.set();
    EXPECT_EQ(set.start(), starts);
    EXPECT_EQ(report_text(), test.at_start);
    EXPECT_TRUE(qoFcsIsInitialized());
    EXPECT_EQ(qoQfsIsInitialized(), starts);
    const std::string file = test.value.substr(0, test.value.find('='));
    EXPECT_EQ(file + "=" + value_of(file), test.value);

    const Bytes before = set.qfs;
    ASSERT_TRUE(set_value("afs/notpulled", "changed"));
    ASSERT_TRUE(set_value("efs/plain", std::string(test.size, 'x')));
    take_reports();
    EXPECT_EQ(qoQfsNvarTerm(true), !starts);
    EXPECT_EQ(qoFcsIsInitialized(), !starts);
    EXPECT_FALSE(qoQfsIsInitialized());
    EXPECT_EQ(starts ? report_text() : "", test.at_end);
    EXPECT_EQ(file + "=" + value_of(file), starts ? file + "=<none>" : test.value);
    // A value that the store refuses keeps the others out of the flash.
    EXPECT_EQ(set.qfs != before, starts && test.at_end != over_limit);
}

INSTANTIATE_TEST_SUITE_P(All, FlashFailure, testing::ValuesIn(failures),
                         [](const auto &test) { return std::string(test.param.name); });

// Whatever comes of a start-up past its intake: nothing is left that reads the images of the one
// before, which the host may have released.
TEST_F(FlashStage, StartUpTakesTheStoresBeforeOutOfUse) {
    for (const bool failing : {false, true}) {
        FlashSet set, next;
        next.qfs.clear();
        next.efs.clear();
        next.orvel.resize(failing ? 3 : next.orvel.size());
        ASSERT_TRUE(set.start());
        Bytes own(64); // a device that a host put in, for a store of its own
        SpiFlashDrvInitialize(failing ? own.data() : gpBuffer);
        EXPECT_EQ(next.start(), !failing);
        EXPECT_EQ(gpBuffer, failing ? own.data() : nullptr);
        SpiFlashDrvInitialize(nullptr);
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
    EXPECT_EQ(dfs_read(efs_plain, 9, &length, buffer), DFS_IO_ERROR);
    EXPECT_EQ(dfs_write(efs_plain, 0, 1001, std::string(1001, 'x').data(), 0), DFS_IO_ERROR);
    EXPECT_EQ(dfs_set_page_size(0), DFS_INVALID_ARGUMENT);
    EXPECT_EQ(dfs_set_page_size(64), DFS_OK);
    EXPECT_EQ(dfs_context->cache_line_count, 128u);
    EXPECT_EQ(dfs_write(2, 0, 60000, std::string(60000, 'x').data(), 0), DFS_NO_SPACE);
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

// ---- Start-ups, changes and terminations on random sets beside a model of them ----

using Values = std::map<std::string, std::string>; // in the order of every list and store

Values values_in(const FcsTable &table) {
    Values values;
    for (const FcsFileEntry *entry = table.firstEntry; entry != nullptr; entry = entry->next) {
        EXPECT_TRUE(values.empty() || values.rbegin()->first < entry->name);
        values[entry->name] = std::string(entry->data, entry->data + entry->size);
    }
    EXPECT_TRUE(values.empty() || values.size() == table.entryCount);
    return values;
}

class FrontEndModel : public FlashStage {
  protected:
    static size_t trailer_of(const SetFile &file) {
        return (file.attributes & 0x01) == 0 ? 0 : (file.attributes & 0x40) != 0 ? 56 : 40;
    }
    SetFile &file_of(const std::string &name) { return files[numbers[name] - 1]; }
    bool is_there(const SetFile &file) const {
        return !(file.store == in_afs ? set->qfs : set->efs).empty();
    }
    bool deployed() const { return afs_is_up && !files[0].flash.value_or("").empty(); }

    template <typename List>
    auto pick(const List &from) {
        return std::data(from)[random() % std::size(from)];
    }
    // Often empty; at times as long as the file and a store allow, or its place in flash.
    std::string value_for(const SetFile &file) {
        const bool has_place = file.attributes != 0x03;
        const uint32_t most = std::min(has_place ? file.limit * 4 / 5 : file.limit, 65523U);
        const uint32_t lengths[] = {0, static_cast<uint32_t>(random()) % std::min(most, 200U)};
        return std::string(random() % 16 == 0 ? most : pick(lengths), pick("abcdefgh"));
    }
    Bytes store_of(const Values &values, bool shuffled) {
        std::vector<builders::StoreFile> stored;
        for (const auto &[name, value] : values) {
            stored.push_back({numbers[name], value});
        }
        if (shuffled) {
            std::shuffle(stored.begin(), stored.end(), random);
        }
        return builders::store_of(stored);
    }

    // The files of the default set, and more that only the tables know. Each has a base value, an
    // overriding one, both or neither.
    void make_set(bool with_afs, bool with_efs) {
        files = default_set;
        for (SetFile &file : files) {
            file.attributes = pick(std::array<uint16_t, 6>{0, 0, 0x01, 0x02, 0x40, 0x41});
            file.flash = with_trailer(value_for(file), trailer_of(file));
        }
        files[0].attributes = 0;
        files[0].flash = pick(std::array<std::optional<std::string>, 3>{"deployed", "", {}});
        for (const std::string &name : more_names) {
            const uint32_t limit = pick(std::array{8U, 204U, 0xFFFFU, 0xFFFFFFFFU});
            files.push_back({name.c_str(), 0x03, in_afs, 0, limit, "", {}});
        }
        set.emplace(files);
        base = overriding = {};
        for (const SetFile &file : files) {
            numbers[file.name] = static_cast<uint32_t>(&file - files.data() + 1);
            if (random() % 4 != 0) {
                base[file.name] = value_for(file);
            }
            if (random() % 4 == 0) {
                overriding[file.name] = value_for(file);
            }
        }
        set->orvel = store_of(base, true);
        set->vync = with_head(store_of(overriding, true));
        set->qfs.resize(with_afs ? set->qfs.size() : 0);
        set->efs.resize(with_efs ? set->efs.size() : 0);
    }

    // With AFS alone the deployed files of EFS cannot be read, which fails the start-up.
    void start(const _commonDolmInputs &inputs) {
        afs_is_up = is_there(files[0]);
        bool readable = true;
        now = base;
        for (auto &[name, value] : now) {
            const SetFile &file = file_of(name);
            value = overriding.contains(name) ? overriding[name] : value;
            if (deployed() && (file.attributes & 0x02) == 0) {
                readable = readable && is_there(file);
                value =
                    readable ? file.flash->substr(0, file.flash->size() - trailer_of(file)) : value;
            }
        }
        reports.clear(); // of what was looked for in vain
        ASSERT_EQ(qoQfsDolmInit(&inputs, on_report), readable);
        ASSERT_EQ(take_reports(), readable ? Reports{} : Reports{"342:"});
        afs_is_up = afs_is_up && readable;
        ASSERT_EQ(EFS_is_initialized(), !set->efs.empty());
        ASSERT_EQ(efs_image != nullptr, !set->efs.empty());
        ASSERT_EQ(qoQfsGetEfsSize(), 49152u);
        hidden.clear();
    }

    // A value that is hidden from the host goes into the store and not into flash.
    void change(const std::string &name) {
        uint8_t *data = nullptr;
        const std::string wanted = value_for(file_of(name));
        const auto size = static_cast<uint32_t>(wanted.size());
        ASSERT_EQ(qoQfsNvarResize(name.c_str(), &data, size), !hidden.contains(name));
        if (hidden.contains(name)) {
            return;
        }
        ASSERT_EQ(data == nullptr, size == 0);
        const size_t kept = std::min(wanted.size(), now[name].size());
        ASSERT_TRUE(std::equal(data, data + kept, now[name].begin()));
        std::copy(wanted.begin(), wanted.end(), data);
        now[name] = wanted;
        if (random() % 8 == 0) {
            dolm::frontend::find_current_value(name.c_str())->hidden = 1;
            hidden.insert(name);
        }
    }

    void terminate(bool keep_open) {
        const Bytes before = set->efs;
        bool efs_is_written = false;
        const bool into_flash = deployed();
        for (const auto &[name, value] : now) {
            SetFile &file = file_of(name);
            if (into_flash && !hidden.contains(name) && (file.attributes & 0x01) == 0) {
                efs_is_written |= file.store == in_efs && !(value.empty() && file.flash->empty());
                file.flash = value;
            }
        }
        reports.clear();
        ASSERT_TRUE(qoQfsNvarTerm(keep_open));
        // A file that is empty on both sides is left alone: a write would cost EFS a block.
        ASSERT_EQ(set->efs != before, efs_is_written);
        ASSERT_EQ(take_reports(), Reports());
        afs_is_up = afs_is_up && keep_open;
        ASSERT_EQ(qoFcsIsInitialized(), keep_open);
        ASSERT_EQ(qoQfsIsInitialized(), afs_is_up);
        if (keep_open) {
            overriding = now;
            ASSERT_TRUE(rebuilt_store() == store_of(now, false));
            set->vync = with_head(rebuilt_store());
        }
    }

    void expect_model() {
        const std::tuple<FcsFileName, const FcsTable &, const Values &> tables[] = {
            {FCS_FILE_ORVEL_CFG, s_orvelCfgTable, base},
            {FCS_FILE_VYN_CFG, s_vynCfgTable, overriding},
            {FCS_FILE_CURRENT_VALUES, s_currentValuesTable, now}};
        for (const auto &[number, list, values] : tables) {
            ASSERT_TRUE(values_in(list) == values);
            for (const SetFile &file : files) {
                const auto at = values.find(file.name);
                const char *const path = file.name + (random() % 2 == 0 ? 0 : strlen("/home/"));
                ASSERT_EQ(qoqfsCheckNvarExists(path, number), at != values.end());
                uint8_t *data = nullptr;
                uint32_t size = 0;
                uint32_t limit = 0;
                bool writable = false;
                if (qoQfsNvarGet(path, &data, &size, number, &writable, &limit)) {
                    ASSERT_TRUE(std::string(data, data + size) == at->second);
                    ASSERT_EQ(writable, trailer_of(file) == 0 || !deployed());
                    ASSERT_EQ(limit, file.limit);
                } else {
                    ASSERT_TRUE(at == values.end() || hidden.contains(file.name));
                }
            }
        }
        for (const SetFile &file : files) {
            ASSERT_TRUE(!is_there(file) || flash_content(file.name) == file.flash);
        }
        ASSERT_EQ(qoQfsIsInitialized(), afs_is_up);
        ASSERT_EQ(qoQfsIsVfsDeployed(), deployed());
    }

    std::mt19937 random{20261122};
    std::vector<std::string> more_names;
    std::vector<SetFile> files; // their flash is what the store holds by now
    std::optional<FlashSet> set;
    std::map<std::string, uint32_t> numbers;
    Values base, overriding, now;
    std::set<std::string> hidden;
    bool afs_is_up = false;
};

TEST_F(FrontEndModel, RandomRunsMatch) {
    for (int round = 0; round < 40; ++round) {
        SCOPED_TRACE(round);
        while (more_names.size() < (round < 39 ? 30U : 300U)) {
            more_names.push_back("/home/" + std::to_string(random() % 5) + "/" +
                                 std::to_string(more_names.size()));
        }
        make_set(round % 4 != 0, round % 4 != 1 && round % 8 != 0);
        for (int time = 0; time < 6; ++time) {
            _commonDolmInputs inputs = set->record();
            if (random() % 3 == 0 && // on bytes that the library handed out
                qoQfsGetBuildVynCfgFcsBuffer(&inputs.orvelCfg.data, &inputs.orvelCfg.size)) {
                base = overriding;
                set->orvel = rebuilt_store();
            }
            start(inputs);
            expect_model();
            while (random() % 3 != 0) {
                for (auto changes = random() % 6; changes > 0; --changes) {
                    const auto at = static_cast<ptrdiff_t>(random() % now.size());
                    change(std::next(now.begin(), at)->first);
                }
                expect_model();
                terminate(true);
                if (random() % 3 == 0) {
                    dfs_idle_reclaim();
                    EFS_idle_reclaim();
                }
            }
            if (random() % 3 == 0) {
                terminate(false);
            }
            if (HasFatalFailure()) {
                return;
            }
        }
        // A SKU without a row must not go on with a selection that points into released bytes.
        set->sku = 2;
        ASSERT_TRUE(set->start());
        ASSERT_EQ(g_table_buf, nullptr);
        ASSERT_TRUE(qoQfsNvarTerm(true));
        ASSERT_EQ(rebuilt_store(), Bytes(4));
    }
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
