// Where dolm set takes values from, and what it tells of a change that it does not make.
#include <nlohmann/json.hpp>

#include "dolm_process.h"

namespace {

using namespace dolm_process;
using Json = nlohmann::json;

class DolmSet : public DolmCalls {
  protected:
    void expect_values(const std::string &of, const std::string &expected) const {
        EXPECT_EQ(run("get " + of).out, expected);
    }

    Json json(const std::string &arguments) const {
        return Json::parse(run(arguments + " --json").out, nullptr, false);
    }
};

TEST_F(DolmSet, TakesWhatGetPrintsForSeveralNames) {
    const std::string bytes = "\x01\xff";
    write_whole(folder / "odd.bin", bytes);
    ASSERT_EQ(
        run("set set net/ntp @odd.bin net/dns '' net/gateway 'text:@x' net/hostname 'a=b'").code,
        0);
    const std::string told = run("get set '*'").out;
    ASSERT_EQ(shell("$dolm get set '*' >values.txt; $dolm sample other >/dev/null; "
                    "$dolm set other --from values.txt")
                  .code,
              0);
    expect_values("other '*'", told);
    expect_values("other net/ntp", "hex:01ff\n");
    expect_values("other net/hostname", "a=b\n");
}

TEST_F(DolmSet, TakesLinesAndJsonFromFilesAndStandardInput) {
    const std::string lines = "\xef\xbb\xbf# what follows a # is passed by\n\n  \t\r\n"
                              "  net/ntp= a # b \r\n/home/net/dns=@sub/dns.bin\nnet/mac=hex:0a";
    fs::create_directory(folder / "sub");
    write_whole(folder / "sub/dns.bin", "from a file");
    write_whole(folder / "lines.txt", lines);
    const std::string before = value("set net/gateway");
    ASSERT_EQ(run("set set --from - net/gateway 'x y' <lines.txt").code, 0);
    expect_values("set net/ntp net/dns net/mac net/gateway",
                  "net/ntp= a # b \nnet/dns=from a file\nnet/mac=hex:0a\nnet/gateway=x y\n");

    write_whole(folder / "sub/values.json", R"( {"net/ntp": "gr\u00fc\u00dfe", // a comment
        "net/mac": {"u16be": [1, 2]}, "/home/net/dns": {"file": "dns.bin", "size": 4},
        "radio/cal/trim": {"base64": "AQI="}})");
    ASSERT_EQ(run("set set --unset net/gateway --from sub/values.json --unset net/hostname").code,
              0);
    expect_values("set net/ntp net/mac net/dns radio/cal/trim net/hostname",
                  "net/ntp=gr\u00fc\u00dfe\nnet/mac=hex:00010002\nnet/dns=from\n"
                  "radio/cal/trim=hex:0102\nnet/hostname=device\n");
    expect_values("set net/gateway", run("get set net/gateway --table base").out);
    EXPECT_NE(value("set net/gateway"), "x y\n");
    EXPECT_EQ(run("check set").code, 0);
}

TEST_F(DolmSet, ChangesNothingIfOneValueIsBad) {
    write_whole(folder / "lines.txt", "net/ntp=x\nnothing\nnet/mac=hex:0\nnet/dns=@none\n=x\n");
    write_whole(folder / "long.txt", "net/ntp=x\nnet/mac=1234567\nusb/vendor_id=1234567\n");
    write_whole(folder / "bad.json",
                R"({"net/ntp": "x", "net/a~b": {"hex": "0"}, "n": {"u8": 256}})");
    write_whole(folder / "twice.json", R"({"net/ntp": "x", "/home/net/ntp": "x"})");
    write_whole(folder / "empty.txt", "# nothing\n");
    write_whole(folder / "huge.json", R"({"net/ntp": {"hex": "00", "size": 99999999999}})");
    const Call calls[] = {
        {"set set --from lines.txt", 1,
         "dolm: lines.txt: line 2: not of the form NAME=VALUE\n"
         "dolm: lines.txt: line 3: 'hex:0' is not hexadecimal: two digits make a byte (net/mac)\n"
         "dolm: lines.txt: line 4: cannot read none: No such file or directory (net/dns)\n"
         "dolm: lines.txt: line 5: not of the form NAME=VALUE\n"},
        {"set set --from long.txt", 1,
         "dolm: net/mac: the value has 7 bytes, over the limit of 6\n"
         "dolm: usb/vendor_id: the value has 7 bytes, over the limit of 4\n"},
        {"set set --from bad.json", 1, "bad.json: /net~1a~0b"},
        {"set set --from bad.json", 1, "bad.json: /n/u8: a whole number of 8 bits"},
        {"set set --from twice.json", 2, "net/ntp' is given two values"},
        {"set set --from huge.json", 1, "huge.json: /net~1ntp"},
        {"set set --from empty.txt", 2, "nothing to set"},
        {"set set", 2, "nothing to set"},
        {"set set --from lines.txt.none", 1, "cannot read lines.txt.none"},
        {"set set net/ntp x --unset net/ntp", 2, "'net/ntp' is given two values"},
        {"set set --unset 'net/*'", 2, "is a pattern"},
        {"set set --unset mca/deploy net/ntp x", 1, "mca/deploy: is a file and no NVAR"},
        {"set set net/ntp x --dry-run -o new", 2, "--dry-run"},
    };
    expect_each(calls);
}

TEST_F(DolmSet, DryRunCostsNothingAndTellsWhatTheChangeCosts) {
    const std::string change = "set set net/ntp board --unset radio/cal/trim ";
    const Call calls[] = {
        {"set set net/ntp board --dry-run", 0, "/home/net/ntp: "},
        {"set set net/ntp board --dry-run", 0, " -> \"board\"\n"},
        {"set set net/ntp board --dry-run", 0, " writes of "},
        {"set set net/ntp board --dry-run", 0, "\nnothing was changed\n"},
    };
    expect_each(calls);
    // What prove counts on its own way to the same termination.
    const Json cost = json("set set net/ntp board --dry-run")["cost"];
    const Json proof = json("prove set net/ntp board --states 1");
    for (const char *count : {"writes", "erases", "bytes"}) {
        EXPECT_EQ(cost["afs"][count].get<int>() + cost["efs"][count].get<int>(), proof[count]);
    }
    EXPECT_GT(cost["afs"]["writes"], 0);
    EXPECT_GT(cost["efs"]["writes"], 0);
    // Without flash a change costs nothing there.
    fs::remove(set / "qfs.img");
    fs::remove(set / "efs.img");
    EXPECT_NE(run(change + "--dry-run").out.find("AFS: 0 writes of 0 bytes in all, 0 erases\n"),
              std::string::npos);
}

} // namespace
