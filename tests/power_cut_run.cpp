#include "power_cut_run.h"

#include <cstdlib>
#include <iostream>

#include <gtest/gtest.h>

#include "sample.h"

namespace dolm_test {
namespace {

using namespace dolm::proof;

constexpr uint64_t sample_first = is_small_sample ? 60 : 400;
constexpr uint64_t sample_second = is_small_sample ? 180 : 2000;
constexpr uint64_t full_second = 40000;
constexpr unsigned chain_cuts = sampled(250);

Choice choice_from_environment() {
    const char *variable = std::getenv("DOLM_POWER_CUT");
    const std::string text = variable != nullptr ? variable : "";
    if (text.empty()) {
        return {sample_first, sample_second, ""};
    }
    return text == "full" ? Choice{UINT64_MAX, full_second, ""} : Choice{0, UINT64_MAX, text};
}

bool is_chosen(const Choice &choice, const std::string &workload) {
    return choice.replay.empty() || choice.replay.starts_with(workload + "/");
}

uint64_t visited = 0; // by all tests of this run

void report(const Findings &findings) {
    count_states(findings.states() + findings.chained);
    for (const Failure &failure : findings.failures) {
        ADD_FAILURE() << failure.reason << "\nThis alone: DOLM_POWER_CUT=" << failure.id;
    }
    EXPECT_EQ(findings.failed, findings.failures.size()) << "states failed, some not shown";
}

} // namespace

void expect_every_cut_holds(const char *store_name, FlashStore &store, const Workload &workload) {
    const Choice choice = choice_from_environment();
    if (!is_chosen(choice, workload.name)) {
        GTEST_SKIP() << "DOLM_POWER_CUT names another workload";
    }
    const Findings findings = explore(store, workload, choice);
    report(findings);
    std::cout << store_name << " " << workload.name << ": " << findings << std::endl;
}

void expect_chains_hold(const char *store_name, FlashStore &store, uint64_t seeds,
                        const std::function<Workload(uint64_t seed)> &start) {
    const Choice choice = choice_from_environment();
    uint64_t cuts = 0;
    for (uint64_t seed = 1; seed <= seeds; ++seed) {
        const Workload workload = start(seed);
        if (is_chosen(choice, workload.name + "." + std::to_string(seed))) {
            const Findings findings = chain(store, workload, seed, chain_cuts);
            report(findings);
            cuts += findings.chained;
        }
    }
    if (cuts == 0) {
        GTEST_SKIP() << "DOLM_POWER_CUT names another workload";
    }
    std::cout << store_name << " chain: " << cuts << " cuts" << std::endl;
}

bool replays_one_state() {
    return !choice_from_environment().replay.empty();
}

void count_states(uint64_t count) {
    visited += count;
}

} // namespace dolm_test

// A filter or an identifier that no workload knows must not look like a success.
int main(int argc, char **argv) {
    testing::InitGoogleTest(&argc, argv);
    const int result = RUN_ALL_TESTS();
    if (result == 0 && dolm_test::visited == 0 && !GTEST_FLAG_GET(list_tests)) {
        std::cerr << "No state was visited.\n";
        return 1;
    }
    return result;
}
