// What dolm history finds of earlier contents, through rewrites and damage.
#include <nlohmann/json.hpp>

#include "dolm_process.h"

namespace {

using namespace dolm_process;
using nlohmann::json;

class DolmHistory : public Dolm {
  protected:
    // A set with one file in each store, beside the one that makes it a deployed one.
    void SetUp() override {
        fs::create_directory(folder);
        write_whole(folder / "manifest.json",
                    R"({"skus": [1], "afs": {"size": 65536, "data_units": 4},
            "efs": {"valid": 2, "non_valid": 4}, "files": [
            {"name": "/home/mca/deploy", "number": 1, "max_size": 4, "store": "afs", "id": 1, "flash": "1"},
            {"name": "/home/long", "number": 2, "max_size": 300, "store": "afs", "id": 7,
             "base": {"text": "zero ", "size": 200}, "flash": true},
            {"name": "/home/fixed", "number": 3, "max_size": 5000, "store": "efs", "id": 2,
             "efs": {"block": 0}, "base": {"text": "0", "size": 4500}, "flash": true}]})");
        ASSERT_EQ(run("build manifest.json set").code, 0);
        for (const std::string &value : values) {
            write_whole(folder / "fixed", std::string(4500, value[0]));
            ASSERT_EQ(run("set set long '" + value + "' fixed @fixed").code, 0);
        }
    }

    json history(const std::string &arguments) const {
        const Outcome outcome = run("history " + arguments + " --json");
        EXPECT_EQ(outcome.code, 0) << outcome.err;
        return json::parse(outcome.out)["files"];
    }

    const std::vector<std::string> values{"first", "second, and longer", "third", "fourth"};
};

TEST_F(DolmHistory, GivesOldContentsNewestFirst) {
    const json file = history("set/qfs.img long").at(0);
    EXPECT_EQ(file["state"], "sound");
    EXPECT_EQ(file["current"]["text"], "fourth");
    ASSERT_EQ(file["earlier"].size(), 4U) << file;
    EXPECT_EQ(file["earlier"][0]["text"], "third");
    EXPECT_EQ(file["earlier"][1]["text"], "second, and longer");
    EXPECT_EQ(file["earlier"][2]["text"], "first");
    EXPECT_EQ(file["earlier"][3]["size"], 200);
    const std::string image = read_whole(set / "qfs.img");
    EXPECT_EQ(image.substr(file["earlier"][0]["at"], 5), "third");

    // Four spares for files of two blocks: two contents are left beside the one in force.
    const json fixed = history("set/efs.img 2").at(0);
    EXPECT_EQ(fixed["name"], "/home/fixed");
    EXPECT_EQ(fixed["current"]["text"], std::string(4500, 'f'));
    ASSERT_EQ(fixed["earlier"].size(), 2U);
    EXPECT_EQ(fixed["earlier"][0]["text"], std::string(4500, 't'));
    EXPECT_EQ(fixed["earlier"][1]["text"], std::string(4500, 's'));

    // An image by itself has numbers alone.
    fs::copy(set / "qfs.img", folder / "image");
    EXPECT_EQ(history("image 7").at(0)["earlier"], file["earlier"]);
    EXPECT_EQ(history("image --ftbl set/ftbl.bin --sku 1 'l*'").at(0)["number"], 7);
    EXPECT_EQ(run("history image long").err, "dolm: the image has no trace of long\n");
    EXPECT_EQ(run("history set/ftbl.bin").code, 2);
}

// Both images of a set, which DOLM_SET may name.
TEST_F(DolmHistory, ShowsASetAsItShowsItsImages) {
    const json images = json::parse(run("history set --json").out)["images"];
    ASSERT_EQ(images.size(), 2U);
    EXPECT_EQ(images[0]["file"], "qfs.img");
    EXPECT_EQ(images[0]["files"], history("set/qfs.img"));
    EXPECT_EQ(images[1]["files"], history("set/efs.img"));
    EXPECT_EQ(run("history set 2 'l*'").out, "qfs.img:\n" + run("history set/qfs.img long").out +
                                                 "efs.img:\n" + run("history set/efs.img 2").out);
    EXPECT_EQ(run("history set no").err, "dolm: the images have no trace of no\n");
    setenv("DOLM_SET", set.c_str(), 1);
    const Outcome all = run("history");
    const Outcome named = run("history long");
    const Outcome image = run("history set/qfs.img long");
    unsetenv("DOLM_SET");
    EXPECT_EQ(all.out, run("history set").out);
    EXPECT_EQ(named.out, run("history set long").out);
    EXPECT_EQ(image.out, run("history set/qfs.img long").out);

    write_whole(set / "qfs.img", std::string(65536, '\0'));
    const std::string why = "qfs.img: no header of a file system is left in the AFS image\n";
    const Outcome half = run("history set --json");
    EXPECT_EQ(half.code, 1);
    EXPECT_NE(half.err.find("no header of a file system"), half.err.npos);
    EXPECT_EQ(json::parse(half.out)["images"], json::array({images[1]}));
    EXPECT_EQ(run("history set 2").err, "dolm: " + why);
    EXPECT_EQ(run("history set long").err, "dolm: what can be read has no trace of long\n");
}

TEST_F(DolmHistory, LeavesOutWhatFailsItsChecksum) {
    std::string image = read_whole(set / "qfs.img");
    image[image.find("second, and")] ^= 1;
    image[image.find("fourth")] ^= 1;
    write_whole(set / "qfs.img", image);
    const json file = history("set/qfs.img long").at(0);
    EXPECT_EQ(file["state"], "damaged");
    EXPECT_TRUE(file["current"].is_null());
    ASSERT_EQ(file["earlier"].size(), 3U);
    EXPECT_EQ(file["earlier"][0]["text"], "third");
    EXPECT_EQ(file["earlier"][1]["text"], "first");
}

} // namespace
