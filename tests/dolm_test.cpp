// The program dolm from end to end, as a process of its own: what it prints, its exit codes, and
// what it leaves in the folders.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <string>

namespace {

namespace fs = std::filesystem;

using Folder = std::map<std::string, std::string>; // file name to content

std::string read_whole(const fs::path &path) {
    std::ifstream stream(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}

void write_whole(const fs::path &path, const std::string &content) {
    std::ofstream(path, std::ios::binary) << content;
}

Folder snapshot(const fs::path &folder) {
    Folder files;
    for (const auto &item : fs::directory_iterator(folder)) {
        files[item.path().filename()] = read_whole(item.path());
    }
    return files;
}

struct Outcome {
    int code;
    std::string out;
    std::string err;
};

class Dolm : public testing::Test {
  protected:
    Dolm() {
        std::string pattern = (fs::temp_directory_path() / "dolm_test.XXXXXX").string();
        if (mkdtemp(pattern.data()) == nullptr) {
            throw std::runtime_error("no temporary folder");
        }
        folder = pattern;
        set = folder / "set";
    }
    ~Dolm() override { fs::remove_all(folder); }

    // Runs dolm in the test's folder; arguments are in shell notation.
    Outcome run(const std::string &arguments) {
        const std::string command =
            "cd '" + folder.string() + "' && " DOLM_PROGRAM " " + arguments + " >out.txt 2>err.txt";
        const int status = std::system(command.c_str());
        Outcome outcome{WEXITSTATUS(status), read_whole(folder / "out.txt"),
                        read_whole(folder / "err.txt")};
        fs::remove(folder / "out.txt");
        fs::remove(folder / "err.txt");
        return outcome;
    }

    void make_sample() { ASSERT_EQ(run("sample set").code, 0); }

    std::string value(const std::string &name, const std::string &of_set = "set") {
        const Outcome outcome = run("get " + of_set + " " + name);
        EXPECT_EQ(outcome.code, 0) << outcome.err;
        return outcome.out;
    }

    fs::path folder;
    fs::path set;
};

TEST_F(Dolm, BuildsTheSampleAndListsEveryNvarOfASku) {
    make_sample();
    const Outcome list = run("list set");
    EXPECT_EQ(list.code, 0);
    EXPECT_NE(list.out.find("/home/net/hostname              10     64  0000  flash"),
              std::string::npos)
        << list.out;
    EXPECT_NE(list.out.find("/home/radio/region "), std::string::npos);
    EXPECT_EQ(list.out.find("/home/net/mac_backup "), std::string::npos);
    EXPECT_NE(list.out.find("/home/net/legacy_proxy stands in vync.cfg alone"), std::string::npos);
    const Outcome other = run("list set --sku 2");
    EXPECT_EQ(other.out.find("/home/radio/region "), std::string::npos);
    EXPECT_NE(other.out.find("/home/net/mac_backup "), std::string::npos);

    // The head of vync.cfg: nothing but the payload's length in bytes 8 to 11.
    const std::string vync = read_whole(set / "vync.cfg");
    std::string head(16, '\0');
    head[8] = static_cast<char>(vync.size() - 16);
    EXPECT_EQ(vync.substr(0, 16), head);
}

TEST_F(Dolm, SetsManyValuesInOneGoAndKeepsTheOthers) {
    make_sample();
    write_whole(folder / "value.bin", std::string("\0\x7f", 2));
    const Outcome outcome = run("set set mca/log_level verbose /home/mca/version '' net/mac "
                                "hex:0A0b0c net/dns @value.bin net/ntp '[a,b]' net/gateway -5");
    ASSERT_EQ(outcome.code, 0) << outcome.err;
    EXPECT_NE(outcome.out.find("net/mac: 6 -> 3 bytes\n"), std::string::npos);
    EXPECT_EQ(value("mca/log_level"), "verbose\n");
    EXPECT_EQ(value("mca/version"), "\n");
    EXPECT_EQ(value("net/mac"), "hex:0a0b0c\n");
    EXPECT_EQ(value("net/dns"), "hex:007f\n");
    EXPECT_EQ(value("net/ntp"), "[a,b]\n");
    EXPECT_EQ(value("net/gateway"), "-5\n");
    EXPECT_EQ(value("net/hostname"), "gateway-17\n");
    EXPECT_EQ(value("--table base mca/log_level"), "warn\n");
    const Outcome raw = run("get set net/firewall --raw raw.bin");
    EXPECT_EQ(raw.code, 0);
    EXPECT_EQ(read_whole(folder / "raw.bin").size(), 1500u);
}

TEST_F(Dolm, WhatGetPrintsSetTakesBack) {
    make_sample();
    for (const std::string bytes : {"", "text", "hex:zz", "@here", "text:x", "a b", "\x01\xff"}) {
        write_whole(folder / "value.bin", bytes);
        ASSERT_EQ(run("set set net/ntp @value.bin").code, 0);
        std::string shown = value("net/ntp");
        shown.pop_back();
        ASSERT_EQ(run("set set net/ntp x").code, 0);
        ASSERT_EQ(run("set set net/ntp '" + shown + "'").code, 0);
        ASSERT_EQ(run("get set net/ntp --raw raw.bin").code, 0);
        EXPECT_EQ(read_whole(folder / "raw.bin"), bytes) << shown;
    }
}

TEST_F(Dolm, OutputLeavesTheSetAsItWasAndMakesAWholeOne) {
    make_sample();
    const Folder before = snapshot(set);
    ASSERT_EQ(run("set set --output other/new net/hostname changed").code, 0);
    EXPECT_EQ(snapshot(set), before);
    const Folder after = snapshot(folder / "other/new");
    EXPECT_EQ(after.size(), before.size());
    EXPECT_EQ(value("net/hostname", "other/new"), "changed\n");
    const Outcome list = run("list other/new --against set");
    EXPECT_EQ(std::count(list.out.begin(), list.out.end(), '\n'), 2) << list.out;
    EXPECT_NE(list.out.find("\n/home/net/hostname "), std::string::npos) << list.out;
}

// Changes bytes of a file behind the place where `text` stands in it.
void patch(const fs::path &path, const std::string &text, size_t offset, const std::string &with) {
    std::string content = read_whole(path);
    const size_t found = content.find(text);
    ASSERT_NE(found, std::string::npos) << path;
    content.replace(found + offset, with.size(), with);
    write_whole(path, content);
}

// The attribute word of a name in the file table, for both SKUs.
void set_attributes(const fs::path &ftbl, const std::string &name, char attributes) {
    std::string content = read_whole(ftbl);
    for (size_t at = content.find(name); at != std::string::npos; at = content.find(name, at + 1)) {
        content[at + 52] = attributes;
    }
    write_whole(ftbl, content);
}

TEST_F(Dolm, SetBringsValuesIntoBothImagesAndTheRebuiltStore) {
    make_sample();
    const Folder before = snapshot(set);
    ASSERT_EQ(run("set set net/hostname flashed radio/cal/trim hex:0102 net/certificate x").code,
              0);
    const Folder after = snapshot(set);
    EXPECT_NE(after.at("qfs.img"), before.at("qfs.img"));
    EXPECT_NE(after.at("efs.img"), before.at("efs.img"));
    EXPECT_EQ(after.at("orvel.cfg"), before.at("orvel.cfg"));
    EXPECT_EQ(value("net/hostname"), "flashed\n");
    EXPECT_EQ(value("radio/cal/trim"), "hex:0102\n");
    EXPECT_EQ(value("--table override radio/cal/trim"), "hex:0102\n");
    // A file with a trailer is not written back, so the next start-up has the old value.
    EXPECT_EQ(value("--table override net/certificate"), "x\n");
    EXPECT_EQ(value("net/certificate").size(), std::string("hex:\n").size() + 2 * 930);
    // Without the images the tables' values stand.
    fs::remove(set / "qfs.img");
    fs::remove(set / "efs.img");
    EXPECT_EQ(value("net/certificate"), "x\n");
}

// Nothing reaches the images in the folder if a termination fails after it has written some files.
TEST_F(Dolm, AFailedTerminationLeavesTheImagesAsTheyWere) {
    make_sample();
    set_attributes(set / "ftbl.bin", "/home/radio/thermal_table", 0);
    const Folder before = snapshot(set);
    const Outcome outcome = run("set set mca/version changed");
    EXPECT_EQ(outcome.code, 1);
    EXPECT_NE(outcome.err.find("error 339 (level 4): Failed to get file size from QFS."),
              std::string::npos)
        << outcome.err;
    EXPECT_NE(outcome.err.find("error 348"), std::string::npos);
    EXPECT_EQ(snapshot(set), before);
}

TEST_F(Dolm, InspectShowsBothImages) {
    make_sample();
    const Outcome afs = run("inspect set/qfs.img");
    EXPECT_EQ(afs.code, 0) << afs.err;
    EXPECT_NE(afs.out.find("32 EUs of 8192 bytes, 24 data, 7 log, 1 spare"), std::string::npos);
    EXPECT_NE(afs.out.find(" 131    6000      94  contents  /home/audio/boot_sound"),
              std::string::npos)
        << afs.out;
    const Outcome efs = run("inspect set/efs.img --ftbl set/ftbl.bin --sku 2");
    EXPECT_EQ(efs.code, 0) << efs.err;
    EXPECT_NE(efs.out.find("   2      1       0   5000   6000  contents  /home/radio/cal/sweep"),
              std::string::npos)
        << efs.out;
    EXPECT_NE(run("inspect set/qfs.img --json").out.find("\"used_chunks\": 262"),
              std::string::npos);
    EXPECT_NE(run("inspect set/efs.img --json").out.find("\"bm_in_force\": 0"), std::string::npos);
    fs::rename(set / "efs.img", folder / "efs.img");
    EXPECT_EQ(run("inspect efs.img").code, 2);
}

struct Damage {
    const char *what;
    std::function<void(const fs::path &set)> make;
    const char *found; // part of what check prints
};

TEST_F(Dolm, CheckPassesTheSampleAndNamesEachDamage) {
    make_sample();
    const Folder before = snapshot(set);
    for (const char *sku : {"1", "2"}) {
        const Outcome sound = run(std::string("check set --sku ") + sku);
        EXPECT_EQ(sound.code, 0) << sound.out << sound.err;
        EXPECT_NE(sound.out.find("0 errors"), std::string::npos);
    }
    EXPECT_EQ(snapshot(set), before);
    const std::string sweep("\x00\x11\x22\x33\x44\x55\x66\x77", 8);
    const Damage damages[] = {
        {"a byte of an AFS file",
         [](const fs::path &s) { patch(s / "qfs.img", "carrier board B", 0, "K"); },
         "error: qfs.img: "},
        {"a byte of an EFS file", [&](const fs::path &s) { patch(s / "efs.img", sweep, 3, "x"); },
         "error: efs.img: file 2 is damaged"},
        {"the geometry of EFS",
         [](const fs::path &s) { patch(s / "ftbl.bin", "EFST", 16 + 20, "\x08"); },
         "error: efs.img: "},
        {"a short AFS image", [](const fs::path &s) { fs::resize_file(s / "qfs.img", 8192 * 20); },
         "error: qfs.img: "},
        {"no EFS image", [](const fs::path &s) { fs::remove(s / "efs.img"); },
         "error: /home/radio/cal/rx: lies in EFS, and the set has no efs.img"},
        {"a value that its limit no longer allows",
         [](const fs::path &s) { patch(s / "ftbl.bin", "/home/net/hostname", 64, "\x02"); },
         "error: /home/net/hostname: its value has 10 bytes, over the limit of 2"},
        {"a name twice",
         [](const fs::path &s) { patch(s / "ftbl.bin", "/home/net/dns", 0, "/home/net/ntp"); },
         "error: /home/net/ntp: the name stands twice"},
        {"a file table that is none", [](const fs::path &s) { write_whole(s / "ftbl.bin", "no"); },
         "error: the set: start-up failed"},
        {"a record without a file",
         [](const fs::path &s) { patch(s / "orvel.cfg", std::string("\xa2\0\0\0", 4), 2, "\1"); },
         "note: orvel.cfg: file number 65698 is in no file table"},
    };
    for (const Damage &damage : damages) {
        const fs::path copy = folder / "copy";
        fs::copy(set, copy, fs::copy_options::recursive);
        damage.make(copy);
        const Folder damaged = snapshot(copy);
        const Outcome outcome = run("check copy");
        EXPECT_NE(outcome.out.find(damage.found), std::string::npos) << damage.what << ":\n"
                                                                     << outcome.out << outcome.err;
        EXPECT_EQ(outcome.code, std::string(damage.found).starts_with("note") ? 0 : 1);
        EXPECT_TRUE(run("check copy --json").out.starts_with("{")) << damage.what;
        EXPECT_EQ(snapshot(copy), damaged) << damage.what;
        fs::remove_all(copy);
    }
}

struct Failing {
    const char *arguments;
    int code;
    const char *message; // part of standard error
};

// Each of them leaves the set byte for byte as it was, and no other file beside it.
TEST_F(Dolm, FailuresTellWhyAndChangeNothing) {
    make_sample();
    fs::copy(set, folder / "torn", fs::copy_options::recursive);
    fs::resize_file(folder / "torn/orvel.cfg", 30);
    fs::copy(set, folder / "unnamed", fs::copy_options::recursive);
    fs::remove(folder / "unnamed/set.json");
    fs::copy(set, folder / "stubborn", fs::copy_options::recursive);
    fs::remove(folder / "stubborn/vync.cfg");
    fs::create_directories(folder / "stubborn/vync.cfg/in_the_way");
    write_whole(folder / "bad.json", R"({"skus": [1], "files": [{"name": "/home/a"}]})");
    const Folder before = snapshot(set);
    const Failing cases[] = {
        {"", 2, "subcommand is required"},
        {"set set net/ntp", 2, "VALUE is required"},
        {"set set net/ntp a net/dns", 2, "'net/dns' has no value"},
        {"set set net/ntp a /home/net/ntp b", 2, "is given two values"},
        {"set set net/ntp hex:0", 2, "not hexadecimal"},
        {"set set net/ntp a --wrong b", 2, "unknown option --wrong"},
        {"get set net/ntp --hex --text", 2, "at most 1 option"},
        {"get set net/ntp --table other", 2, "other not in"},
        {"list unnamed", 2, "give one with --sku"},
        {"sample set", 2, "holds a set already"},
        {"list nowhere", 1, "cannot read nowhere/orvel.cfg"},
        {"set set net/ntp @nofile", 1, "cannot read nofile"},
        {"get set net/none", 1, "error 39 (level 4): File not found."},
        {"set set net/ntp a net/none b", 1, "error 39 (level 4): File not found."},
        {"set set net/ntp a net/mac hex:00112233445566", 1, "7 bytes, over the limit of 6"},
        {"list set --sku 7", 1, "no row for SKU 7, only for 1, 2"},
        {"list torn", 1,
         "error 331 (level 4): Failed to create FCS handle. Library status code: 10"},
        {"list stubborn", 1, "stubborn/vync.cfg"},
        {"build bad.json new", 1, "bad.json: /files/0: 'number' is missing"},
    };
    for (const Failing &failing : cases) {
        const Outcome outcome = run(failing.arguments);
        EXPECT_EQ(outcome.code, failing.code) << failing.arguments;
        EXPECT_EQ(outcome.out, "") << failing.arguments;
        EXPECT_NE(outcome.err.find(failing.message), std::string::npos)
            << failing.arguments << ": " << outcome.err;
        EXPECT_EQ(snapshot(set), before) << failing.arguments;
        EXPECT_FALSE(fs::exists(folder / "new"));
    }
}

// Files are written one after the other; when one cannot be put in place, those before it come
// back.
TEST_F(Dolm, AFailedWriteTakesBackTheFilesBeforeIt) {
    make_sample();
    fs::create_directories(folder / "half/set.json/in_the_way");
    write_whole(folder / "half/vync.cfg", "old");
    const Outcome outcome = run("set set --output half net/ntp x");
    EXPECT_EQ(outcome.code, 1);
    EXPECT_NE(outcome.err, "");
    EXPECT_EQ(read_whole(folder / "half/vync.cfg"), "old");
    EXPECT_FALSE(fs::exists(folder / "half/orvel.cfg"));
    EXPECT_EQ(std::distance(fs::directory_iterator(folder / "half"), {}), 2);
}

TEST_F(Dolm, BuildsASetFromAManifestWithValueFiles) {
    fs::create_directory(folder / "m");
    write_whole(folder / "m/blob.bin", std::string("\x01\x02\x03", 3));
    write_whole(folder / "m/manifest.json", R"({"skus": ["0x20"], "files": [
        {"name": "/home/blob", "number": 5, "max_size": 16, "base": {"file": "blob.bin", "size": 7}},
        {"name": "/home/only", "number": 6, "max_size": 16, "override": "x"}]})");
    ASSERT_EQ(run("build m/manifest.json set").code, 0);
    EXPECT_EQ(value("blob"), "hex:01020301020301\n");
    const Outcome json = run("list set --json");
    EXPECT_NE(json.out.find("\"sku\": 32"), std::string::npos);
    EXPECT_NE(json.out.find("\"hex\": \"01020301020301\""), std::string::npos);
    EXPECT_NE(json.out.find("\"/home/only\""), std::string::npos);
    EXPECT_EQ(run("build m/manifest.json set --replace").code, 0);
}

} // namespace
