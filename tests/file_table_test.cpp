#include "efs_tools_utils.h"

#include <gtest/gtest.h>

#include <tuple>

#include "common/little_endian.h"
#include "miniVfs.h"
#include "proof/builders.h"

namespace builders = dolm::proof::builders;

using dolm::Bytes;
using dolm::proof::GuardedBytes;
using namespace builders;

namespace {

auto geometry() {
    return std::tuple(g_efs_bm_num, g_efs_valid_block_num, g_efs_non_valid_block_num,
                      g_efs_files_num, g_efs_wear_leveling_threshold, int{g_efs_layout_id});
}

auto state() {
    return std::tuple(g_table_buf, g_table_num_files, g_dfs_sku, geometry(), EFS_files,
                      int{g_efs_sku_id}, int{g_efs_autogen_data_loaded});
}

uint32_t load(const Bytes &table, uint32_t sku) {
    return load_file_table(table.data(), sku, static_cast<uint32_t>(table.size()));
}

// Two geometry rows; the second names one slot twice.
const FileTable source = {
    .sku_rows = {{0x105, {{"/a", 5}, {"/a", 6}, {std::string(48, 'n'), 5}}}},
    .geometry_rows = {
        Geometry(),
        {0x105, 3, 255, 1, 4, 9, 0x1FE, {{1, 2, 30, 400}, {3, 5, 6, 7}, {1, 0x108, 4072, 9}}}}};
const Bytes good = source.build();

// Ten rows, the last with a set that fills the table to its end.
TEST(FileTableTest, SelectsTheSetOfASkuInTheWorkedLayout) {
    constexpr size_t entry = 1024 - 68;
    Bytes table(1024);
    std::memcpy(table.data(), "FTBL", 4);
    table[12] = 10;
    put32(table, 160, 77);
    put32(table, 164, entry - 68);
    put32(table, 168, 2);
    std::memcpy(&table[entry], "/f4", 3);
    put32(table, entry + 48, 0x80000004);
    put16(table, entry + 52, 0x45);
    put32(table, entry + 64, 104);
    const GuardedBytes guarded(table);
    ASSERT_EQ(load_file_table(guarded.data(), 77, 1024), 0u);
    EXPECT_EQ(reinterpret_cast<uint8_t *>(g_table_buf), guarded.data() + entry - 68);
    EXPECT_EQ(std::pair(g_table_num_files, g_dfs_sku), std::pair(2, 77u));
    fileno_t fileno = 0;
    file_attributes_t attributes = 0;
    uint32_t max_size = 0;
    EXPECT_EQ(get_fileno_by_file_name("/f4", &fileno), 0);
    EXPECT_EQ(get_file_attributes_by_file_name("/f4", &attributes, &max_size), 0);
    EXPECT_EQ(std::tuple(fileno, attributes, max_size), std::tuple(0x80000004u, 0x45, 104u));
    EXPECT_EQ(get_file_attributes_by_file_name("/f", &attributes, &max_size), -1);

    put32(table, 168, 0x80000000);
    EXPECT_EQ(load(table, 77), 0u) << "a negative count makes an empty set";
    EXPECT_EQ(get_file_entry_by_file_name("/f4"), nullptr);
    forget_file_table();
}

TEST(FileTableTest, LookUpsTakeTheFirstMatchAndFailWithoutOne) {
    ASSERT_EQ(load(good, 0x105), 0u);
    const std::string full(48, 'n');
    fileno_t fileno = 0;
    EXPECT_EQ(get_fileno_by_file_name("/a", &fileno), 0);
    EXPECT_EQ(get_file_entry_by_fileno(&fileno), g_table_buf);
    EXPECT_EQ(get_file_entry_by_file_name((full + "tail").c_str()), g_table_buf + 2);
    std::string name(49, 'x');
    EXPECT_EQ(get_file_name_by_fileno(&fileno, name.data()), 0);
    EXPECT_EQ(name, "/a" + std::string(46, '\0') + "x");
    for (const char *absent : {"/", "/ab", "", full.c_str() + 1}) {
        EXPECT_EQ(get_fileno_by_file_name(absent, &fileno), -1) << absent;
    }
    EXPECT_EQ(get_fileno_by_file_name(nullptr, &fileno), -1);
    EXPECT_EQ(get_fileno_by_file_name("/a", nullptr), -1);
    EXPECT_EQ(get_file_name_by_fileno(nullptr, name.data()), -1);
    EXPECT_EQ(fileno, 5u) << "a miss leaves the result alone";
}

// However many there are, whatever becomes of the index that finds them.
TEST(FileTableTest, OfManyRowsOfEachNameAndNumberTheFirstIsFound) {
    FileTable many{.sku_rows = {{1, {}}}, .geometry_rows = {}};
    for (uint32_t i = 0; i < 3000; ++i) {
        many.sku_rows[0].entries.push_back({"/" + std::to_string(i / 3), i / 3});
    }
    const Bytes table = many.build();
    ASSERT_EQ(load(table, 1), 0u);
    for (fileno_t number = 0; number < 1000; ++number) {
        const file_table_entry_t *const first = g_table_buf + 3 * number;
        ASSERT_EQ(get_file_entry_by_fileno(&number), first);
        ASSERT_EQ(get_file_entry_by_file_name(("/" + std::to_string(number)).c_str()), first);
    }
    forget_file_table();
}

// A good table with one u32 changed, cut to a length. Whatever the result of the load, it changes
// nothing.
TEST(FileTableTest, IllFormedTablesChangeNothing) {
    const auto table = load_file_table;
    const auto section = load_autogen_data;
    const auto at = static_cast<uint32_t>(source.section_at());
    const auto row = static_cast<uint32_t>(source.geometry_at(1));
    const uint32_t records = dolm::load_le32(&good[row + 4]);
    const auto whole = static_cast<uint32_t>(good.size());
    const struct {
        const char *what;
        decltype(load_file_table) *load;
        uint32_t changed;
        uint32_t value;
        uint32_t length;
        uint32_t result = 1;
    } cases[] = {
        {"magic", table, 0, 0x4C425447, whole},
        {"too short", table, 16, 0x105, 1023},
        {"eleven rows", table, 12, 11, whole},
        {"no rows", table, 12, 0, whole, 0},
        {"last entry cut by a byte", table, 20, whole - 3 * 68 + 1, whole},
        {"entries that wrap", table, 24, 0x7FFFFFFF, whole},
        {"no table head", section, 8, 0, 15},
        {"section behind the end", section, 12, 64, whole},
        {"section that wraps", section, 12, 0xFFFFFFFF, whole},
        {"another magic: no section", section, at, 0x54534646, whole, 0},
        {"magic cut: no section", section, 8, 0, at + 3, 0},
        {"section cut", section, 8, 0, at + 15},
        {"rows cut", section, 8, 0, row + 39},
        {"rows that wrap", section, at + 12, 0xFFFFFFFF, whole},
        {"records cut", section, 8, 0, records + 3 * 60 - 1},
        {"records that wrap", section, row + 8, 0x80000000, whole},
        {"record bytes", section, row + 12, 181, whole},
        {"block maps", section, row + 16, 256, whole},
        {"one block", section, row + 20, 0, whole},
        {"257 blocks", section, row + 24, 2, whole},
        {"no files", section, row + 28, 0, whole},
        {"more files than slots have numbers", section, row + 28, 65537, whole},
        {"slot 3 of 3", section, row + 28, 3, whole},
    };
    ASSERT_EQ(load(good, 0x105), 0u);
    const auto before = state();
    for (const auto &c : cases) {
        Bytes bytes = good;
        put32(bytes, c.changed, c.value);
        bytes.resize(c.length);
        const GuardedBytes guarded(bytes);
        EXPECT_EQ(c.load(guarded.data(), 0x105, c.length), c.result) << c.what;
        EXPECT_EQ(state(), before) << c.what;
    }
}

TEST(FileTableTest, LoadsTheEfsGeometryAndFileList) {
    for (int round = 0; round < 2; ++round) { // the second load releases the first list
        ASSERT_EQ(load(good, 0x105), 0u);
        EXPECT_EQ(geometry(), std::tuple(3u, 255u, 1u, 4u, 9u, 0xFE));
        EXPECT_EQ(g_efs_sku_id, 5);
        const auto slot = [](uint32_t file) {
            const EFS_file_entry &entry = EFS_files[file];
            // Converted first: the record is packed, and its fields cannot be referred to.
            return std::tuple(int{entry.block}, int{entry.offset}, int{entry.max_size},
                              int{entry.present}, int{entry.reserved});
        };
        for (const uint32_t empty : {0u, 2u}) {
            EXPECT_EQ(slot(empty), std::tuple(0, 0, 0, 0, 0));
        }
        EXPECT_EQ(slot(1), std::tuple(8, 0x0FE8, 9, 1, 0));
        EXPECT_EQ(slot(3), std::tuple(5, 6, 7, 1, 0));
    }
    Bytes many = good;
    put32(many, source.geometry_at(1) + 28, 65536);
    EXPECT_EQ(load(many, 0x105), 0u);
    ASSERT_EQ(load(good, 0x105), 0u);
    // Records that start behind the end, not those that reach over it, leave the counts. A list too
    // short for them has to go.
    const size_t row = source.geometry_at(1);
    const auto whole = static_cast<uint32_t>(good.size());
    Bytes distant = good;
    for (const auto &[records, slots, stored] :
         {std::tuple(whole, 2u, 4u), {whole + 1, 2, 2}, {whole + 1, 5, 5}}) {
        put32(distant, row + 4, records);
        put32(distant, row + 28, slots);
        EXPECT_EQ(load(distant, 0x105), 1u);
        EXPECT_EQ(geometry(), std::tuple(3u, 255u, 1u, stored, 9u, 0xFE));
        EXPECT_EQ(EFS_files != nullptr, slots == 2);
        EXPECT_EQ(g_efs_autogen_data_loaded, slots == 2);
    }
    forget_file_table();
}

// The class of the number, the store (but for AFS, which is 1 here and 0 there) and 11 bits of the
// identifier.
TEST(FileTableTest, PathsBecomeFileNumbers) {
    const Bytes table = FileTable{
        .sku_rows = {{1,
                      {{"/afs", 0x80000004, 0, 0, 0xF855, 1},
                       {"/efs", 7, 0, 0, 2, 2},
                       {"/other", 0x50000000, 0, 0, 0, 3}}}},
        .geometry_rows = {}}.build();
    ASSERT_EQ(load(table, 1), 0u);
    for (const auto &[path, expected] :
         {std::pair("/afs", 0x80000055U), {"/efs", 0x1002}, {"/other", 0x50001800}}) {
        uint32_t number = 0;
        EXPECT_EQ(pathToFileNumber(path, &number), 0u);
        EXPECT_EQ(number, expected) << path;
    }
    forget_file_table();
}

// What was found before does not hide what the rows say now, nor a table of the host's own.
TEST(FileTableTest, LookUpsFollowTheRows) {
    Bytes table = FileTable{.sku_rows = {{1, {{"/a", 1}, {"/b", 2}, {"/b", 2}, {"/c", 3}}}},
                            .geometry_rows = {}}
                      .build();
    ASSERT_EQ(load(table, 1), 0u);
    const auto row_of = [](const char *name, fileno_t fileno) {
        const file_table_entry_t *by_name = get_file_entry_by_file_name(name);
        const file_table_entry_t *by_number = get_file_entry_by_fileno(&fileno);
        EXPECT_EQ(by_name, by_number);
        return by_name == nullptr ? -1 : by_name - g_table_buf;
    };
    EXPECT_EQ(row_of("/b", 2), 1);
    auto *rows = reinterpret_cast<uint8_t *>(g_table_buf);
    rows[68 + 1] = 'x';
    rows[68 + 48] = 9;
    EXPECT_EQ(row_of("/b", 2), 2);
    EXPECT_EQ(row_of("/x", 9), 1);
    EXPECT_EQ(row_of("/y", 8), -1);

    Bytes own(2 * 68);
    own[68] = 'z';
    put32(own, 68 + 48, 7);
    g_table_buf = reinterpret_cast<file_table_entry_t *>(own.data());
    g_table_num_files = 2;
    EXPECT_EQ(row_of("z", 7), 1);
    EXPECT_EQ(row_of("/c", 3), -1);
    g_table_num_files = 1;
    EXPECT_EQ(row_of("z", 7), -1);
    forget_file_table();
}

} // namespace
