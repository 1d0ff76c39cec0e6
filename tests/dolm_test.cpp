// The program dolm from end to end, as a process of its own: what it prints, its exit codes, and
// what it leaves in the folders.
#include <algorithm>

#include "dolm_process.h"

namespace {

using namespace dolm_process;

// Changes bytes of a file behind the first place where `text` stands in it; without a text, all.
void patch(const fs::path &path, const std::string &text, size_t offset, const std::string &with) {
    std::string content = read_whole(path);
    const size_t found = content.find(text);
    ASSERT_NE(found, std::string::npos) << path;
    content.replace(found + offset, text.empty() ? content.size() : with.size(), with);
    write_whole(path, content);
}

TEST_F(DolmCalls, ShowsTheSample) {
    const Call calls[] = {
        {"list set", 0, "/home/net/hostname              10     64  0000  flash"},
        {"list set", 0, "/home/net/legacy_proxy stands in vync.cfg alone"},
        {"get set radio/region", 0, "EU\n"},
        {"get set net/mac_backup --sku 2", 0, "hex:020000000002\n"},
        {"check set", 0, " 0 errors"},
        {"check set --sku 2", 0, " 0 errors"},
        {"inspect set/qfs.img", 0, "32 EUs of 8192 bytes, 24 data, 7 log, 1 spare"},
        {"inspect set/qfs.img", 0, " 131    6000      94  contents  /home/audio/boot_sound"},
        {"inspect set/efs.img", 0, "   2      1       0   5000   6000  contents  /home/radio/cal"},
        {"inspect set/qfs.img --json", 0, "\"used_chunks\": 262"},
        {"inspect set/efs.img --json", 0, "\"bm_in_force\": 0"},
    };
    expect_each(calls);
    // The head of vync.cfg: nothing but the payload's length in bytes 8 to 11.
    const std::string vync = read_whole(set / "vync.cfg");
    std::string head(16, '\0');
    head[8] = static_cast<char>(vync.size() - 16);
    EXPECT_EQ(vync.substr(0, 16), head);
}

TEST_F(DolmCalls, FailuresTellWhyAndChangeNothing) {
    fs::copy(set, folder / "torn");
    fs::resize_file(folder / "torn/orvel.cfg", 30);
    fs::copy(set, folder / "unnamed");
    fs::remove(folder / "unnamed/set.json");
    fs::copy(set / "efs.img", folder);
    fs::copy(set, folder / "long");
    fs::resize_file(folder / "long/qfs.img", (2 << 20) + 1);
    // The termination fails over a file that is not there, after others were written.
    fs::copy(set, folder / "halted");
    patch(folder / "halted/ftbl.bin", "/home/radio/thermal_table", 52, std::string(1, '\0'));
    // The last file cannot be put in place, after others were.
    fs::create_directories(folder / "half/set.json/in_the_way");
    write_whole(folder / "half/vync.cfg", "old");
    write_whole(folder / "bad.json", R"({"skus": [1], "files": [{"name": "/home/a"}]})");
    const Call calls[] = {
        {"", 2, "subcommand is required"},
        {"lits set", 2, "there is no command 'lits'; the nearest is 'list'"},
        {"set set net/ntp a net/dns", 2, "'net/dns' has no value"},
        {"set set net/ntp a /home/net/ntp b", 2, "is given two values"},
        {"set set net/ntp hex:0", 2, "not hexadecimal"},
        {"set set net/ntp a --wrong b", 2, "unknown option --wrong"},
        {"list unnamed", 2, "give one with --sku"},
        {"inspect efs.img", 2, "--ftbl"},
        {"sample set", 2, "holds a set already"},
        {"list nowhere", 1, "cannot open the folder nowhere: No such"},
        {"set set net/ntp @nofile", 1, "cannot read nofile"},
        {"set set net/ntp a net/none b", 1, "net/none: there is no such NVAR"},
        {"set set net/ntp a net/mac hex:00112233445566", 1, "7 bytes, over the limit of 6"},
        {"list set --sku 7", 1, "no row for SKU 7, only for 1, 2"},
        {"list long", 1, "long/qfs.img has more than 2097152 bytes"},
        {"list torn", 1,
         "Failed to create FCS handle. Library status code: 10 (orvel.cfg: its 45 "
         "records reach past the end; status 10)"},
        {"set halted mca/version new", 1, "Failed to get file size from QFS."},
        // What a reader's own termination would say is not said.
        {"list halted 2>&1 | grep -c 'error '", 1, "0"},
        {"set set --output half net/ntp x", 2, "half holds a set already"},
        {"set set --output half --replace net/ntp x", 1, "half/set.json is a folder"},
        {"build bad.json new", 1, "bad.json: /files/0: 'number' is missing"},
    };
    expect_each(calls);
}

TEST_F(DolmCalls, SaysWhenStandardOutputTakesNothing) {
    const Outcome outcome = run("list set 2>&1 >/dev/full | cat");
    EXPECT_NE(outcome.out.find("cannot write standard output: No space left"), std::string::npos);
}

TEST_F(DolmCalls, SetsManyValuesInTheTablesAndInBothImages) {
    const Folder before = snapshot(set);
    ASSERT_EQ(run("set set --output a/new /home/net/mac hex:0A0b0c net/ntp '[a,b]' net/gateway -5 "
                  "radio/cal/trim hex:0102 net/certificate x")
                  .code,
              0);
    EXPECT_EQ(snapshot(set), before);
    const Call calls[] = {
        {"get a/new net/mac", 0, "hex:0a0b0c\n"},
        {"get a/new net/ntp", 0, "[a,b]\n"},
        {"get a/new net/gateway", 0, "-5\n"},
        {"get a/new radio/cal/trim", 0, "hex:0102\n"},
        {"get a/new net/hostname", 0, "gateway-17\n"},
        {"get a/new --table base net/hostname", 0, "device\n"},
        {"get a/new --table override radio/cal/trim", 0, "hex:0102\n"},
        {"check a/new", 0, " 0 errors"},
    };
    expect_each(calls);
    const std::string list = run("list a/new --against set").out;
    EXPECT_EQ(std::count(list.begin(), list.end(), '\n'), 1 + 4) << list;
    // A file with a trailer is not written back: its old value stands until the images are gone.
    EXPECT_EQ(value("a/new net/certificate"), value("set net/certificate"));
    EXPECT_TRUE(fs::remove(folder / "a/new/qfs.img") && fs::remove(folder / "a/new/efs.img"));
    EXPECT_EQ(value("a/new net/certificate"), "x\n");
}

// Links, modes, devices and pipes stay what they are.
TEST_F(DolmCalls, WritesBehindLinksAndThroughWhatIsNoFile) {
    const std::string before = read_whole(set / "qfs.img");
    const Outcome outcome = shell(R"(
        mv set/qfs.img real.img; ln -s ../real.img set/qfs.img; chmod 640 real.img
        $dolm set set net/ntp new >/dev/null || exit 1
        stat -c %a real.img; readlink set/qfs.img; $dolm get set net/ntp
        ln set/vync.cfg second; $dolm set set net/dns other >/dev/null; cmp second set/vync.cfg
        mkfifo pipe; ln -s target link; ln -s pipe piped; echo old >target; chmod 604 target
        cat pipe & $dolm get set net/ntp --raw piped; wait; echo
        $dolm get set net/dns --raw link; $dolm get set mca/version --raw link
        stat -c %a target; cat link; echo; test -p pipe && test -h link && echo same
        $dolm get set net/ntp --raw - | $dolm set set net/dns @- >/dev/null
        $dolm get set net/dns; cat set/ftbl.bin >pipe & $dolm inspect --ftbl pipe --sku 1 - <set/efs.img | head -1
        $dolm get set net/ntp --raw /dev/full)");
    EXPECT_EQ(outcome.out, "640\n../real.img\nnew\nnew\n604\n2.4.0\nsame\nnew\n"
                           "EFS image of 49152 bytes: 2 BMs, 7 logical and 3 spare blocks of 4096 "
                           "bytes, layout 0\n");
    EXPECT_TRUE(outcome.err.ends_with("cannot write /dev/full: No space left on device\n"));
    EXPECT_EQ(outcome.code, 1);
    EXPECT_NE(read_whole(folder / "real.img"), before);
    EXPECT_TRUE(fs::is_character_file("/dev/full"));
}

TEST_F(DolmCalls, ReadersLeaveEveryTimeAlone) {
    const char *times = "stat -c '%n %x %y %z' set set/*";
    shell("touch -d '3 days ago' set/* set");
    const std::string before = shell(times).out;
    ASSERT_EQ(std::count(before.begin(), before.end(), '\n'), 7);
    for (const char *reader : {"list set", "list set --against set", "get set net/ntp", "check set",
                               "inspect set/qfs.img", "inspect set/efs.img"}) {
        EXPECT_EQ(run(reader).code, 0);
        EXPECT_EQ(shell(times).out, before) << reader;
    }
}

TEST_F(DolmCalls, ShowsNothingThatATerminalWouldObey) {
    patch(set / "ftbl.bin", "/home/net/dns", 10, "\x1b\n\x9b");
    EXPECT_EQ(run("set set net/ntp 'gr\u00fc\u00dfe \u65e5'").code, 0);
    patch(set / "ftbl.bin", "/home/net/ntp", 10, "\xc2\x9b");
    for (const char *command : {"list set", "list set --json", "inspect set/qfs.img", "check set",
                                "check set --json", "get set '\x1b[31m'", "\x1b[31m"}) {
        const Outcome outcome = run(command);
        for (const std::string &text : {outcome.out, outcome.err}) {
            EXPECT_EQ(text.find_first_of("\x1b\x9b"), std::string::npos) << command;
        }
    }
    const std::string list = run("list set").out;
    EXPECT_NE(list.find("/home/net/\\x1b\\x0a\\x9b "), std::string::npos) << list;
    EXPECT_NE(list.find("\"gr\u00fc\u00dfe \u65e5\""), std::string::npos) << list;
}

TEST_F(DolmCalls, WaitsForTheLockOfTheFolder) {
    const Call calls[] = {
        {"list set --lock-timeout 0", 1, "another command works on set"},
        {"set set net/ntp x --lock-timeout 1.1", 1, "waiting for another command"},
    };
    shell("flock set -c 'touch held; while test -e held; do sleep 0.05; done' & "
          "while ! test -e held; do sleep 0.05; done");
    expect_each(calls);
    fs::remove(folder / "held");
    EXPECT_EQ(run("set set net/ntp x").code, 0);
    EXPECT_EQ(shell("flock -s set $dolm get set net/ntp --lock-timeout 0").out, "x\n");
}

TEST_F(DolmCalls, WhatGetPrintsSetTakesBack) {
    for (const std::string bytes : {"", "text", "hex:zz", "@here", "text:x", "a b", "\x01\xff",
                                    "gr\u00fc\u00dfe", "\u200b"}) {
        write_whole(folder / "value.bin", bytes);
        ASSERT_EQ(run("set set net/ntp @value.bin").code, 0);
        std::string shown = value("set net/ntp");
        shown.pop_back();
        ASSERT_EQ(run("set set net/ntp x").code, 0);
        ASSERT_EQ(run("set set net/ntp '" + shown + "'").code, 0);
        ASSERT_EQ(run("get set net/ntp --raw raw.bin").code, 0);
        EXPECT_EQ(read_whole(folder / "raw.bin"), bytes) << shown;
    }
}

TEST_F(DolmCalls, CheckFailsOverErrorsAndChangesNothing) {
    fs::copy(set, folder / "broken");
    patch(folder / "broken/qfs.img", "carrier board B", 0, "K");
    write_whole(folder / "broken/set.json", "{");
    const Call calls[] = {
        {"check set", 0, "set with SKUs 1, 2: 0 errors, 11 notes\n"},
        {"check set --sku 2", 0, "set with SKU 2: 0 errors, 11 notes\n"},
        {"check set --quiet", 0, "set with SKUs 1, 2: 0 errors, 11 notes\n"},
        {"check set --strict", 1, "note: orvel.cfg: 0x226F, value of record 6: "},
        {"check set --sku 7", 1, "there is no row for SKU 7, only for 1, 2"},
        {"check broken", 1, "error: qfs.img: 0x3C152, EU 30, slot 3: /home/mca/board_name: "},
        {"check broken", 1, "\n    the set: with SKU 2: start-up failed\n"},

        {"check broken", 1, "\n    advice: bring back qfs.img"},
        {"check broken --quiet", 1, "broken with SKUs 1, 2: 2 errors, 7 notes\n"},
        {"check broken --json", 1, "\"file\": \"set.json\""},
        {"check set --json", 0, "\"errors\": 0,\n  \"notes\": 11,\n"},
        {"check nowhere --json", 1, "\"text\": \"cannot open the folder nowhere: "},
        {"check", 2, "SET is required"},
    };
    expect_each(calls);
}

TEST_F(DolmCalls, ProveVisitsStatesAndReplaysOne) {
    const std::string prove = "prove set net/hostname gw radio/cal/trim hex:01 ";
    const Folder before = snapshot(folder);
    const Outcome all = run(prove + "--states 100 --json");
    EXPECT_EQ(all.code, 0) << all.err;
    for (const char *part : {"\"one_deep\": 20,", "\"two_deep\": 80,", "\"failed\": 0,"}) {
        EXPECT_NE(all.out.find(part), std::string::npos) << all.out;
    }
    EXPECT_EQ(snapshot(folder), before);

    const std::string before_id = "\"id\": \"";
    const size_t id_at = all.out.rfind(before_id) + before_id.size();
    const std::string id = all.out.substr(id_at, all.out.find('"', id_at) - id_at);
    const std::string other_set = "prove set net/hostname other --output cut --replay " + id;
    const std::string no_state = prove + "--output cut --replay " + id + "9";
    const std::string over_itself = prove + "--output set --replay " + id;
    const Call failures[] = {
        {other_set.c_str(), 1, "there is no state"},
        {no_state.c_str(), 1, "there is no state"},
        {over_itself.c_str(), 2, "the set itself"},
        {"prove set --output cut", 2, "requires --replay"},
        {"prove set --states 0", 2, "at least one state"},
        {"prove set --states -1", 2, "at least one state"},
        {"prove set --depth 3", 2, "--depth"},
        {"prove set net/hostname", 2, "has no value"},
        {"prove set net/none x", 1, "net/none: there is no such NVAR"},
    };
    expect_each(failures);

    ASSERT_EQ(run(prove + "--output cut --replay " + id).code, 0);
    const Call calls[] = {{"check cut", 0, " 0 errors"},
                          {"prove cut --states 5", 0, "0 states failed"}};
    expect_each(calls);
    const std::string hostname = value("cut net/hostname");
    EXPECT_TRUE(hostname == "gateway-17\n" || hostname == "gw\n") << hostname;

    ASSERT_EQ(run("set cut net/ntp settled").code, 0);
    const Call settled[] = {
        {"prove cut --states 5", 0,
         "no file changes; of 45 files one cut leaves\n  45 as before in 1 state\n"},
        {"prove cut net/ntp moved --states 5", 0, "of 1 changed file one cut leaves\n"},
    };
    expect_each(settled);
}

TEST_F(DolmCalls, ProveFailsWhereNothingCanBeProven) {
    fs::copy(set, folder / "bare");
    fs::remove(folder / "bare/qfs.img");
    fs::remove(folder / "bare/efs.img");
    patch(set / "ftbl.bin", "/home/radio/thermal_table", 52, std::string(1, '\0'));
    const Call calls[] = {
        {"prove bare", 1, "no deployed VFS"},
        {"prove set", 1, "without a cut fails: the termination fails with the reports 339 "},
        {"prove set --json", 1, "\"reason\": \"the termination fails"},
    };
    expect_each(calls);
}

TEST_F(DolmCalls, BuildsASetFromAManifestWithValueFiles) {
    fs::create_directory(folder / "m");
    write_whole(folder / "m/blob.bin", "\x01\x02\x03");
    write_whole(folder / "m/manifest.json", R"({"skus": ["0x20"], "files": [
        {"name": "/home/blob", "number": 5, "max_size": 16, "base": {"file": "blob.bin", "size": 7}},
        {"name": "/home/only", "number": 6, "max_size": 16, "override": "x"}]})");
    ASSERT_EQ(run("build m/manifest.json new").code, 0);
    // The sample that it replaces had images.
    ASSERT_EQ(run("build m/manifest.json set --replace").code, 0);
    EXPECT_EQ(snapshot(set).size(), snapshot(folder / "new").size());
    const Call calls[] = {
        {"list new --json", 0, "\"sku\": 32"},
        {"list new --json", 0, "\"hex\": \"01020301020301\""},
        {"list new --json", 0, "\"/home/only\""},
    };
    expect_each(calls);
}

} // namespace
