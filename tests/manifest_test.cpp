// What a manifest may say: every refusal with the place that it names, and the tables that a good
// manifest makes, read back by the library.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <string>

#include "efs_tools_utils.h"
#include "host/errors.h"
#include "host/manifest.h"
#include "host/tables.h"

namespace dolm {
namespace {

// A manifest with these files and further top-level members.
std::string manifest_with(const std::string &files, const std::string &more = "") {
    return R"({"skus": [1, 2], )" + more + R"("files": [)" + files + "]}";
}

constexpr const char *stores = R"("afs": {"size": 65536, "data_units": 4}, "efs": {}, )";

std::string efs_file(const std::string &name, int number, const std::string &place,
                     const std::string &more = "") {
    const std::string n = std::to_string(number);
    return R"({"name": "/home/)" + name + R"(", "number": )" + n + R"(, "store": "efs", "id": )" +
           n + R"(, "efs": )" + place + more + "}";
}

struct Refusal {
    const char *what;
    std::string manifest;
    const char *message; // part of it
};

class ManifestRefusals : public testing::TestWithParam<Refusal> {};

TEST_P(ManifestRefusals, NameThePlaceAndTheReason) {
    try {
        parse_manifest(GetParam().manifest, "m", {});
        FAIL() << "accepted";
    } catch (const Failure &failure) {
        EXPECT_NE(std::strstr(failure.what(), GetParam().message), nullptr) << failure.what();
    }
}

const std::string good_a = R"({"name": "/home/a", "number": 1, "max_size": 4, "base": "abcd"})";
const std::string deployed =
    R"({"name": "/home/mca/deploy", "number": 99, "max_size": 4, "store": "afs", "id": 9,
        "flash": "1"}, )";

INSTANTIATE_TEST_SUITE_P(
    Manifest, ManifestRefusals,
    testing::ValuesIn(std::vector<Refusal>{
        {"no JSON", "{", "parse error at line 1"},
        {"a member twice", R"({"skus": [1], "skus": [2], "files": []})", "'skus' stands twice"},
        {"no SKU", R"({"skus": [], "files": []})", "m: /skus: at least one SKU"},
        {"SKU twice", R"({"skus": [3, 3], "files": []})", "/skus: SKU 3 stands twice"},
        {"11 SKUs", R"({"skus": [1,2,3,4,5,6,7,8,9,10,11], "files": []})", "at most 10 SKUs"},
        {"default SKU", manifest_with("", R"("default_sku": 7, )"), "/default_sku: not one"},
        {"unknown top member", manifest_with("", R"("nvars": 1, )"), "/nvars: unknown member"},
        {"unknown file member", manifest_with(good_a + R"(, {"name": "/home/b", "number": 2,
            "max_size": 1, "bass": ""})"),
         "/files/1/bass: unknown member"},
        {"no number", manifest_with(R"({"name": "/home/a", "max_size": 1})"),
         "/files/0: 'number' is missing"},
        {"number out of range", manifest_with(R"({"name": "/home/a", "number": "0x10000000",
            "max_size": 1})"),
         "/files/0/number: a whole number from 0 to 268435455"},
        {"negative number", manifest_with(R"({"name": "/home/a", "number": -1, "max_size": 1})"),
         "/files/0/number: a whole number"},
        {"number 0", manifest_with(R"({"name": "/home/a", "number": 0, "max_size": 1})"),
         "/files/0/number: number 0"},
        {"name twice", manifest_with(good_a + R"(, {"name": "/home/a", "number": 2,
            "max_size": 1})"),
         "/files/1: the name \"/home/a\" is taken by"},
        {"number twice", manifest_with(good_a + R"(, {"name": "/home/b", "number": 1,
            "max_size": 1})"),
         "/files/1: the file number 1 is taken by \"/home/a\" at /files/0"},
        {"id twice",
         manifest_with(efs_file("a", 1, R"({"block": 0, "max_size": 9})", R"(, "max_size": 9)") +
                           R"(, {"name": "/home/b", "number": 2, "max_size": 9,
            "store": "efs", "id": 1, "efs": {"block": 1}})",
                       stores),
         "/files/1: the id 1 is taken"},
        {"name of 49 bytes",
         manifest_with(R"({"name": "/home/)" + std::string(43, 'x') +
                       R"(", "number": 1, "max_size": 1})"),
         "/files/0/name: "},
        {"name without /home/", manifest_with(R"({"name": "/etc/a", "number": 1, "max_size": 1,
            "base": ""})"),
         "begin with /home/"},
        {"value over its limit", manifest_with(R"({"name": "/home/a", "number": 1, "max_size": 4,
            "override": "abcde"})"),
         "/files/0/override: the value has 5 bytes, over the limit of 4"},
        {"value over any limit", manifest_with(R"({"name": "/home/a", "number": 1,
            "max_size": 70000, "base": {"text": "x", "size": 65524}})"),
         "/files/0/base: the value has 65524 bytes, over the limit of 65523"},
        {"bad hexadecimal", manifest_with(R"({"name": "/home/a", "number": 1, "max_size": 4,
            "base": {"hex": "0g"}})"),
         "/files/0/base/hex: not hexadecimal"},
        {"two contents", manifest_with(R"({"name": "/home/a", "number": 1, "max_size": 4,
            "base": {"hex": "00", "text": "0"}})"),
         "/files/0/base: one of 'text', 'hex'"},
        {"nothing to repeat", manifest_with(R"({"name": "/home/a", "number": 1, "max_size": 4,
            "base": {"text": "", "size": 4}})"),
         "/files/0/base/size: an empty content"},
        {"missing value file", manifest_with(R"({"name": "/home/a", "number": 1, "max_size": 4,
            "base": {"file": "no/such/file"}})"),
         "/files/0/base/file: cannot read"},
        {"trailer against attributes", manifest_with(R"({"name": "/home/a", "number": 1,
            "max_size": 4, "trailer": 40, "attributes": 64})"),
         "/files/0/trailer: 0, 40 or 56"},
        {"flash without store", manifest_with(R"({"name": "/home/a", "number": 1, "max_size": 4,
            "flash": "a"})"),
         "/files/0/flash: a file without a store"},
        {"flash without section", manifest_with(R"({"name": "/home/a", "number": 1, "max_size": 4,
            "store": "afs", "id": 1, "flash": "a"})"),
         "/files/0/flash: the manifest has no 'afs'"},
        {"AFS file 0",
         manifest_with(R"({"name": "/home/a", "number": 1, "max_size": 4,
            "store": "afs", "id": 0})",
                       stores),
         "/files/0/id: file 0 of AFS"},
        {"AFS id past the slots",
         manifest_with(R"({"name": "/home/a", "number": 1, "max_size": 4,
            "store": "afs", "id": 1024})",
                       stores),
         "/files/0/id: AFS has 1024 file slots"},
        {"AFS without room for its log",
         manifest_with("", R"("afs": {"size": 65536, "data_units": 6}, )"),
         "/afs: 6 data EUs and 1024 files have"},
        {"AFS contents without room",
         manifest_with(R"({"name": "/home/a", "number": 1, "max_size": 65000,
            "store": "afs", "id": 1, "flash": {"text": "x", "size": 31233}})",
                       stores),
         "/afs/data_units: the files take 489 chunks of 64 bytes, there are 488"},
        {"EFS id past the slots",
         manifest_with(efs_file("a", 8, R"({"block": 0})", R"(, "max_size": 1)"),
                       R"("efs": {"files_num": 8}, )"),
         "/files/0/id: EFS has 8 file slots"},
        {"EFS blocks", manifest_with("", R"("efs": {"valid": 200, "non_valid": 57}, )"),
         "/efs: valid and non_valid together make 2 to 256"},
        {"EFS overlap",
         manifest_with(efs_file("a", 1, R"({"block": 0, "offset": 0})", R"(, "max_size": 97)") +
                           ", " +
                           efs_file("b", 2, R"({"block": 0, "offset": 100})", R"(, "max_size": 4)"),
                       stores),
         "/files/1/efs: in logical block 0 its record overlaps that of \"/home/a\""},
        {"EFS overlap by a continuation",
         manifest_with(efs_file("a", 1, R"({"block": 0, "offset": 4000})", R"(, "max_size": 80)") +
                           ", " +
                           efs_file("b", 2, R"({"block": 1, "offset": 8})", R"(, "max_size": 4)"),
                       stores),
         "/files/1/efs: in logical block 1 its record overlaps"},
        {"EFS past the last block",
         manifest_with(efs_file("a", 1, R"({"block": 6, "offset": 0})", R"(, "max_size": 4073)"),
                       stores),
         "/files/0/efs: the file runs to logical block 7"},
        {"EFS more blocks than spares",
         manifest_with(efs_file("a", 1, R"({"block": 0})", R"(, "max_size": 12213)"), stores),
         "needs 4 spare blocks, there are 3"},
        {"EFS place too small",
         manifest_with(efs_file("a", 1, R"({"block": 0, "max_size": 8})", R"(, "max_size": 9)"),
                       stores),
         "/files/0/efs/max_size: less than"},
        {"EFS content over its place",
         manifest_with(efs_file("a", 1, R"({"block": 0, "max_size": 40})",
                                R"(, "max_size": 8, "trailer": 40, "flash": "abc")"),
                       stores),
         "/files/0/flash: the content has 43 bytes with its trailer"},
        {"not deployed and not passed by", manifest_with(deployed + good_a, stores),
         "/files/1: not in flash and without a trailer"},
    }),
    [](const auto &test) {
        std::string name = test.param.what;
        std::replace_if(
            name.begin(), name.end(), [](char c) { return std::isalnum(c) == 0; }, '_');
        return name;
    });

TEST(Manifest, AcceptsWhatIsJustWithinTheLimits) {
    const Manifest manifest = parse_manifest(
        manifest_with(
            R"({"name": "/home/)" + std::string(42, 'x') +
                R"(", "number": "0x0FFFFFFF", "class": 15, "max_size": 65523,
                          "base": {"hex": "01 02", "size": 65523}}, )" +
                efs_file("a", 1, R"({"block": 0, "offset": 0})", R"(, "max_size": 96)") + ", " +
                efs_file("b", 2, R"({"block": 0, "offset": 100})", R"(, "max_size": 11000)"),
            stores),
        "m", {});
    EXPECT_EQ(manifest.files[0].number, 0xFFFFFFFF);
    EXPECT_EQ(manifest.files[0].base->size(), 65523u);
    EXPECT_EQ(manifest.files[0].base->back(), 1);
    EXPECT_EQ(make_orvel_cfg(manifest).size(), 4u + 12 + 65523);
}

TEST(Manifest, MakesATableForEachSku) {
    const Manifest sample = parse_manifest(sample_manifest_text(), "sample", {});
    Bytes ftbl = make_ftbl(sample);
    for (const uint32_t sku : sample.skus) {
        ASSERT_EQ(load_file_table(ftbl.data(), sku, static_cast<uint32_t>(ftbl.size())), 0u);
        EXPECT_EQ(g_dfs_sku, sku);
        for (const ManifestFile &file : sample.files) {
            const file_table_entry_t *entry = get_file_entry_by_file_name(file.name.c_str());
            const bool has_it = std::count(file.skus.begin(), file.skus.end(), sku) != 0;
            ASSERT_EQ(entry != nullptr, has_it) << file.name;
            if (entry == nullptr) {
                continue;
            }
            EXPECT_EQ(+entry->fileno, file.number);
            EXPECT_EQ(+entry->attributes, file.attributes);
            EXPECT_EQ(+entry->file_id, file.id);
            EXPECT_EQ(entry->store, static_cast<uint8_t>(file.store));
            EXPECT_EQ(+entry->max_size, file.max_size);
            if (file.store == Store::efs) {
                const EFS_file_entry &slot = EFS_files[file.id];
                EXPECT_TRUE(slot.present == 1 && slot.block == file.efs.block &&
                            slot.offset == file.efs.offset && slot.max_size == file.efs.max_size)
                    << file.name;
            }
        }
    }
    EXPECT_EQ(g_efs_files_num, 16u);
    EXPECT_EQ(g_efs_non_valid_block_num, 3u);
}

} // namespace
} // namespace dolm
