// How dolm behaves in a shell: options before and behind the command, a default set, colour.
#include "dolm_process.h"

namespace {

using namespace dolm_process;

TEST_F(DolmCalls, TakesCommonOptionsBeforeAndBehindTheCommand) {
    for (const char *call :
         {"-q list set", "list -q set", "list set -q", "check set -q", "set set net/ntp x -q",
          "-q get set net/ntp --text", "-q completions bash", "inspect -q set/qfs.img"}) {
        const Outcome outcome = run(call);
        EXPECT_EQ(outcome.code, 0) << call;
        EXPECT_EQ(outcome.out, "") << call;
    }
    EXPECT_EQ(value("set net/ntp"), "x\n");
    const Call calls[] = {
        {"-q get set net/ntp --raw -", 0, "x"},
        {"-q --json get set net/ntp", 0, "\"command\": \"get\""},
        {"--json get set net/none", 1, "{\"error\":\"net/none: there is no such NVAR"},
        {"--json", 2, "{\"error\":\"A subcommand is required\""},
        {"-q get set net/none", 1, "dolm: net/none: there is no such NVAR"},
        {"-x list set", 2, "-x"},
        {"-v list set -q", 0, "dolm: read the set in set: orvel.cfg "},
        {"list set -q --verbose", 0, "dolm: started up with SKU 1, the VFS deployed\n"},
    };
    expect_each(calls);
    EXPECT_NE(run("-v set set net/ntp y").err.find("dolm: wrote set/qfs.img\n"), std::string::npos);
}

TEST_F(DolmCalls, DefaultSetStandsInForOneThatIsNotGiven) {
    fs::create_directories(folder / "net/ntp"); // a folder that holds no set
    ASSERT_EQ(run("set set -o other net/ntp other").code, 0);
    const std::string own = run("get set net/ntp").out;
    const std::pair<const char *, std::string> told[] = {
        {"get net/ntp", own},
        {"get --text net/ntp", own},
        {"-q --json get net/ntp | grep -c command", "1\n"},
        {"get other net/ntp", "other\n"},
        {"get -- net/ntp", own},
        {"list 'net/n*' | wc -l", "2\n"},
        {"list other net/ntp | wc -l", "2\n"},
        {"check --quiet --sku 1", "set with SKU 1: 0 errors, 11 notes\n"},
        {"diff other | head -1 | cut -c 1-20", "~ nvar /home/net/ntp\n"},
        {"diff other other", ""},
        {"set net/ntp other --dry-run | tail -1", "nothing was changed\n"},
        {"set -q other net/dns new && $dolm get other net/dns", "new\n"},
        {"set -q net/dns set && $dolm get net/dns", "set\n"},
    };
    for (const auto &[call, expected] : told) {
        const Outcome outcome = shell("export DOLM_SET=set; $dolm " + std::string(call));
        EXPECT_EQ(outcome.out, expected) << call << outcome.err;
    }
    const std::pair<const char *, const char *> refused[] = {
        {"get othr net/ntp", "othr: there is no such NVAR"},
        {"set othr net/ntp x", "'x' has no value"},
        {"check othr", "othr"},
        {"build", "MANIFEST is required"},
    };
    for (const auto &[call, why] : refused) {
        const Outcome outcome = shell("DOLM_SET=set $dolm " + std::string(call));
        EXPECT_NE(outcome.code, 0) << call;
        EXPECT_NE(outcome.err.find(why), std::string::npos) << call << outcome.err;
    }
}

TEST_F(DolmCalls, ColoursWhatGoesToATerminal) {
    const auto on_terminal = [&](const std::string &environment, const std::string &arguments) {
        return shell(environment + " script -qec \"$dolm " + arguments + "\" /dev/null").out;
    };
    const std::string calls = "list set net/ntp; $dolm check set; $dolm get set net/none";
    const std::string coloured = on_terminal("TERM=xterm", calls);
    for (const char *part : {"\x1b[1mNAME", "\n\x1b[33mnote\x1b[0m: orvel.cfg",
                             "\n\x1b[1;31mdolm:\x1b[0m net/none: "}) {
        EXPECT_NE(coloured.find(part), std::string::npos) << part << coloured;
    }
    EXPECT_EQ(on_terminal("TERM=xterm NO_COLOR=", calls), coloured);
    for (const char *environment : {"TERM=xterm NO_COLOR=1", "TERM=dumb"}) {
        const std::string plain = on_terminal(environment, calls);
        EXPECT_NE(plain.find("\nnote: orvel.cfg"), std::string::npos) << plain;
        EXPECT_EQ(plain.find("m\x1b"), std::string::npos) << plain;
    }
}

} // namespace
