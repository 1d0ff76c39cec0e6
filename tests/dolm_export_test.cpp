// extract and import, and export and build as each other's inverse: over the sample, over manifests
// that say everything that can be said, with names that would lead out of the folder, and over
// damaged sets.
#include <algorithm>
#include <csignal>
#include <random>
#include <vector>

#include <sys/resource.h>

#include "dolm_process.h"
#include "image/bytes.h"
#include "sample.h"

namespace {

using namespace dolm_process;

class DolmExport : public Dolm {
  protected:
    void build(const std::string &manifest) {
        write_whole(folder / "made.json", manifest);
        const Outcome made = run("build --replace made.json made");
        ASSERT_EQ(made.code, 0) << made.err << manifest;
    }

    void export_and_build(const std::string &name) {
        fs::remove_all(folder / "text");
        const Folder before = snapshot(folder / name);
        const Outcome exported = run("export " + name + " text");
        ASSERT_EQ(exported.code, 0) << exported.err;
        EXPECT_EQ(snapshot(folder / name), before);
        const Outcome built = run("build --replace text/manifest.json again");
        ASSERT_EQ(built.code, 0) << built.err << read_whole(folder / "text/manifest.json");
    }

    // The same bytes: build writes them in one way only.
    void expect_inverse(const std::string &name) {
        export_and_build(name);
        EXPECT_TRUE(snapshot(folder / "again") == snapshot(folder / name))
            << read_whole(folder / "text/manifest.json");
    }
    // What the tables do not say is in which order files of different SKUs stood.
    void expect_round_trip(const std::string &manifest, const std::vector<std::string> &skus) {
        build(manifest);
        export_and_build("made");
        for (const char *same : {"orvel.cfg", "vync.cfg"}) {
            EXPECT_EQ(read_whole(folder / "again" / same), read_whole(folder / "made" / same));
        }
        for (const std::string &sku : skus) {
            EXPECT_EQ(run("list again --json --sku " + sku).out,
                      run("list made --json --sku " + sku).out);
        }
        EXPECT_EQ(run("export again text2 --replace").code, 0);
        EXPECT_TRUE(snapshot(folder / "text2") == snapshot(folder / "text"))
            << read_whole(folder / "text/manifest.json");
        fs::remove_all(folder / "text2");
    }
};

TEST_F(DolmExport, GivesTheSampleBack) {
    expect_inverse("set");
    EXPECT_EQ(read_whole(folder / "text/override/home/net/hostname.bin"), "gateway-17");
    EXPECT_EQ(run("export set text").code, 2);
    EXPECT_EQ(run("export set text --replace").code, 0);
}

// Files that SKUs order and describe differently, geometry and places of their own, contents of no
// SKU, and what only a set that was found may have.
TEST_F(DolmExport, GivesBackWhateverAManifestSays) {
    expect_round_trip(R"({"skus": [7, 4294967295, 1], "default_sku": 1, "as_found": true,
        "afs": {"size": 131072, "data_units": 10, "file_count": 70, "total_va_size": 80710, "fs_version": 5},
        "efs": [{"skus": [7], "wear_threshold": 9, "places": [{"id": 15, "block": 6, "offset": 9, "max_size": 65535}]},
                {"skus": [1], "valid": 9, "non_valid": 5, "files_num": 3000,
                 "places": [{"id": 2999, "block": 255, "offset": 4072, "max_size": 0}, {"id": 1, "block": 4, "max_size": 9}]}],
        "files": [
        {"name": "/home/mca/deploy", "number": 1, "max_size": 4, "store": "afs", "id": 1, "flash": "1"},
        {"name": "/home/a", "number": 2, "max_size": 9, "skus": [7], "base": "one", "base_opaque": 65535},
        {"name": "/home/b", "number": 3, "max_size": 9, "skus": [7, 1], "trailer": 56, "store": "afs", "id": 69,
         "override": {"u16be": [1, 2]}, "override_opaque": 7, "flash": "", "trailer_content": {"u8": 5, "size": 56}},
        {"name": "/home/a", "number": 4, "max_size": 9, "skus": [1], "base": "another"},
        {"name": "/home/a", "number": 2, "max_size": 8, "skus": [4294967295]},
        {"name": "/home/s", "number": 5, "max_size": 1, "trailer": 40, "store": "efs", "id": 3, "skus": [1],
         "efs": {"block": 2, "offset": 100, "max_size": 5000}, "base": "over the limit", "flash": "", "trailer_content": "short"},
        {"name": "", "number": 0, "max_size": 0, "skus": [7]},
        {"name": "/home/s", "number": 5, "max_size": 4294967295, "attributes": "0xFFBC", "pulled": false, "store": 200, "id": 9, "skus": [7]},
        {"name": "", "number": 0, "max_size": 0, "skus": [7]},
        {"name": "/home/x", "number": 6, "class": 15, "max_size": 0, "id": 12, "flash": "in AFS too"},
        {"skus": [], "store": "afs", "id": 13, "flash": "of nobody"},
        {"skus": [], "store": "efs", "id": 1, "flash": "nobody's"},
        {"skus": [], "number": 77, "base": "nobody's either", "override": ""}]})",
                      {"1", "7", "4294967295"});
    expect_round_trip(R"({"skus": [1], "efs": {"image": false}, "files": []})", {"1"});
}

TEST_F(DolmExport, KeepsEachValueInItsFolderWhateverTheNames) {
    const char *const names[] = {R"("/home/a")",
                                 R"("/home/a/b")",
                                 R"("/home/A")",
                                 R"("/home/a.bin")",
                                 R"("/home/a.bin/c")",
                                 R"("/home/a~2")",
                                 R"("/home/../../../x")",
                                 R"("../x")",
                                 R"("..")",
                                 R"("/home/.")",
                                 R"("/home//x")",
                                 R"("/home/x/")",
                                 R"("/")",
                                 R"("/home/\u001b[31m\n")",
                                 R"({"hex": "2f686f6d652fff2e2e"})",
                                 R"("/home/\u00e9%\\:")",
                                 R"("/home/manifest.json")",
                                 R"("/home/dot./x.")",
                                 R"("/home/nul/COM1.x")"};
    std::string files;
    int number = 0;
    for (const char *name : names) {
        ++number;
        files += (files.empty() ? "" : ",\n") + std::string(R"({"name": )") + name +
                 R"(, "number": )" + std::to_string(number) +
                 R"(, "max_size": 9, "base": {"u32": )" + std::to_string(number) + "}}";
    }
    expect_round_trip(R"({"skus": [1], "as_found": true, "files": [)" + files + "]}", {"1"});
    // Each in a file of its own, and nothing beside the folders that the test itself made.
    size_t values = 0;
    for (const auto &item : fs::recursive_directory_iterator(folder / "text/base")) {
        values += item.is_regular_file() ? 1 : 0;
        const std::string name = item.path().filename().string();
        EXPECT_TRUE(name.front() != '.' && name.back() != '.') << name;
    }
    EXPECT_EQ(values, std::size(names));
    EXPECT_EQ(std::distance(fs::directory_iterator(folder), {}), 5); // set, made, again, text
}

std::string random_manifest(std::mt19937 &random) {
    const auto below = [&](unsigned limit) { return static_cast<unsigned>(random() % limit); };
    std::string files;
    for (unsigned i = 1; i <= 60; ++i) {
        const std::string n = std::to_string(i);
        const bool in_efs = below(5) == 0 && i <= 40;
        files += (i == 1 ? "" : ",\n") + std::string(R"({"name": "/home/)") +
                 (below(2) != 0 ? "net/" : "") + n + R"(", "number": )" + n + R"(, "class": )" +
                 std::to_string(below(16)) + R"(, "max_size": 80, "attributes": )" +
                 std::to_string(below(65536) & 0xFFBEu) + R"(, "base": {"u8": )" +
                 std::to_string(below(256)) + R"(, "size": )" + std::to_string(below(81)) +
                 R"(}, "base_opaque": )" + std::to_string(below(2) * below(65536));
        if (below(3) == 0) {
            files += R"(, "override": "o)" + n + "\"";
        }
        if (below(3) != 0) {
            files += R"(, "skus": [)" + std::to_string(1 + below(3)) + "]";
        }
        files += in_efs ? R"(, "store": "efs", "efs": {"block": )" + std::to_string(i / 10) +
                              R"(, "offset": )" + std::to_string(i % 10 * 100) + "}"
                        : R"(, "store": "afs")";
        files += R"(, "id": )" + n + R"(, "flash": {"base64": "AAEC", "size": )" +
                 std::to_string(below(81)) + "}}";
    }
    return R"({"skus": [3, 1, 2], "afs": {"size": 131072, "data_units": 9}, "efs": {}, "files": [)" +
           files + "]}";
}

TEST_F(DolmExport, GivesRandomSetsBack) {
    std::mt19937 random(20261123);
    for (int round = 0; round < dolm_test::sampled(10) && !HasFailure(); ++round) {
        expect_round_trip(random_manifest(random), {"1", "2", "3"});
    }
}

// A disk that is full, as far as a program can tell.
TEST_F(DolmExport, LeavesNothingOfAnExportThatFails) {
    ASSERT_EQ(run("sample made").code, 0);
    fs::create_directory(folder / "there");
    rlimit room{};
    getrlimit(RLIMIT_FSIZE, &room);
    const rlimit less{4096, room.rlim_max};
    const auto before = signal(SIGXFSZ, SIG_IGN);
    setrlimit(RLIMIT_FSIZE, &less);
    const Outcome fresh = run("export made new/text");
    const Outcome there = run("export made there");
    setrlimit(RLIMIT_FSIZE, &room);
    signal(SIGXFSZ, before);
    EXPECT_EQ(fresh.code, 1) << fresh.err;
    EXPECT_NE(there.err.find("cannot write there/"), there.err.npos) << there.err;
    EXPECT_FALSE(fs::exists(folder / "new"));
    EXPECT_TRUE(fs::is_empty(folder / "there"));
}

// So many files would take longer than all else.
TEST_F(DolmExport, KeepsShortValuesOfALargeSetInTheManifest) {
    std::string files;
    for (int i = 1; i <= 1100; ++i) {
        const std::string n = std::to_string(i);
        files += (i == 1 ? "" : ",") + std::string(R"({"name": "/home/)") + n +
                 R"(", "max_size": 99, "number": )" + n + R"(, "base": )" +
                 (i % 3 == 0 ? R"({"u32": )" + n + "}"
                  : i == 1   ? R"({"text": "long", "size": 65})"
                             : "\"\u00e9" + n + "\"") +
                 "}";
    }
    expect_round_trip(R"({"skus": [1], "files": [)" + files + "]}", {"1"});
    EXPECT_EQ(std::distance(fs::directory_iterator(folder / "text/base/home"), {}), 1);
}

// Records in another order, with gaps and shared bytes, and a number that no SKU has.
TEST_F(DolmExport, ReadsTablesThatOthersBuilt) {
    const std::string store = read_whole(set / "orvel.cfg");
    dolm::Bytes bytes(store.begin(), store.end());
    const uint32_t count = dolm::get_le32(bytes, 0);
    const size_t grown = 12 + 5; // one more record, and a gap
    dolm::Bytes odd(4);
    dolm::put_le(odd, 0, count + 1, 4);
    for (uint32_t i = count; i-- > 0;) {
        const size_t at = 4 + 12 * size_t{i};
        dolm::put_le(bytes, at + 4, dolm::get_le32(bytes, at + 4) + static_cast<uint32_t>(grown),
                     4);
        dolm::put_le(bytes, at + 10, i, 2);
        odd.insert(odd.end(), bytes.begin() + static_cast<std::ptrdiff_t>(at),
                   bytes.begin() + static_cast<std::ptrdiff_t>(at + 12));
    }
    const size_t stray = odd.size();
    odd.resize(stray + grown, 0xEE);
    dolm::put_le(odd, stray, 0x1234567, 4);
    dolm::put_le(odd, stray + 4, 4, 4); // its value lies in the records
    dolm::put_le(odd, stray + 8, 12, 2);
    odd.insert(odd.end(), bytes.begin() + 4 + 12 * static_cast<std::ptrdiff_t>(count), bytes.end());
    write_whole(set / "orvel.cfg", std::string(odd.begin(), odd.end()) + "behind");

    const Outcome exported = run("export set text");
    EXPECT_EQ(exported.code, 0) << exported.err;
    EXPECT_NE(exported.err.find("no SKU has file 19088743 of class 0"), std::string::npos);
    ASSERT_EQ(run("build text/manifest.json again").code, 0);
    EXPECT_EQ(run("list set --json").out, run("list again --json").out);
    expect_inverse("again");
}

TEST_F(DolmExport, NamesWhatDamageHidesAndWritesTheRest) {
    const std::string image = read_whole(set / "qfs.img");
    const std::string table = read_whole(set / "ftbl.bin");
    const std::string base = read_whole(set / "orvel.cfg");
    const auto is_hidden = [&](const std::string &complaint, const std::string &file) {
        fs::remove_all(folder / "text");
        const Outcome exported = run("export set text");
        EXPECT_EQ(exported.code, 1);
        EXPECT_NE(exported.err.find(complaint), std::string::npos) << exported.err;
        EXPECT_FALSE(fs::exists(folder / "text" / file)) << file;
        EXPECT_EQ(read_whole(folder / "text/override/home/net/hostname.bin"), "gateway-17");
        const Outcome built = run("build --replace text/manifest.json again");
        EXPECT_EQ(built.code, 0) << built.err;
    };
    // A chunk of one file.
    std::string damaged = image;
    const size_t chunk = damaged.find("ntp.example");
    ASSERT_NE(chunk, std::string::npos);
    damaged[chunk] = static_cast<char>(damaged[chunk] ^ 0x40);
    write_whole(set / "qfs.img", damaged);
    is_hidden("(/home/net/ntp)", "flash/home/net/ntp.bin");
    EXPECT_EQ(read_whole(folder / "text/flash/home/net/hostname.bin"), "gateway-17");
    // The whole image.
    write_whole(set / "qfs.img", std::string(image.size(), '\0'));
    is_hidden("qfs.img: ", "flash/home/net/hostname.bin");
    write_whole(set / "qfs.img", image);
    // The last values of a table, and the table.
    write_whole(set / "orvel.cfg", base.substr(0, base.size() - 1));
    is_hidden("runs past the end", "base/home/usb/vendor_id.bin");
    fs::remove(set / "orvel.cfg");
    is_hidden("orvel.cfg: ", "base/home/net/hostname.bin");
    write_whole(set / "orvel.cfg", base);
    // The entries of the second SKU.
    write_whole(set / "ftbl.bin", table.substr(0, table.size() - 1));
    is_hidden("SKU 2 has ", "nothing");
    EXPECT_EQ(run("export nowhere text2").code, 1);
}

TEST_F(DolmExport, ExtractsFilesOfBothStores) {
    const Outcome some = run("extract set mca/deploy 'net/cert*' 0x30000060 -o files");
    ASSERT_EQ(some.code, 0) << some.err;
    EXPECT_EQ(read_whole(folder / "files/home/mca/deploy"), "1");
    EXPECT_EQ(read_whole(folder / "files/home/security/counter"),
              std::string("\7\0\0\0\0\0\0\0", 8));
    EXPECT_EQ(fs::file_size(folder / "files/home/net/certificate"), 930U);
    EXPECT_EQ(fs::file_size(folder / "files/home/net/certificate_chain"), 3000U);
    EXPECT_EQ(snapshot(folder / "files").size(), 8U);
    EXPECT_EQ(run("extract set --trailer net/certificate -o -").out.substr(930),
              std::string(56, 'Z'));
    ASSERT_EQ(run("extract set --all -o all").code, 0);
    EXPECT_EQ(read_whole(folder / "all/home/radio/cal/date"), "2026-04-02");
    // Those of the SKU by name, those of others by their id.
    EXPECT_TRUE(fs::exists(folder / "all/afs%3A34") &&
                !fs::exists(folder / "all/home/net/mac_backup"));
    EXPECT_NE(run("extract set radio/thermal_table mca/deploy -o files").err.find("not in flash"),
              std::string::npos);
    for (const char *wrong : {"extract set -o x", "extract set net/none -o x",
                              "extract set --all net/ntp -o x", "extract set 'mca/*' -o -"}) {
        EXPECT_EQ(run(wrong).code, 2) << wrong;
    }
    EXPECT_FALSE(fs::exists(folder / "x"));
    // Shorter than the trailer that the table gives it.
    std::string table = read_whole(set / "ftbl.bin");
    table[table.find(std::string("/home/net/ntp\0", 14)) + 52] |= 1;
    write_whole(set / "ftbl.bin", table);
    const Outcome cut = run("extract set net/ntp -o -");
    EXPECT_EQ(cut.code, 0) << cut.err;
    EXPECT_EQ(cut.out, "");
}

TEST_F(DolmExport, ImportsFilesIntoBothStoresOrNone) {
    write_whole(folder / "short", "s");
    write_whole(folder / "a=b", std::string(900, 'n'));
    write_whole(folder / "empty", "");
    const Folder before = snapshot(set);
    for (const char *wrong :
         {"import set net/ntp=short radio/cal/rx=nothing", "import set net/ntp=short net/mac=a=b",
          "import set net/ntp=short --trailer net/certificate=short"}) {
        EXPECT_EQ(run(wrong).code, 1) << wrong;
    }
    for (const char *wrong : {"import set net/ntp", "import set net/none=short", "import set",
                              "import set net/ntp=short 38=short", "import set 'net/*=short'"}) {
        EXPECT_EQ(run(wrong).code, 2) << wrong;
    }
    EXPECT_EQ(snapshot(set), before);

    const Outcome done = run("import set net/ntp=short net/certificate=a=b radio/cal/sweep=short "
                             "mca/version=empty radio/thermal_table=short 0x30000061=- <short");
    ASSERT_EQ(done.code, 0) << done.err;
    Folder after = snapshot(set);
    EXPECT_EQ(after["orvel.cfg"] + after["vync.cfg"] + after["ftbl.bin"],
              before.at("orvel.cfg") + before.at("vync.cfg") + before.at("ftbl.bin"));
    EXPECT_EQ(value("set net/ntp"), "s\n");
    EXPECT_EQ(value("set radio/cal/sweep"), "s\n");
    EXPECT_EQ(value("set mca/version"), "\n");
    EXPECT_EQ(value("set security/keys"), "s\n");
    EXPECT_EQ(run("extract set net/certificate --trailer -o -").out,
              std::string(900, 'n') + std::string(56, 'Z'));
    EXPECT_EQ(run("extract set radio/thermal_table --trailer -o -").out,
              "s" + std::string(40, 'Z'));
    EXPECT_EQ(run("check set").code, 0);
    // With its trailer, as extract gave it.
    ASSERT_EQ(run("extract set net/certificate --trailer -o files && "
                  "$dolm import set --trailer net/certificate=files/home/net/certificate")
                  .code,
              0);
    EXPECT_EQ(value("set net/certificate"), std::string(900, 'n') + "\n");
}

} // namespace
