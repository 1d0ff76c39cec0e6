// What a check says of a set: the first finding has to name what was damaged. Each damage of
// check_damages.json is done to the sample alone, at
//   "at"     a sum of offsets, of texts (where they stand first) and of "EU n", "BM n", "block n"
//   "flip"   bits of one byte, or "set" bytes, or "fill" with one over a "size"
//   "cut"    the length that is left of the member
// and the first finding that the sample itself does not give has to be about the member, an error
// or, with "note", a note, with a place that holds "place" and the "nvar" if one is given.
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <iterator>
#include <nlohmann/json.hpp>
#include <random>
#include <set>
#include <sstream>
#include <string>

#include "host/check/set_check.h"
#include "host/commands.h"
#include "host/manifest.h"
#include "host/system.h"
#include "sample.h"

namespace {

namespace fs = std::filesystem;

using dolm::Finding;
using nlohmann::json;

constexpr const char *member_names[] = {"orvel.cfg", "vync.cfg", "ftbl.bin", "qfs.img", "efs.img"};

std::string read_whole(const fs::path &path) {
    std::ifstream stream(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}

void write_whole(const fs::path &path, const std::string &content) {
    std::ofstream(path, std::ios::binary) << content;
}

std::string from_hex(const std::string &text) {
    std::string bytes;
    for (size_t i = 0; i + 1 < text.size(); i += 2) {
        bytes += static_cast<char>(std::stoi(text.substr(i, 2), nullptr, 16));
    }
    return bytes;
}

size_t product(const std::string &text) {
    std::istringstream words(text);
    size_t result = 1;
    for (std::string word; words >> word;) {
        result *= word == "*" ? 1 : std::stoul(word);
    }
    return result;
}

size_t term(const std::string &content, const std::string &text) {
    const auto unit = [&](const char *name, size_t size, size_t base) {
        return base + size * std::stoul(text.substr(std::string(name).size()));
    };
    if (text.starts_with("EU ")) {
        return unit("EU ", 8192, 0);
    }
    if (text.starts_with("BM ")) {
        return unit("BM ", 4096, 0);
    }
    if (text.starts_with("block ")) {
        return unit("block ", 4096, 8192);
    }
    if (std::isdigit(static_cast<unsigned char>(text.front())) != 0) {
        return product(text);
    }
    EXPECT_NE(content.find(text), std::string::npos) << text;
    return content.find(text);
}

size_t offset(const std::string &content, const std::string &text) {
    const size_t plus = text.find(" + ");
    return term(content, text.substr(0, plus)) +
           (plus == text.npos ? 0 : offset(content, text.substr(plus + 3)));
}

std::string damaged(std::string content, const json &damage) {
    if (damage.contains("cut")) {
        return content.substr(0, damage["cut"].get<size_t>());
    }
    const size_t at = offset(content, damage["at"].get<std::string>());
    if (damage.contains("flip")) {
        content[at] = static_cast<char>(content[at] ^ from_hex(damage["flip"])[0]);
    } else if (damage.contains("fill")) {
        const size_t size = damage["size"];
        content.replace(at, size, size, from_hex(damage["fill"])[0]);
    } else {
        const std::string bytes = from_hex(damage["set"]);
        content.replace(at, bytes.size(), bytes);
    }
    return content;
}

std::string line_of(const Finding &finding) {
    return (finding.severity == Finding::Severity::error ? "error: " : "note: ") +
           finding.cause.file + ": " + finding.cause.place + ": " + finding.cause.nvar + ": " +
           finding.cause.text;
}

// A folder with the sample in "set".
class Check : public testing::Test {
  protected:
    void SetUp() override {
        fs::create_directory(folder);
        testing::internal::CaptureStdout();
        dolm::build_set({std::nullopt, set, false, 1});
        testing::internal::GetCapturedStdout();
        for (const Finding &finding : dolm::check_files(set, std::nullopt, 1).findings) {
            EXPECT_EQ(finding.severity, Finding::Severity::note) << line_of(finding);
            usual_.insert(line_of(finding));
        }
    }
    void TearDown() override { fs::remove_all(folder); }

    // As a user or an older dolm writes it.
    void take_checksums_away() const {
        json settings = json::parse(read_whole(set / "set.json"));
        settings.erase("checksums");
        write_whole(set / "set.json", settings.dump());
    }

    // What the sample by itself does not give.
    std::vector<Finding> check() const {
        testing::internal::CaptureStderr();
        std::vector<Finding> findings = dolm::check_files(set, std::nullopt, 1).findings;
        testing::internal::GetCapturedStderr();
        std::erase_if(findings,
                      [&](const Finding &finding) { return usual_.contains(line_of(finding)); });
        return findings;
    }

    // Checks with a change, which is undone.
    std::vector<Finding> check_with(const std::string &member, const std::string &content) const {
        const std::string old = read_whole(set / member);
        write_whole(set / member, content);
        std::vector<Finding> findings = check();
        write_whole(set / member, old);
        return findings;
    }

    void change(std::vector<std::string> words) const {
        dolm::ChangeOptions options;
        options.folder = set;
        options.words = std::move(words);
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        dolm::set_nvars(options);
        testing::internal::GetCapturedStderr();
        testing::internal::GetCapturedStdout();
    }

    const fs::path folder = testing::TempDir() + "check_test." + dolm::system::process_number();
    const fs::path set = folder / "set";

  private:
    std::set<std::string> usual_;
};

TEST_F(Check, TheFirstFindingNamesTheDamage) {
    size_t damages = 0;
    take_checksums_away();
    for (const json &damage : json::parse(read_whole(DOLM_CHECK_DAMAGES))) {
        SCOPED_TRACE(damage.dump());
        const std::string member = damage["in"];
        const std::string content = read_whole(set / member);
        const std::string changed = damaged(content, damage);
        ASSERT_NE(changed, content);
        const std::vector<Finding> findings = check_with(member, changed);
        ASSERT_FALSE(findings.empty());
        const Finding &first = findings.front();
        EXPECT_EQ(first.severity == Finding::Severity::note, damage.value("note", false));
        EXPECT_EQ(first.cause.file, member) << line_of(first);
        EXPECT_NE(first.cause.place.find(damage["place"]), std::string::npos) << line_of(first);
        EXPECT_EQ(damage.value("nvar", first.cause.nvar), first.cause.nvar) << line_of(first);
        ++damages;
    }
    EXPECT_GE(damages, 60U);
}

// What no rule tells from a good table, the checksums do: one finding, at the very byte.
TEST_F(Check, TablesAreWhatDolmWroteOrTheChangeIsFound) {
    const struct {
        const char *member;
        const char *at;
        const char *bytes;
        const char *place;
        const char *nvar;
    } changes[] = {
        {"orvel.cfg", "ntp.example", "6d", "value of record", "/home/net/ntp"},
        {"orvel.cfg", "4 + 12 * 20 + 10", "01", "opaque word of record 20", "/home/net/gateway"},
        {"vync.cfg", "gateway-17", "68", "value of record 4", "/home/net/hostname"},
        {"vync.cfg", "3", "01", "0x3, head", ""},
        {"ftbl.bin", "4", "01", "0x4, head", ""},
        {"ftbl.bin", "/home/net/hostname + 16", "63", "name of entry 11 of SKU 1",
         "/home/net/hostnace"},
        {"ftbl.bin", "/home/test/scratch + 64", "01", "max_size of entry", "/home/test/scratch"},
        {"ftbl.bin", "EFST + 16 + 32", "63", "wear_leveling_threshold in the EFST row of SKU 1",
         ""},
        {"ftbl.bin", "EFST + 96 + 54", "ff", "max_size of EFST file record 0",
         "/home/radio/cal/rx"},
        {"orvel.cfg", "ntp.example", "6e65772e74696d65", "value of record", "/home/net/ntp"},
        {"ftbl.bin", "/home/test/scratch + 49", "ffffff", "entry 44 of SKU 1",
         "/home/test/scratch"},
    };
    for (const auto &change : changes) {
        SCOPED_TRACE(std::string(change.member) + ", " + change.place);
        const std::string content = read_whole(set / change.member);
        const std::string changed = damaged(content, {{"at", change.at}, {"set", change.bytes}});
        ASSERT_NE(changed, content);
        const std::vector<Finding> findings = check_with(change.member, changed);
        ASSERT_FALSE(findings.empty());
        EXPECT_EQ(findings[0].severity, Finding::Severity::error);
        EXPECT_EQ(findings[0].cause.file, change.member);
        EXPECT_NE(findings[0].cause.place.find(change.place), std::string::npos)
            << line_of(findings[0]);
        EXPECT_EQ(findings[0].cause.nvar, change.nvar) << line_of(findings[0]);
        for (size_t i = 1; i < findings.size(); ++i) {
            EXPECT_EQ(findings[i].severity, Finding::Severity::note) << line_of(findings[i]);
        }
    }
}

// A host that knows nothing of checksums writes its values into vync.cfg and into flash. What dolm
// writes over that afterwards it knows again; what it leaves as it was found stays in doubt.
TEST_F(Check, WhatAnotherHostWroteIsANoteAndDamageToItAnError) {
    const auto of_tables = [](std::vector<Finding> findings) {
        std::erase_if(findings, [](const Finding &finding) {
            return finding.cause.file == "qfs.img" && finding.severity == Finding::Severity::note;
        });
        return findings;
    };
    const auto check_tables = [&] { return of_tables(check()); };
    const std::string recorded = read_whole(set / "set.json");
    change({"net/ntp", "time.example.com", "net/hostname", "gateway-18"});
    EXPECT_TRUE(check_tables().empty());
    write_whole(set / "set.json", recorded);
    const std::string written = read_whole(set / "vync.cfg");
    const std::vector<Finding> found = check_tables();
    ASSERT_EQ(found.size(), 1U);
    EXPECT_EQ(found[0].severity, Finding::Severity::note);
    EXPECT_EQ(found[0].cause.file, "vync.cfg");
    EXPECT_NE(found[0].cause.text.find("another program has written it"), std::string::npos);

    const size_t value = written.find("gateway-18");
    ASSERT_NE(value, written.npos);
    for (const size_t at : {size_t{16}, size_t{20}, size_t{24}, size_t{28}, value, value + 9}) {
        std::string damaged = written;
        damaged[at] = static_cast<char>(damaged[at] ^ 0x20);
        const std::vector<Finding> findings = of_tables(check_with("vync.cfg", damaged));
        ASSERT_FALSE(findings.empty()) << at;
        EXPECT_EQ(findings[0].severity, Finding::Severity::error) << line_of(findings[0]);
        EXPECT_EQ(findings[0].cause.file, "vync.cfg") << line_of(findings[0]);
    }
    EXPECT_EQ(check_with("vync.cfg", written.substr(0, written.size() - 1))[0].severity,
              Finding::Severity::error);

    change({"net/ntp", "other.example.com"});
    EXPECT_TRUE(check_tables().empty()) << "dolm wrote it last";
    std::string base = read_whole(set / "orvel.cfg");
    base[base.find("ntp.example")] = 'N';
    write_whole(set / "orvel.cfg", base);
    change({"net/ntp", "third.example.com"});
    const std::vector<Finding> left = check_tables();
    ASSERT_FALSE(left.empty()) << "written as it was found, the change still shows";
    EXPECT_EQ(left[0].cause.file, "orvel.cfg");
    EXPECT_EQ(left[0].severity, Finding::Severity::error);
}

// Thousands of random damages were tried by hand; these few keep the rule: whatever the bytes, the
// check comes to its end, and no error blames a sound member first.
TEST_F(Check, RandomDamageIsBlamedOnItsMember) {
    std::mt19937 random(20260401);
    for (int i = 0; i < dolm_test::sampled(250); ++i) {
        const std::string member = member_names[random() % std::size(member_names)];
        std::string content = read_whole(set / member);
        const size_t at = random() % content.size();
        const size_t size = std::min<size_t>(content.size() - at, size_t{1} << random() % 10);
        std::generate_n(content.begin() + static_cast<std::ptrdiff_t>(at), size,
                        [&] { return static_cast<char>(random()); });
        SCOPED_TRACE(member + " at " + std::to_string(at) + ", " + std::to_string(size));
        const std::vector<Finding> findings = check_with(member, content);
        if (!findings.empty() && findings.front().severity == Finding::Severity::error) {
            EXPECT_EQ(findings.front().cause.file, member) << line_of(findings.front());
        }
    }
}

TEST_F(Check, MixedUpSetsAreToldAsSuch) {
    const auto swap = [&](const char *a, const char *b) {
        fs::rename(set / a, folder / "other");
        fs::rename(set / b, set / a);
        fs::rename(folder / "other", set / b);
    };
    const auto remove = [&](std::initializer_list<const char *> members) {
        for (const char *member : members) {
            fs::remove(set / member);
        }
    };
    const struct {
        const char *what;
        std::function<void()> change;
        const char *file;
        const char *text;
    } sets[] = {
        {"no AFS image", [&] { remove({"qfs.img"}); }, "qfs.img", "set.json counts it"},
        {"no AFS image, of a set that dolm did not make",
         [&] {
             remove({"qfs.img", "set.json"});
         },
         "qfs.img", "efs.img shows that the set lives in flash"},
        {"no EFS image, the same",
         [&] {
             remove({"efs.img", "set.json"});
         },
         "efs.img", "the deployed VFS in qfs.img shows"},
        {"tables only",
         [&] {
             remove({"qfs.img", "efs.img"});
         },
         "qfs.img", "set.json counts it"},
        {"an empty image", [&] { write_whole(set / "efs.img", ""); }, "efs.img", "has no bytes"},
        {"swapped images", [&] { swap("qfs.img", "efs.img"); }, "qfs.img", "holds an EFS image"},
        {"swapped stores", [&] { swap("orvel.cfg", "vync.cfg"); }, "orvel.cfg",
         "holds a store of overriding values"},
        {"a member twice",
         [&] {
             remove({"vync.cfg"});
             fs::copy(set / "ftbl.bin", set / "vync.cfg");
         },
         "vync.cfg", "holds a file table"},
        {"no file table", [&] { remove({"ftbl.bin"}); }, "ftbl.bin", "is missing"},
        {"another SKU", [&] { write_whole(set / "set.json", "{\"sku\": 3}"); }, "set.json",
         "rows for 1, 2 only"},
        {"broken settings", [&] { write_whole(set / "set.json", "{"); }, "set.json",
         "not of the form"},
        {"no folder", [&] { fs::remove_all(set); }, "the set", "cannot open the folder"},
    };
    fs::copy(set, folder / "sound");
    for (const auto &mixed : sets) {
        SCOPED_TRACE(mixed.what);
        mixed.change();
        const std::vector<Finding> findings = check();
        ASSERT_FALSE(findings.empty());
        EXPECT_EQ(findings.front().severity, Finding::Severity::error);
        EXPECT_EQ(findings.front().cause.file, mixed.file) << line_of(findings.front());
        EXPECT_NE(findings.front().cause.text.find(mixed.text), std::string::npos)
            << line_of(findings.front());
        fs::remove_all(set);
        fs::copy(folder / "sound", set);
    }
}

// A board with other files, another flash and another geometry of EFS than the sample's.
constexpr const char *other_board = R"({
  "skus": [1], "afs": {"size": 131072, "data_units": 10},
  "efs": {"bm_num": 3, "valid": 9, "non_valid": 4},
  "files": [
    {"name": "/home/mca/deploy", "number": 500, "max_size": 4, "store": "afs", "id": 500, "flash": "1"},
    {"name": "/home/fan/speed", "number": 501, "max_size": 8, "store": "afs", "id": 501, "base": "12", "override": "14", "flash": true},
    {"name": "/home/fan/curve", "number": 502, "max_size": 80, "store": "afs", "id": 502, "base": "a b c", "override": "c", "flash": true},
    {"name": "/home/fan/name", "number": 503, "max_size": 20, "store": "afs", "id": 503, "base": "left", "override": "right", "flash": true},
    {"name": "/home/led/color", "number": 504, "max_size": 20, "store": "efs", "id": 4, "efs": {"block": 1}, "base": "red", "override": "blue", "flash": true},
    {"name": "/home/led/power", "number": 505, "max_size": 20, "store": "efs", "id": 5, "efs": {"block": 2}, "base": "on", "flash": true},
    {"name": "/home/led/blink", "number": 506, "max_size": 20, "store": "efs", "id": 6, "efs": {"block": 3}, "base": "no", "flash": true}
  ]})";

// A member of another set is named as such, once, whether set.json has checksums or not, and is
// not held against what is right beside it.
TEST_F(Check, AMemberOfAnotherSetIsTheOneError) {
    write_whole(folder / "other.json", other_board);
    testing::internal::CaptureStdout();
    dolm::build_set({folder / "other.json", folder / "other", false, 1});
    testing::internal::GetCapturedStdout();
    for (const bool has_checksums : {true, false}) {
        if (!has_checksums) {
            take_checksums_away();
        }
        for (const char *member : member_names) {
            SCOPED_TRACE(std::string(member) + (has_checksums ? "" : ", no checksums"));
            const std::vector<Finding> findings =
                check_with(member, read_whole(folder / "other" / member));
            ASSERT_FALSE(findings.empty());
            EXPECT_EQ(findings[0].severity, Finding::Severity::error);
            EXPECT_EQ(findings[0].cause.file, member) << line_of(findings[0]);
            EXPECT_EQ(findings[0].cause.place, "") << line_of(findings[0]);
            for (size_t i = 1; i < findings.size(); ++i) {
                EXPECT_EQ(findings[i].severity, Finding::Severity::note) << line_of(findings[i]);
            }
        }
    }
    write_whole(set / "set.json", read_whole(folder / "other/set.json"));
    EXPECT_EQ(check().front().cause.file, "set.json");
}

// Members of a set that differs from the sample in a few files alone. Image and table could each be
// the stranger if files of EFS lie elsewhere: without checksums the image is it, from two files on;
// with them the table speaks for itself. Two numbers that are no table's, one of them in both
// stores, speak against the table.
TEST_F(Check, AMemberOfASimilarSetIsTheFirstError) {
    const json manifest = json::parse(dolm::sample_manifest_text());
    const auto expect_blame = [&](const char *member, const std::function<void(json &)> &change) {
        json other = manifest;
        std::for_each(other["files"].begin(), other["files"].end(), change);
        write_whole(folder / "other.json", other.dump());
        testing::internal::CaptureStdout();
        dolm::build_set({folder / "other.json", folder / "other", true, 1});
        testing::internal::GetCapturedStdout();
        const std::vector<Finding> findings =
            check_with(member, read_whole(folder / "other" / member));
        ASSERT_FALSE(findings.empty());
        EXPECT_EQ(findings[0].severity, Finding::Severity::error);
        EXPECT_EQ(findings[0].cause.file, member) << line_of(findings[0]);
        EXPECT_TRUE(findings[0].cause.text.starts_with("belongs to another set"))
            << line_of(findings[0]);
    };
    const auto move_places_from = [](uint32_t id) {
        return [=](json &file) {
            if (file.contains("efs") && file["id"] >= id) {
                file["efs"]["offset"] = file["efs"]["offset"].get<uint32_t>() + 20;
            }
        };
    };
    expect_blame("efs.img", move_places_from(7));
    take_checksums_away();
    expect_blame("efs.img", move_places_from(6));
    expect_blame("efs.img", move_places_from(0));
    expect_blame("ftbl.bin", [](json &file) {
        if (file["number"] == 32 || file["number"] == 33) {
            file["number"] = file["number"].get<uint32_t>() + 1000;
        }
    });
}

// A table may list a file that no one has written yet.
TEST_F(Check, APlaceWithoutAFileIsNoError) {
    json manifest = json::parse(dolm::sample_manifest_text());
    std::erase_if(manifest["files"].get_ref<json::array_t &>(),
                  [](const json &file) { return file["number"] == 74; });
    const std::string table = read_whole(set / "ftbl.bin");
    write_whole(folder / "other.json", manifest.dump());
    testing::internal::CaptureStdout();
    dolm::build_set({folder / "other.json", set, true, 1});
    testing::internal::GetCapturedStdout();
    take_checksums_away();
    const std::vector<Finding> findings = check_with("ftbl.bin", table);
    EXPECT_TRUE(std::any_of(findings.begin(), findings.end(), [](const Finding &finding) {
        return finding.cause.text.starts_with("no record was ever written here");
    }));
    for (const Finding &finding : findings) {
        EXPECT_EQ(finding.severity, Finding::Severity::note) << line_of(finding);
    }
}

// One bad header is one finding, and what lies in the unit is named under it.
TEST_F(Check, WhatFollowsFromACauseStandsUnderIt) {
    std::string image = read_whole(set / "qfs.img");
    image[30 * 8192 + 5] = 'x';
    const std::vector<Finding> findings = check_with("qfs.img", image);
    ASSERT_EQ(findings.size(), 1U);
    const auto &consequences = findings[0].consequences;
    ASSERT_GE(consequences.size(), 3U);
    EXPECT_EQ(consequences[0].text.substr(0, 45), "26 files lie in it: /home/mca/deploy, /home/m");
    EXPECT_EQ(consequences.back().text.substr(0, 42), "with SKU 2: error 342 (level 4): Failed to");
    EXPECT_FALSE(findings[0].advice.empty());
}

} // namespace
