// What dolm salvage finds in damaged sets: never a wrong value, and whatever is left.
#include <nlohmann/json.hpp>
#include <random>
#include <set>

#include "dolm_process.h"
#include "host/salvage.h"
#include "host/value_text.h"
#include "sample.h"

namespace {

using namespace dolm_process;
using nlohmann::json;

class DolmSalvage : public Dolm {
  protected:
    void SetUp() override {
        Dolm::SetUp();
        ASSERT_EQ(run("set set net/hostname second radio/cal/trim hex:01").code, 0);
        const json list = json::parse(run("list set --json").out);
        for (const json &nvar : list["nvars"]) {
            const std::string name = nvar["name"];
            truth[name] = nvar["hex"];
            for (const char *table : {"base", "override"}) {
                if (!nvar[table].is_null()) {
                    once[name].insert(nvar[table]["hex"].get<std::string>());
                }
            }
        }
        for (const char *image : {"qfs.img", "efs.img"}) {
            const json history = json::parse(run(std::string("history --json set/") + image).out);
            for (const json &file : history["files"]) {
                for (const json &content : file["earlier"]) {
                    once[file["name"]].insert(content["hex"].get<std::string>());
                }
            }
        }
    }

    // Salvages the set with a member changed; by name.
    std::map<std::string, json> salvage(const std::string &member, const std::string &content) {
        fs::remove_all(folder / "damaged");
        fs::copy(set, folder / "damaged");
        write_whole(folder / "damaged" / member, content);
        const Outcome outcome = run("salvage damaged rescued --replace --json");
        EXPECT_LE(outcome.code, 1) << outcome.err;
        std::map<std::string, json> values;
        told = json::parse(outcome.out, nullptr, false);
        for (const json &value : told["values"]) {
            values[value["name"]] = value;
        }
        return values;
    }

    void expect_nothing_wrong(const std::map<std::string, json> &values) {
        for (const auto &[name, value] : values) {
            const auto known = truth.find(name);
            if (known == truth.end() || value["state"] == "lost") {
                continue;
            }
            const bool is_true = value["hex"] == known->second;
            EXPECT_TRUE(is_true || (value["state"] == "older" && once[name].contains(value["hex"])))
                << name << value;
        }
    }

    json told; // by the last salvage
    std::map<std::string, std::string> truth;
    std::map<std::string, std::set<std::string>> once; // values of other times and tables
};

TEST_F(DolmSalvage, ASoundSetComesBackAsItIs) {
    EXPECT_EQ(run("salvage set rescued").code, 0);
    EXPECT_EQ(run("build rescued/manifest.json again").code, 0);
    for (const char *table : {"orvel.cfg", "vync.cfg", "ftbl.bin"}) {
        EXPECT_EQ(read_whole(folder / "again" / table), read_whole(set / table)) << table;
    }
    EXPECT_EQ(run("list again --against set").out.find("/home"), std::string::npos);
}

TEST_F(DolmSalvage, FindsWhatIsLeftAndTellsItsState) {
    const std::string qfs = read_whole(set / "qfs.img");
    const std::string efs = read_whole(set / "efs.img");
    const std::string hostname = "/home/net/hostname";

    std::string bad = qfs;
    bad[bad.rfind("second")] ^= 4;
    auto values = salvage("qfs.img", bad);
    EXPECT_EQ(values[hostname]["state"], "older");
    EXPECT_EQ(values[hostname]["text"], "gateway-17");
    EXPECT_EQ(values[hostname]["source"], "flash");
    EXPECT_EQ(values["/home/net/mac"]["state"], "sound");
    EXPECT_EQ(run("build rescued/manifest.json again").code, 0);
    EXPECT_EQ(value("again net/hostname"), "gateway-17\n");

    bad = qfs;
    bad.replace(8 * 8192, 18, 18, '\x11'); // the header of a data unit
    values = salvage("qfs.img", bad);
    EXPECT_EQ(values[hostname]["text"], "second");
    expect_nothing_wrong(values);
    bad = efs;
    bad.replace(0, 16, 16, '\0'); // the header of the block map in force
    values = salvage("efs.img", bad);
    EXPECT_EQ(values["/home/radio/cal/trim"]["hex"], "01");
    EXPECT_EQ(values["/home/radio/cal/trim"]["state"], "older");
    bad = efs;
    constexpr size_t entry_size = 22;
    for (size_t entry = 16; bad.substr(entry, entry_size) != std::string(entry_size, '\xFF');) {
        bad.replace(entry, entry_size, entry_size, '\0'); // which has the checksum of a map
        entry += entry_size;
    }
    expect_nothing_wrong(salvage("efs.img", bad));

    fs::remove(set / "qfs.img");
    values = salvage("ftbl.bin", read_whole(set / "ftbl.bin"));
    EXPECT_EQ(values[hostname]["state"], "older");
    EXPECT_EQ(values[hostname]["source"], "override");
    EXPECT_EQ(values[hostname]["text"], "second");
    EXPECT_EQ(values["/home/radio/cal/trim"]["state"], "sound");
}

// A value of the tables takes the place of a lost one in flash, but not in front of a trailer.
TEST_F(DolmSalvage, FillsOnlyWhatHasNoTrailer) {
    std::string image = read_whole(set / "efs.img");
    for (size_t at = 2 * 4096 + 16; at < image.size(); at += 4096) {
        image.replace(at, 4076, 4076, '\x11');
    }
    salvage("efs.img", image);
    const json manifest = json::parse(read_whole(folder / "rescued/manifest.json"));
    for (const json &file : manifest["files"]) {
        if (file.value("store", "") == "efs" && file.contains("base")) {
            EXPECT_EQ(file.contains("flash"), !file.contains("trailer")) << file;
        }
    }

    std::string table = read_whole(set / "ftbl.bin");
    constexpr size_t max_size_offset = 64;
    const std::string name = "/home/net/hostname";
    for (size_t at = 0; (at = table.find(name, at)) != table.npos; ++at) {
        table[at + max_size_offset] = 2;
    }
    write_whole(set / "set.json", R"({"sku": 1})");
    const auto values = salvage("ftbl.bin", table);
    EXPECT_EQ(values.at(name)["flash"]["state"], "older");
    EXPECT_EQ(values.at(name)["flash"]["text"], "second");
}

TEST_F(DolmSalvage, KeepsAFileWithoutEntryUnderItsNumber) {
    std::string table = read_whole(set / "ftbl.bin");
    for (size_t at = table.find("/home/net/mac_b");
         (at = table.find("/home/net/mac", at)) != table.npos;) {
        table.replace(at, 68, 68, '\0');
    }
    salvage("ftbl.bin", table);
    const json manifest = json::parse(read_whole(folder / "rescued/manifest.json"));
    EXPECT_TRUE(
        std::any_of(manifest["files"].begin(), manifest["files"].end(), [](const json &file) {
            return file.value("store", "") == "afs" && file.value("id", 0) == 34 &&
                   file.contains("skus") && file["skus"].empty() && file.contains("flash");
        }));
    EXPECT_EQ(run("build rescued/manifest.json again").code, 0);
}

TEST_F(DolmSalvage, FindsTheFilesOfEfsWithoutAWayToTheirList) {
    const std::string table = read_whole(set / "ftbl.bin");
    const std::string sweep = truth["/home/radio/cal/sweep"];
    const size_t section = table.find("EFST");
    std::string bad = table;
    bad.replace(section, 16 + 2 * 40, 16 + 2 * 40, '\0');
    auto values = salvage("ftbl.bin", bad);
    EXPECT_EQ(values["/home/radio/cal/sweep"]["flash"]["hex"], sweep);
    EXPECT_EQ(values["/home/radio/cal/sweep"]["flash"]["state"], "sound");
    bad = table;
    bad.replace(section + 16 + 2 * 40 + 2 * 60, 3, "\x0F\0\1", 3); // of the third file
    for (const std::string &lost : {std::string(), std::string(table.size(), '\xFF'), bad}) {
        salvage("ftbl.bin", lost);
        size_t found = 0;
        for (const json &value : told["values"]) {
            const bool is_it = value["store"] == "efs" && value["flash"].is_object() &&
                               value["flash"].value("hex", "") == sweep;
            found += is_it ? 1 : 0;
            EXPECT_TRUE(!is_it || (value["state"] == "older" && value["id"] >= 15)) << value["id"];
        }
        EXPECT_EQ(found, 1U);
        EXPECT_EQ(run("build rescued/manifest.json again --replace").code, 0);
    }
}

// Through the ring of block maps: what the maps no longer tell, the blocks tell themselves.
TEST_F(DolmSalvage, FindsTheFilesOfEfsWithoutTheNewestMaps) {
    constexpr size_t block = 4096;
    constexpr size_t entry_size = 22;
    const auto entry_at = [](size_t index) { return block + 16 + index * entry_size; }; // of BM 1
    std::string image;
    size_t newest = 0;
    for (int i = 10; newest < 25; ++i) {
        ASSERT_LT(i, 60);
        ASSERT_EQ(run("set set radio/cal/trim hex:" + std::to_string(i)).code, 0);
        image = read_whole(set / "efs.img");
        while (image.substr(entry_at(newest + 1), entry_size) != std::string(entry_size, '\xFF')) {
            ++newest;
        }
    }
    const auto sound = salvage("efs.img", image);
    std::map<std::string, std::string> images;
    (images["retired"] = image).replace(block, 16, 16, '\0');
    (images["junk header"] = image).replace(block, 16, 16, '\x5A');
    (images["a gap in the maps"] = image).replace(entry_at(8), entry_size, entry_size, '\xFF');
    (images["no newest BM"] = image).replace(block, block, block, '\xFF');
    (images["no BM"] = image).replace(0, 2 * block, 2 * block, '\0');
    std::string &bare = images["no header at all"] = images["no BM"];
    for (size_t at = 2 * block; at < bare.size(); at += block) {
        bare.replace(at, 16, 16, '\0');
    }
    const size_t first = (2 + size_t{static_cast<uint8_t>(image[entry_at(newest)])}) * block;
    const size_t fifth = (2 + size_t{static_cast<uint8_t>(image[entry_at(newest) + 4])}) * block;
    std::string &swapped = images["two blocks swapped"] = image;
    swapped.replace(first, block, image, fifth, block).replace(fifth, block, image, first, block);
    for (const auto &[what, damaged] : images) {
        SCOPED_TRACE(what);
        for (const auto &[name, value] : salvage("efs.img", damaged)) {
            const json &flash = value["flash"];
            const json &was = sound.at(name)["flash"];
            const bool is_older = flash.is_object() && flash["state"] == "older" &&
                                  what.starts_with("no ") && name == "/home/radio/cal/trim";
            EXPECT_TRUE(flash == was || (flash["hex"] == was["hex"] && flash["state"] == "older") ||
                        is_older)
                << name << flash;
        }
    }
}

// What the lost part of a table may have held is not made up from what stands behind it.
TEST_F(DolmSalvage, DoubtsWhatALostRecordMayHaveReplaced) {
    ASSERT_EQ(run("set set test/scratch changed").code, 0); // not pulled from flash
    auto values = salvage("vync.cfg", read_whole(set / "vync.cfg").substr(0, 100));
    EXPECT_EQ(values["/home/test/scratch"]["state"], "older");
    EXPECT_EQ(values["/home/test/scratch"]["source"], "base");
    values = salvage("orvel.cfg", "");
    EXPECT_EQ(values["/home/test/scratch"]["text"], "changed");
    fs::remove(set / "vync.cfg");
    write_whole(set / "set.json", R"({"sku": 1})");
    values = salvage("orvel.cfg", "");
    EXPECT_EQ(values["/home/test/scratch"]["state"], "lost");
    EXPECT_EQ(values["/home/test/scratch"]["flash"]["text"], "changed");
}

TEST_F(DolmSalvage, CallsNothingSoundThatADamagedFileTableMayHaveMoved) {
    write_whole(set / "set.json", R"({"sku": 1})");
    const std::string table = read_whole(set / "ftbl.bin");
    constexpr size_t id_offset = 58;
    std::string bad = table;
    bad[table.find("/home/net/hostname") + id_offset] = 33; // that of net/mac
    EXPECT_EQ(salvage("ftbl.bin", bad)["/home/net/mac"]["flash"]["state"], "older");
    const size_t second_place = table.find("EFST") + 16 + 2 * 40 + 60;
    size_t in_efs = 0;
    for (size_t moved = 1; moved <= 8; ++moved) {
        SCOPED_TRACE(moved);
        bad = table;
        bad.erase(second_place + 17, moved);
        for (const auto &[name, value] : salvage("ftbl.bin", bad)) {
            const bool is_there = value["store"] == "efs" && value["flash"].is_object();
            in_efs += is_there ? 1 : 0;
            EXPECT_TRUE(!is_there || value["flash"]["state"] != "sound") << name << value;
        }
    }
    EXPECT_NE(in_efs, 0U);
}

// What stands behind a store is no part of its last value, and what moved is not sound.
TEST_F(DolmSalvage, TakesNoBytesForAValueThatAreNotItsOwn) {
    const std::string orvel = read_whole(set / "orvel.cfg");
    const std::string vync = read_whole(set / "vync.cfg");
    const std::string settings = read_whole(set / "set.json");
    for (const bool has_checksums : {true, false}) {
        write_whole(set / "set.json", has_checksums ? settings : R"({"sku": 1})");
        expect_nothing_wrong(salvage("orvel.cfg", orvel + "junk behind the last value"));
        EXPECT_FALSE(told["damages"].empty());
        expect_nothing_wrong(salvage("vync.cfg", vync.substr(0, vync.size() - 1)));
        for (const auto &[name, value] :
             salvage("vync.cfg", std::string(vync).insert(vync.size() - 3, 2, 'x'))) {
            EXPECT_TRUE(value["override"].is_null() || value["override"]["state"] != "sound" ||
                        (has_checksums && value["hex"] == truth[name]))
                << value;
        }
    }
}

// Where its entries, its headers or single bits are gone, the pages of the log tell by themselves
// what they are, and all values are found.
TEST_F(DolmSalvage, ReadsALogWhoseEntriesAreDamaged) {
    const std::string qfs = read_whole(set / "qfs.img");
    constexpr size_t map_at = 18;
    constexpr size_t map_size = 242;
    std::map<std::string, std::string> images;
    (images["no entries"] = qfs).replace(map_at, map_size, map_size, '\0');
    (images["erased entries"] = qfs).replace(map_at, map_size, map_size, '\xFF');
    (images["no header"] = qfs).replace(0, map_at, map_at, '\0');
    (images["no states of chunks"] = qfs).replace(7 * 8192 + map_at, 122, 122, '\xFF');
    for (const int page : {0, 32, 119}) {
        const json told_page =
            json::parse(run("inspect set/qfs.img --json --page " + std::to_string(page)).out);
        std::string &image = images["page " + std::to_string(page)] = qfs;
        image[told_page["at"].get<size_t>() + 40] ^= 8;
    }
    for (const auto &[what, image] : images) {
        SCOPED_TRACE(what);
        const auto values = salvage("qfs.img", image);
        expect_nothing_wrong(values);
        for (const auto &[name, value] : values) {
            const json &flash = value["flash"];
            const bool is_there = name != "/home/radio/thermal_table"; // as is said at start-up
            EXPECT_TRUE(flash.is_null() || flash["state"] != "lost" || !is_there) << name;
        }
    }
    expect_nothing_wrong(salvage("qfs.img", qfs.substr(0, qfs.size() / 2)));
    for (size_t slot = 5; slot < 120; slot += 8) {
        std::string image = qfs;
        image.replace(map_at + 2 * slot, 2, 2, '\xFF');
        SCOPED_TRACE("entry " + std::to_string(slot));
        expect_nothing_wrong(salvage("qfs.img", image));
    }
}

// What the headers of the units tell, the pages and chunks tell as well.
TEST_F(DolmSalvage, FindsTheFilesOfAfsWithoutHeaders) {
    constexpr size_t unit = 8192;
    constexpr size_t header = 18;
    for (const char *name : {"third", "fourth", "fifth"}) {
        ASSERT_EQ(run(std::string("set set net/hostname ") + name).code, 0);
    }
    const std::string qfs = read_whole(set / "qfs.img");
    const auto sound = salvage("qfs.img", qfs);
    std::map<std::string, std::string> images;
    for (const char filler : {'\0', '\xFF', '\x5A'}) {
        std::string &bare = images[std::string("no header, filled with ") + std::to_string(filler)];
        bare = qfs;
        for (size_t at = 0; at < qfs.size(); at += unit) {
            bare.replace(at, header, header, filler);
        }
    }
    images["longer"] = qfs + std::string(unit, '\xFF');
    for (const auto &[what, image] : images) {
        SCOPED_TRACE(what);
        for (const auto &[name, value] : salvage("qfs.img", image)) {
            json was = sound.at(name)["flash"];
            json flash = value["flash"];
            if (what != "longer" && flash.is_object() && was.is_object()) {
                flash = flash.value("hex", "lost");
                was = was["hex"];
            }
            EXPECT_TRUE(flash == was || was.is_null()) << name << flash;
        }
        EXPECT_EQ(told["damages"].size(), what == "longer" ? 1U : 0U);
    }
    const std::string over_log = qfs.substr(15 * unit, unit) + qfs.substr(unit);
    for (const auto &[name, value] : salvage("qfs.img", over_log)) {
        EXPECT_TRUE(value["flash"].is_null() || value["flash"]["state"] != "sound" ||
                    value["store"] == "efs")
            << name;
    }
}

// One damaged place, anywhere: no value is wrong, and no more is lost than stood there.
TEST_F(DolmSalvage, NoDamageMakesAValueWrong) {
    std::mt19937 random(1);
    for (const char *member : {"orvel.cfg", "vync.cfg", "ftbl.bin", "qfs.img", "efs.img"}) {
        const std::string content = read_whole(set / member);
        for (int i = 0; i < dolm_test::sampled(60); ++i) {
            std::string bad = content;
            const size_t at = random() % bad.size();
            const size_t size =
                i % 3 == 0 ? std::min<size_t>(1 + random() % 100, bad.size() - at) : 1;
            for (size_t k = at; k < at + size; ++k) {
                bad[k] = size == 1 ? static_cast<char>(bad[k] ^ (1 << i % 8)) : '\0';
            }
            SCOPED_TRACE(std::string(member) + " at " + std::to_string(at) + ", " +
                         std::to_string(size));
            write_whole(set / member, bad);
            std::vector<dolm::Problem> unreadable;
            const dolm::Salvage found = dolm::salvage_set(
                dolm::SetFolder(set, dolm::SetFolder::Use::read, 1).load_readable(unreadable));
            size_t known = 0;
            for (size_t k = 0; k < found.files.size(); ++k) {
                const std::string &name = found.manifest.files[k].name;
                const dolm::SalvagedPart &value = found.files[k].current;
                if (truth.contains(name) && value.value) {
                    ++known;
                    const std::string hex = dolm::to_hex(*value.value);
                    EXPECT_TRUE(hex == truth[name] ||
                                (value.state == dolm::Found::older && once[name].contains(hex)))
                        << name;
                }
            }
            EXPECT_GE(known + 4, truth.size());
        }
        write_whole(set / member, content);
    }
}

} // namespace
