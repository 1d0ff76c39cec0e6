// The front end without memory: in turn each allocation of a start-up and of a termination fails,
// alone or with all behind it. The call says what failed, and what it and the terminations behind
// it leave, in the images and in the rebuilt store, never has a value that was nobody's.
#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <set>

#include "heap_double.h"
#include "proof/full_set.h"
#include "vynerrors.h"

namespace builders = dolm::proof::builders;
namespace host_session = dolm::proof::host_session;
namespace full_set = dolm::proof::full_set;

using dolm::Bytes;
using namespace full_set;
using namespace host_session;
using builders::store_of;

namespace {

const std::map<std::string, std::string> changes = {
    {"/home/afs/plain", std::string(700, 'p')}, {"/home/afs/long", "short"},
    {"/home/afs/trailer", "changed"},           {"/home/efs/plain", ""},
    {"/home/efs/long", std::string(4500, 'e')},
};

FlashSet make_set(bool with_flash) {
    FlashSet set;
    set.vync = with_head(store_of({{2, "overriding"}, {5, "overriding"}, {7, "overriding"}}));
    if (!with_flash) {
        set.qfs.clear();
        set.efs.clear();
    }
    return set;
}

void report_with_memory(ErrorLevel level, ImageToolsErrorName number, const char *text,
                        const char *message) {
    const heap_double::Pause pause;
    EXPECT_NE(std::string(text), "General Error");
    EXPECT_TRUE(VynErrors::s_imageToolsErrorNameStringMap.empty() ||
                VynErrors::s_imageToolsErrorNameStringMap.size() == 35);
    on_report(level, number, text, message);
}

bool start(Inputs &set) {
    const _commonDolmInputs inputs = set.record();
    return qoQfsDolmInit(&inputs, report_with_memory);
}

bool change_values() {
    for (const auto &[name, value] : changes) {
        if (!set_value(name, value)) {
            return false;
        }
    }
    return true;
}

// What a host would store at this moment, to hand it in again.
Inputs stored(const Inputs &set) {
    Inputs copy = set;
    if (const Bytes store = rebuilt_store(); !store.empty()) {
        copy.vync = with_head(store);
    }
    return copy;
}

// What a name may have in a new start-up on what was stored, with and without the flash images.
class Values {
  public:
    static Values of(const Inputs &inputs) {
        Values values;
        values.read(inputs, "");
        Inputs tables = inputs;
        tables.qfs.clear();
        tables.efs.clear();
        values.read(tables, "tables alone ");
        return values;
    }

    void join(const Values &others) {
        for (const auto &[name, values] : others.values_) {
            values_[name].insert(values.begin(), values.end());
        }
    }

    void expect_holds(const Values &others) const {
        for (const auto &[name, values] : others.values_) {
            for (const std::string &value : values) {
                EXPECT_TRUE(values_.at(name).count(value) != 0) << name << "=" << value;
            }
        }
    }

  private:
    void read(Inputs inputs, const std::string &prefix) {
        reports.clear();
        ASSERT_TRUE(start(inputs));
        for (const SetFile &file : default_set) {
            values_[prefix + file.name].insert(value_of(file.name));
        }
        ASSERT_TRUE(qoQfsNvarTerm(false));
        EXPECT_EQ(reports, Reports{});
    }

    std::map<std::string, std::set<std::string>> values_;
};

class OutOfMemory : public testing::TestWithParam<bool> {
  protected:
    void SetUp() override {
        allowed = Values::of(make_set(GetParam()));
        for (const bool with_changes : {false, true}) {
            set_.emplace(make_set(GetParam()));
            ASSERT_TRUE(start(*set_) && (!with_changes || change_values()) && qoQfsNvarTerm(true));
            allowed.join(Values::of(stored(*set_)));
        }
    }
    void TearDown() override {
        heap_double::stop();
        set_.reset();
        builders::forget_file_table();
        reports.clear();
    }

    // Makes the call on a fresh set after prepare, each time with another allocation failing, until
    // none is left to fail. Gives the different reports of the calls that failed.
    std::set<Reports> fail_each_allocation(const std::function<bool(Inputs &)> &prepare,
                                           const std::function<bool(Inputs &)> &call) {
        std::set<Reports> seen;
        const FlashSet fresh = make_set(GetParam());
        for (const bool lasting : {false, true}) {
            bool failed = true;
            for (long number = 0; failed && !HasFailure(); ++number) {
                SCOPED_TRACE(testing::Message()
                             << "allocation " << number << (lasting ? " and all behind it" : ""));
                set_.emplace(fresh);
                EXPECT_TRUE(prepare(*set_));
                reports.clear();
                lasting ? heap_double::fail_from(number) : heap_double::fail_once(number);
                const bool done = call(*set_);
                failed = heap_double::stop();
                EXPECT_TRUE(done || failed);
                EXPECT_EQ(done, reports.empty());
                if (!done) {
                    seen.insert(take_reports());
                }
                check_what_is_left(lasting);
            }
        }
        return seen;
    }

    // What was stored right behind the call, behind a termination that keeps open, and behind the
    // final one.
    void check_what_is_left(bool final_alone) {
        std::vector<Inputs> moments = {stored(*set_)};
        const bool up = qoFcsIsInitialized();
        if (!final_alone) {
            EXPECT_EQ(qoQfsNvarTerm(true), up);
            moments.push_back(stored(*set_));
        }
        EXPECT_EQ(qoQfsNvarTerm(false), up);
        moments.push_back(stored(*set_));
        for (const Inputs &moment : moments) {
            allowed.expect_holds(Values::of(moment));
        }
    }

    std::optional<FlashSet> set_;
    Values allowed;
};

INSTANTIATE_TEST_SUITE_P(Sets, OutOfMemory, testing::Bool(), [](const auto &flash) {
    return std::string(flash.param ? "WithFlash" : "TablesAlone");
});

std::string status(int number) {
    return " Library status code: " + std::to_string(number);
}

TEST_P(OutOfMemory, AtStartUp) {
    std::set<Reports> expected = {
        {"324:"}, // catalogue, file table, a table's bytes
        {"405:" + status(1)},
        {"331:" + status(9)},
        {"331:" + status(10)},
        {"323:", "328:"},
        {"332:" + status(9), "328:"},
        {"324:", "328:"},
        {"331:" + status(9), "346:", "347:"}, // the merge
        {"324:", "347:"},
        {"334:" + status(9), "347:"},
    };
    if (GetParam()) {
        expected.insert({{"1:" + status(12), "342:"},
                         {"1:" + status(5), "342:"},
                         {"343:"},
                         {"324:", "342:"}}); // the value of a deployed file
    }
    const auto first_in_process = [](Inputs &) {
        VynErrors::s_imageToolsErrorNameStringMap.clear();
        return true;
    };
    EXPECT_EQ(fail_each_allocation(first_in_process, start), expected);
}

// Without memory for the catalogue or the file table.
TEST_P(OutOfMemory, BeforeAStartUpReplacesWhatStandsEachValueStays) {
    FlashSet set = make_set(GetParam());
    ASSERT_TRUE(start(set));
    ASSERT_TRUE(set_value("/home/afs/plain", "changed"));
    long number = 0;
    for (bool up = true; up && !HasFailure(); ++number) {
        reports.clear();
        heap_double::fail_once(number);
        EXPECT_FALSE(start(set));
        heap_double::stop();
        up = qoFcsIsInitialized();
        if (up) {
            EXPECT_EQ(take_reports(), Reports{"324:"});
            EXPECT_EQ(value_of("/home/afs/plain"), "changed");
            EXPECT_EQ(qoQfsIsInitialized(), GetParam());
        }
    }
    EXPECT_GT(number, 35); // rows of the catalogue
}

TEST_P(OutOfMemory, AtTermination) {
    const auto prepare = [](Inputs &set) { return start(set) && change_values(); };
    const auto keep_open = [](Inputs &) { return qoQfsNvarTerm(true); };
    const auto close = [](Inputs &) { return qoQfsNvarTerm(false); };
    std::set<Reports> expected = {{"348:"},
                                  {"324:", "348:"},
                                  {"331:" + status(9), "348:"},
                                  {"334:" + status(9), "348:"},
                                  {"336:" + status(9), "348:"}};
    if (GetParam()) {
        expected.insert({"102:" + status(5), "348:"});
    }
    EXPECT_EQ(fail_each_allocation(prepare, close), expected);
    expected.insert({{"331:" + status(9), "346:", "346:"}, // the merge, behind everything else
                     {"324:", "346:"},
                     {"334:" + status(9), "346:"}});
    EXPECT_EQ(fail_each_allocation(prepare, keep_open), expected);
}

} // namespace
