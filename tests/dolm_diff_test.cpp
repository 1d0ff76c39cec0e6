// How dolm diff tells two sets apart.
#include "dolm_process.h"

namespace {

using namespace dolm_process;

std::string manifest(const std::string &files, const std::string &sizes) {
    return R"({"skus": [1], "afs": {"size": )" + sizes + R"(, "data_units": 4},
        "efs": {"wear_threshold": 50}, "files": [
        {"name": "/home/mca/mark", "number": 1, "max_size": 8, "store": "afs", "id": 1, )" +
           files + "]}";
}

TEST_F(DolmCalls, DiffOfASetWithItselfIsEmptyAndOfAChangedOneHasTheChanges) {
    ASSERT_EQ(
        run("set set -o new net/hostname board radio/cal/trim hex:0102 net/certificate x").code, 0);
    const Outcome same = run("diff set set");
    EXPECT_EQ(same.code, 0);
    EXPECT_EQ(same.out, "");
    const Outcome changed = run("diff set new");
    EXPECT_EQ(changed.code, 1);
    // A file that is not pulled has been written back with the value of the tables.
    EXPECT_EQ(
        changed.out,
        "~ nvar /home/net/hostname: value \"gateway-17\" -> \"board\"\n"
        "~ nvar /home/radio/cal/trim: value " +
            run("get set radio/cal/trim --hex").out.substr(0, 8) +
            " -> 0102\n~ file /home/test/scratch: content eeeeeeeeeeeeeeeeeeeeeeeeeeeeeeee... "
            "-> \"scratch scratch scratch scratch ...\n");
    const Call calls[] = {
        {"diff set nowhere", 2, "cannot open the folder nowhere"},
        {"diff set", 2, "OTHER is required"},
        {"diff set new --sku 7", 2, "set: the file table has no row for SKU 7"},
    };
    expect_each(calls);
    fs::resize_file(folder / "new/qfs.img", 100000);
    EXPECT_EQ(run("diff set new").code, 2);
}

TEST_F(DolmCalls, DiffTellsEveryKindOfDifference) {
    const std::string long_value(100, 'a');
    write_whole(folder / "a.json", manifest(R"("flash": "1"},
        {"name": "/home/base", "number": 8, "max_size": 8, "base": "x", "override": "o"},
        {"name": "/home/class", "number": 9, "class": 1, "max_size": 8, "base": "c"},
        {"name": "/home/gone", "number": 2, "max_size": 8, "base": "old"},
        {"name": "/home/kept", "number": 3, "max_size": 200, "store": "afs", "id": 3,
         "base": ")" + long_value + R"(", "flash": true},
        {"name": "/home/moved", "number": 4, "max_size": 8, "base": "b", "override": "o"},
        {"name": "/home/raw", "number": 5, "max_size": 60, "store": "efs", "id": 0,
         "efs": {"block": 1, "offset": 0}, "flash": "raw"})",
                                            "131072"));
    write_whole(folder / "b.json", manifest(R"("flash": "2"},
        {"name": "/home/base", "number": 8, "max_size": 8, "base": "y", "override": "o"},
        {"name": "/home/class", "number": 9, "class": 2, "max_size": 8, "base": "c"},
        {"name": "/home/kept", "number": 3, "max_size": 200, "store": "afs", "id": 3,
         "base": ")" + long_value + R"(", "flash": ")" +
                                                long_value + R"(b"},
        {"name": "/home/moved", "number": 6, "max_size": 9, "attributes": 256, "base": "b"},
        {"name": "/home/new", "number": 7, "max_size": 8, "store": "afs", "id": 7, "base": "n"},
        {"name": "/home/raw", "number": 5, "max_size": 60, "store": "efs", "id": 0,
         "efs": {"block": 2, "offset": 0}, "flash": "raw"})",
                                            "139264"));
    ASSERT_EQ(run("build a.json a").code, 0);
    ASSERT_EQ(run("build b.json b").code, 0);
    const Outcome told = run("diff a b");
    EXPECT_EQ(told.code, 1);
    EXPECT_EQ(told.out,
              "~ geometry afs.size: 131072 -> 139264\n"
              "~ geometry efs.place 0: {\"block\":1,\"offset\":0,\"max_size\":60} -> "
              "{\"block\":2,\"offset\":0,\"max_size\":60}\n"
              "~ nvar /home/base: base \"x\" -> \"y\"\n"
              "~ nvar /home/class: class 1 -> 2\n"
              "- nvar /home/gone: \"old\", origin base, attributes 0000\n"
              "~ nvar /home/moved: value \"o\" -> \"b\"; max_size 8 -> 9; attributes 0000 -> 0100; "
              "number 4 -> 6; origin override -> base\n"
              "+ nvar /home/new: \"n\", origin base, attributes 0000\n"
              "~ file /home/kept: content \"" +
                  long_value.substr(0, 32) + "... -> \"" + long_value.substr(0, 32) +
                  "... (from byte 100 on, 100 -> 101 bytes)\n"
                  "~ file /home/mca/mark: content \"1\" -> \"2\"\n");
}

} // namespace
