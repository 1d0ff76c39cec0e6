// What a manifest may say: whole lists of refusals, each with the place that it names, and the
// limits that are still good.
#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "host/errors.h"
#include "host/json_value.h"
#include "host/manifest.h"
#include "host/tables.h"

namespace dolm {
namespace {

std::string problems_of(const std::string &manifest) {
    try {
        parse_manifest(manifest, "m", {});
        return "";
    } catch (const Failure &failure) {
        return failure.what();
    }
}

TEST(Manifest, RefusesWhatHasNotItsForm) {
    const char *manifest = R"({"skus": [3, 3], "nvars": 1, "files": [
        {"name": "/home/a", "max_size": 1, "bass": "", "base": {"hex": "00", "text": "0"}},
        {"name": "/home/b", "number": "0x10000000", "max_size": -1, "base": {"hex": "0g"}},
        {"name": "/home/c", "number": 3, "max_size": 1, "base": {"text": "", "size": 4},
         "attributes": 64, "trailer": 40},
        {"name": "/home/d", "number": 4, "max_size": 1, "base": {"file": "no/such/file"},
         "store": "efs", "id": 1}]})";
    const char *problems = R"(m: /skus: SKU 3 stands twice
m: /files/0: 'number' is missing (/home/a)
m: /files/0/base: one of 'text', 'hex', 'base64', 'file' and a number like 'u32' is needed here (/home/a)
m: /files/0/bass: unknown member (/home/a)
m: /files/1/number: a whole number from 0 to 268435455 is needed here (/home/b)
m: /files/1/base/hex: not hexadecimal: two digits make a byte (/home/b)
m: /files/1/max_size: a whole number from 0 to 4294967295 is needed here (/home/b)
m: /files/2/trailer: 0, 40 or 56 is needed here, in agreement with 'attributes' (/home/c)
m: /files/2/base/size: an empty content cannot be repeated (/home/c)
m: /files/3/base/file: cannot read no/such/file: No such file or directory (/home/d)
m: /nvars: unknown member)";
    EXPECT_EQ(problems_of(manifest), problems);
}

TEST(Manifest, RefusesWhatDoesNotFitTogether) {
    const char *manifest = R"({"skus": [1, 2, 3, 4, 5, 6, 7, 8, 9, 10], "default_sku": 12,
        "afs": {"size": 65536, "data_units": 4}, "efs": {"files_num": 16}, "files": [
        {"name": "/home/a", "number": 1, "max_size": 4, "base": "abcd", "skus": [12, 1]},
        {"name": "/home/a", "number": 1, "max_size": 4, "override": "abcde"},
        {"name": "/home/this_name_is_one_byte_longer_than_the_table", "number": 0, "max_size": 1},
        {"name": "/etc/a", "number": 3, "max_size": 1, "base": "", "trailer": 40},
        {"name": "/home/4", "number": 4, "max_size": 70000, "trailer": 40,
         "base": {"text": "x", "size": 65524}},
        {"name": "/home/5", "number": 5, "max_size": 4, "flash": "a"},
        {"name": "/home/6", "number": 6, "max_size": 4, "store": "afs", "id": 0},
        {"name": "/home/7", "number": 7, "max_size": 65000, "store": "afs", "id": 1024,
         "flash": {"text": "x", "size": 31169}},
        {"name": "/home/8", "number": 8, "max_size": 97,
         "store": "efs", "id": 8, "efs": {"block": 0}},
        {"name": "/home/9", "number": 9, "max_size": 4,
         "store": "efs", "id": 8, "efs": {"block": 0, "offset": 100}},
        {"name": "/home/10", "number": 10, "max_size": 4073,
         "store": "efs", "id": 10, "efs": {"block": 6, "offset": 0}},
        {"name": "/home/11", "number": 11, "max_size": 12213,
         "store": "efs", "id": 11, "efs": {"block": 4}},
        {"name": "/home/12", "number": 12, "max_size": 9,
         "store": "efs", "id": 12, "efs": {"block": 1, "max_size": 8}},
        {"name": "/home/13", "number": 13, "max_size": 8, "trailer": 40, "flash": "abc",
         "store": "efs", "id": 16, "efs": {"block": 2, "max_size": 40}},
        {"name": "/home/mca/deploy", "number": 14, "max_size": 4,
         "store": "afs", "id": 9, "flash": "1"}]})";
    const char *problems = R"(m: /default_sku: not one of the SKUs in /skus
m: /files/0/skus: SKU 12 is not one of those in /skus (/home/a)
m: /files/1: the name "/home/a" is taken by "/home/a" at /files/0 (/home/a)
m: /files/1: the file number 1 is taken by "/home/a" at /files/0 (/home/a)
m: /files/9: the id 8 is taken by "/home/8" at /files/8 (/home/9)
m: /files/1/override: the value has 5 bytes, over the limit of 4 bytes (/home/a)
m: /files/2/name: "/home/this_name_is_one_byte_longer_than_the_table" has 49 bytes, at most 48 fit (/home/this_name_is_one_byte_longer_than_the_table)
m: /files/2/number: number 0 with class 0 names no file (/home/this_name_is_one_byte_longer_than_the_table)
m: /files/3/name: "/etc/a" could not be looked up: names of NVARs begin with /home/ (/etc/a)
m: /files/4/base: the value has 65524 bytes, over the limit of 65523 bytes (/home/4)
m: /afs/data_units: the files take 489 chunks of 64 bytes, there are 488
m: /files/9/efs: in logical block 0 its record overlaps that of "/home/8", which may reach to offset 101 (/home/9)
m: /files/11/efs: in logical block 6 its record overlaps that of "/home/10", which may reach to offset 4076 (/home/11)
m: /files/10/efs: the file runs to logical block 7, the last is 6 (/home/10)
m: /files/11/efs: a write of 12213 bytes needs 4 spare blocks, there are 3 (/home/11)
m: /files/13/id: EFS has 16 file slots, the last is 15 (/home/13)
m: /files/13/flash: the content has 43 bytes with its trailer, over the limit of 40 bytes (/home/13)
m: /files/5/flash: a file without a store has none (/home/5)
m: /files/6/id: file 0 of AFS cannot be used: it reads as no file (/home/6)
m: /files/7/id: AFS has 1024 file slots, the last is 1023 (/home/7)
m: /files/12/efs/max_size: less than the file's own limit of 9 bytes, so that a good value could not be written (/home/12)
m: /files/0: not in flash and without a trailer: as the set has "/home/mca/deploy", every termination would fail over it (/home/a))";
    EXPECT_EQ(problems_of(manifest), problems);
}

TEST(Manifest, RefusesWhatStandsAloneInTheWay) {
    const std::pair<const char *, const char *> cases[] = {
        {"{", "m: parse error at line 1"},
        {R"({"skus": [1], "skus": [2], "files": []})", "'skus' stands twice"},
        {R"({"skus": [], "files": []})", "m: /skus: at least one SKU"},
        {R"({"skus": [1]})", "m: /files: an array of files"},
        {R"({"skus": [1], "files": [], "afs": {"size": 65536, "data_units": 6}})", "m: /afs: 6"},
        {R"({"skus": [1], "files": [], "efs": {"valid": 200, "non_valid": 57}})", "2 to 256"},
        {R"({"skus": [1], "files": [{"name": "/home/a", "number": 1, "max_size": 4,
             "store": "afs", "id": 1, "flash": "a"}]})",
         "m: /files/0/flash: the manifest has no 'afs'"},
        {R"({"skus": [1], "files": [{"name": "/home/a", "number": 1, "max_size": 4,
             "store": "efs", "id": 1}]})",
         "m: /files/0: 'efs' is missing, the file's place in EFS"},
        {R"({"skus": [1], "as_found": true, "efs": {}, "files": [
             {"name": "/home/a", "number": 1, "max_size": 4073, "flash": {"hex": "00", "size": 4072},
              "store": "efs", "id": 1, "efs": {"block": 6}},
             {"name": "/home/b", "number": 2, "max_size": 4073, "flash": {"hex": "00", "size": 4073},
              "store": "efs", "id": 2, "efs": {"block": 6}}]})",
         "m: /files/1/efs: the file runs to logical block 7"},
    };
    for (const auto &[manifest, message] : cases) {
        const std::string problems = problems_of(manifest);
        EXPECT_NE(problems.find(message), std::string::npos) << message << ", got " << problems;
        EXPECT_EQ(problems.find("/files/0/efs"), std::string::npos) << "which can be built";
    }
}

// What would take far more memory or time than its text is refused while it is read.
TEST(Manifest, RefusesWhatIsTooMuchAtItsFirstItemTooMany) {
    const auto repeated = [](const char *item, size_t count) {
        std::string text;
        for (size_t i = 0; i < count; ++i) {
            text += item;
        }
        return text;
    };
    std::string large_values;
    for (int i = 1; i <= 1100; ++i) {
        const std::string number = std::to_string(i);
        large_values += (i == 1 ? R"({"name": "/home/)" : R"(, {"name": "/home/)") + number +
                        R"(", "number": )" + number +
                        R"(, "max_size": 65523, "base": {"hex": "00", "size": 65523}})";
    }
    const std::pair<std::string, const char *> cases[] = {
        {R"({"skus": [)" + repeated("[", 50000), "m: /skus/0/0/0"},
        {R"({"skus": [1], "files": [)" + repeated("{\"comment\": [", 63), "nested more than 64"},
        {R"({"skus": [)" + repeated("1,", 200000), "m: /skus: at most 10 SKUs fit"},
        {R"({"files": [{"skus": [)" + repeated("1,", 11), "m: /files/0/skus: at most 10 SKUs"},
        {R"({"files": [)" + repeated("1,", 65537), "m: /files: at most 65536 files fit"},
        {R"({"comment": [)" + repeated("1,", 11), "m: /comment: at most 10 items fit"},
        {"{\"" + std::string(257, 'a'), "m: parse error"},
        {"{\"" + std::string(257, 'a') + "\": 1}", ": a name of 257 bytes; at most 256 fit"},
        {R"({"description": ")" + std::string((1 << 20) + 1, 'a') + "\"}",
         "m: /description: a text"},
        {R"({"skus": [1], "files": [)" + large_values + "]}",
         "m: /files: the 'base' values take 72088500 bytes together, over the limit of 67108864"},
        {R"({"skus": [1], "files": [)" + repeated("{},", 400) + "1]}", "m: and 202 more problems"},
    };
    for (const auto &[manifest, message] : cases) {
        const std::string problems = problems_of(manifest);
        EXPECT_NE(problems.find(message), std::string::npos) << message << ", got " << problems;
    }
}

TEST(Manifest, TakesValuesInEachForm) {
    const std::pair<const char *, Bytes> cases[] = {
        {R"("a\u00e9")", {'a', 0xC3, 0xA9}},
        {R"({"base64": "AP8="})", {0x00, 0xFF}},
        {R"({"base64": "+/+/", "size": 4})", {0xFB, 0xFF, 0xBF, 0xFB}},
        {R"({"u8": [0, 255]})", {0, 255}},
        {R"({"u16": ["0x1234", 1]})", {0x34, 0x12, 1, 0}},
        {R"({"u32be": 258})", {0, 0, 1, 2}},
        {R"({"u64": 18446744073709551615})", Bytes(8, 0xFF)},
        {R"({"i8": [-128, 127, "-1"]})", {0x80, 0x7F, 0xFF}},
        {R"({"i16be": "-0x8000"})", {0x80, 0x00}},
        {R"({"i64": [-9223372036854775808, "-9223372036854775808"], "size": 16})",
         {0, 0, 0, 0, 0, 0, 0, 0x80, 0, 0, 0, 0, 0, 0, 0, 0x80}},
        {R"({"u32": []})", {}},
    };
    for (const auto &[value, bytes] : cases) {
        Problems problems;
        const auto content = ValueReader("", problems).read(nlohmann::json::parse(value), "");
        ASSERT_TRUE(content && problems.empty()) << value;
        EXPECT_EQ(content->bytes(), bytes) << value;
    }
    const char *refused[] = {
        R"({"u8": 256})",        R"({"u8": -1})",          R"({"u16": 1.5})",
        R"({"i8": 128})",        R"({"i8": "-129"})",      R"({"i64": 9223372036854775808})",
        R"({"u8": [1, true]})",  R"({"u16": ""})",         R"({"u64": "0x1ffffffffffffffff"})",
        R"({"base64": "AP8"})",  R"({"base64": "A==="})",  R"({"base64": "AP8=AP8="})",
        R"({"base64": "A P8"})", R"({"u8": 1, "u16": 1})", R"(["u8", 1])",
    };
    for (const char *value : refused) {
        Problems problems;
        EXPECT_FALSE(ValueReader("", problems).read(nlohmann::json::parse(value), "")) << value;
        EXPECT_FALSE(problems.empty()) << value;
    }
}

TEST(Manifest, AcceptsWhatIsJustWithinTheLimits) {
    const Manifest manifest = parse_manifest(
        R"({"skus": [1],
        "afs": {"size": 65536, "data_units": 4}, "efs": {"places": [{"id": 17, "block": 6, "offset": 0, "max_size": 4}]}, "files": [
        {"name": "/home/this_name_is_as_long_as_the_table_can_have", "number": "0x0FFFFFFF", "class": 15,
         "max_size": 65523, "base": {"hex": "01 02", "size": 65523}},
        {"name": "/home/a", "number": 1, "max_size": 96,
         "store": "efs", "id": 16, "efs": {"block": 0, "offset": 0}},
        {"name": "/home/b", "number": 2, "max_size": 12112,
         "store": "efs", "id": 2, "efs": {"block": 0, "offset": 100}},
        {"name": "/home/c", "number": 3, "max_size": 31232,
         "store": "afs", "id": 1023, "flash": {"text": "x", "size": 31232}}]})",
        "m", {});
    EXPECT_EQ(manifest.files[0].number, 0xFFFFFFFF);
    EXPECT_EQ(manifest.files[0].base->bytes().back(), 1);
    EXPECT_EQ(make_orvel_cfg(manifest).size(), 4u + 12 + 65523);
    EXPECT_EQ(manifest.efs[0].geometry.files_num, 18u) << "of a place without a file";
}

} // namespace
} // namespace dolm
