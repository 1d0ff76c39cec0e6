#include "efs_tools_utils.h"

#include <gtest/gtest.h>

#include <tuple>

#include "builders.h"

using namespace builders;

namespace {

uint32_t load(const Bytes &table, uint32_t sku) {
    return load_file_table(table.data(), sku, static_cast<uint32_t>(table.size()));
}

auto geometry() {
    return std::tuple(g_efs_bm_num, g_efs_valid_block_num, g_efs_non_valid_block_num,
                      g_efs_files_num, g_efs_wear_leveling_threshold, int{g_efs_layout_id});
}

auto efs_state() {
    return std::tuple(geometry(), EFS_files, int{g_efs_sku_id}, int{g_efs_autogen_data_loaded});
}

// A good table with one u32 changed and cut to a length.
struct Damage {
    const char *what;
    size_t at;
    uint32_t value;
    size_t length;
    uint32_t result = 1;
};

// Whatever the result of these loads, they change nothing of the state.
template <typename Load, typename State, size_t count>
void expect_unchanged(const Bytes &good, Load load_from, State state,
                      const Damage (&cases)[count]) {
    const auto before = state();
    for (const Damage &c : cases) {
        Bytes table = good;
        put32(table, c.at, c.value);
        table.resize(c.length);
        const GuardedBytes guarded(table);
        EXPECT_EQ(load_from(guarded.data(), static_cast<uint32_t>(c.length)), c.result) << c.what;
        EXPECT_EQ(state(), before) << c.what;
    }
}

class FileTableTest : public testing::Test {
  protected:
    void SetUp() override { forget_file_table(); }
    void TearDown() override { forget_file_table(); }
};

TEST_F(FileTableTest, SelectsTheSetOfASkuInTheWorkedLayout) {
    Bytes table(2048);
    std::memcpy(table.data(), "FTBL", 4);
    const uint32_t rows[] = {2, 1, 0x40, 3, 0, 2, 0x10C, 5};
    for (size_t i = 0; i < std::size(rows); ++i) {
        put32(table, 12 + 4 * i, rows[i]);
    }
    for (uint32_t i = 0; i < 8; ++i) {
        const auto attributes = static_cast<uint16_t>(0x41 + i);
        FileTable::put_entry(table, 0x40 + 68 * i,
                             {"/f" + std::to_string(i), 0x80000000 + i, 100 + i, attributes});
    }
    ASSERT_EQ(load(table, 2), 0u);
    EXPECT_EQ(reinterpret_cast<uint8_t *>(g_table_buf), table.data() + 0x10C);
    EXPECT_EQ(g_table_num_files, 5);
    EXPECT_EQ(g_dfs_sku, 2u);
    EXPECT_EQ(get_file_entry_by_file_name("/f2"), nullptr) << "belongs to the other SKU";

    fileno_t fileno = 0;
    EXPECT_EQ(get_fileno_by_file_name("/f7", &fileno), 0);
    EXPECT_EQ(fileno, 0x80000007u);
    EXPECT_EQ(get_file_entry_by_fileno(&fileno), g_table_buf + 4);
    std::string name(49, 'x');
    EXPECT_EQ(get_file_name_by_fileno(&fileno, name.data()), 0);
    EXPECT_EQ(name, "/f7" + std::string(45, '\0') + "x");
    file_attributes_t attributes = 0;
    uint32_t max_size = 0;
    EXPECT_EQ(get_file_attributes_by_file_name("/f3", &attributes, &max_size), 0);
    EXPECT_EQ(std::tuple(attributes, max_size), std::tuple(0x44, 103u));
}

TEST_F(FileTableTest, LookUpsTakeTheFirstMatchAndFailWithoutOne) {
    const std::string full(48, 'n');
    const Bytes table = FileTable{
        .sku_rows = {{1, {{"/a", 5}, {"/b", 5}, {"/a", 6}, {full, 7}}}, {1, {}}},
        .geometry_rows = {}}.build();
    ASSERT_EQ(load(table, 1), 0u);

    fileno_t fileno = 0;
    EXPECT_EQ(get_fileno_by_file_name("/a", &fileno), 0);
    EXPECT_EQ(fileno, 5u);
    EXPECT_EQ(get_file_entry_by_fileno(&fileno), g_table_buf);
    EXPECT_EQ(get_file_entry_by_file_name((full + "tail").c_str()), g_table_buf + 3);
    EXPECT_EQ(get_file_entry_by_file_name(full.substr(1).c_str()), nullptr);

    file_attributes_t attributes = 0x7777;
    uint32_t max_size = 0x7777;
    const fileno_t unknown = 8;
    char name[48] = {'?'};
    EXPECT_EQ(get_file_attributes_by_file_name("/a", &attributes, nullptr), -1);
    EXPECT_EQ(get_file_attributes_by_file_name("/a", nullptr, &max_size), -1);
    EXPECT_EQ(get_file_attributes_by_file_name("/", &attributes, &max_size), -1);
    EXPECT_EQ(get_fileno_by_file_name("/ab", &fileno), -1);
    EXPECT_EQ(get_fileno_by_file_name(nullptr, &fileno), -1);
    EXPECT_EQ(get_fileno_by_file_name("/a", nullptr), -1);
    EXPECT_EQ(get_file_name_by_fileno(&unknown, name), -1);
    EXPECT_EQ(get_file_name_by_fileno(nullptr, name), -1);
    EXPECT_EQ(get_file_name_by_fileno(&fileno, nullptr), -1);
    EXPECT_EQ(std::tuple(attributes, max_size, fileno, name[0]),
              std::tuple(0x7777, 0x7777u, 5u, '?'));
    for (const int32_t empty : {0, -1, INT32_MIN}) {
        g_table_num_files = empty;
        EXPECT_EQ(get_file_entry_by_file_name("/a"), nullptr);
        EXPECT_EQ(get_file_entry_by_fileno(&fileno), nullptr);
    }
}

TEST_F(FileTableTest, RefusesATableAndKeepsTheOldSelection) {
    const Bytes good =
        FileTable{.sku_rows = {{1, {{"/a", 1}, {"/b", 2}}}}, .geometry_rows = {}}.build();
    ASSERT_EQ(load(good, 1), 0u);
    const Damage cases[] = {
        {"magic", 0, 0x4C425447, 1024},
        {"too short", 0, 0x4C425446, 1023},
        {"empty", 0, 0, 0},
        {"eleven rows", 12, 11, 1024},
        {"entries start behind the end", 20, 1025, 1024},
        {"last entry cut by a byte", 20, 1024 - 2 * 68 + 1, 1024},
        {"size that wraps 32 bits", 24, 0x7FFFFFFF, 1024},
        {"no row for the SKU", 16, 9, 1024, 0},
        {"no rows", 12, 0, 1024, 0},
    };
    expect_unchanged(
        good, [](const void *data, uint32_t length) { return load_file_table(data, 1, length); },
        [] { return std::tuple(g_table_buf, g_table_num_files, g_dfs_sku); }, cases);
    EXPECT_EQ(load_file_table(nullptr, 1, 2048), 1u);
}

TEST_F(FileTableTest, AcceptsSetsUpToTheVeryEndInTheTenthRow) {
    FileTable source;
    source.sku_rows.resize(10, {3, {}});
    source.sku_rows[9].sku = 77;
    const Bytes good = source.build();
    const uint32_t sets[][2] = {
        {1024 - 2 * 68, 2}, {1024, 0}, {1024, 0x80000000}, {64, 0xFFFFFFFF}};
    for (const auto &[offset, count] : sets) {
        Bytes table = good;
        put32(table, 16 * 10 + 4, offset);
        put32(table, 16 * 10 + 8, count);
        const GuardedBytes guarded(table);
        ASSERT_EQ(load_file_table(guarded.data(), 77, 1024), 0u);
        EXPECT_EQ(g_table_num_files, static_cast<int32_t>(count));
        EXPECT_EQ(reinterpret_cast<uint8_t *>(g_table_buf), guarded.data() + offset);
        const fileno_t absent = 1;
        EXPECT_EQ(get_file_entry_by_fileno(&absent), nullptr);
        EXPECT_EQ(get_file_entry_by_file_name("absent"), nullptr);
    }
}

// Two geometry rows; the second, for SKU 0x105, has a slot that is named twice.
FileTable efs_source() {
    const Geometry row = {
        0x105, 3, 200, 56, 4, 9, 0x1FE, {{1, 2, 30, 400}, {3, 5, 6, 7}, {1, 0x108, 4072, 65535}}};
    return {.sku_rows = {{0x105, {{"/a", 1}}}}, .geometry_rows = {Geometry(), row}};
}

TEST_F(FileTableTest, LoadsTheEfsGeometryAndFileList) {
    const FileTable source = efs_source();
    const Bytes table = source.build();
    for (int round = 0; round < 2; ++round) { // the second load releases the first list
        ASSERT_EQ(load(table, 0x105), 0u);
        EXPECT_EQ(geometry(), std::tuple(3u, 200u, 56u, 4u, 9u, 0xFE));
        EXPECT_EQ(g_efs_sku_id, 5);
        EXPECT_EQ(g_efs_autogen_data_loaded, 1);
        const uint8_t expected[] = {0, 0, 0, 0, 0, 0, 0, 0, 8, 0xE8, 0x0F, 0xFF, 0xFF, 1, 0, 0,
                                    0, 0, 0, 0, 0, 0, 0, 0, 5, 6,    0,    7,    0,    1, 0, 0};
        EXPECT_EQ(std::memcmp(EFS_files, expected, sizeof(expected)), 0);
    }
}

TEST_F(FileTableTest, RefusesAnIllFormedEfsSectionBeforeAnythingIsStored) {
    const FileTable source = efs_source();
    const Bytes good = source.build();
    ASSERT_EQ(load(good, 1), 0u) << "a row without records";
    EXPECT_EQ(EFS_files[15].present, 0u);
    const uint32_t magic = 0x54534645;
    const size_t section = source.section_at();
    const size_t row = source.geometry_at(1);
    const auto whole = static_cast<uint32_t>(good.size());
    const uint32_t records = dolm::load_le32(good.data() + row + 4);
    const Damage cases[] = {
        {"another magic: no section", section, magic + 1, whole, 0},
        {"magic cut: no section", section, magic, section + 3, 0},
        {"no rows", section + 12, 0, whole, 0},
        {"no row for the SKU", row, 2, whole, 0},
        {"no table head", 0, 0x4C425446, 15},
        {"table magic", 0, 0x4C425445, whole},
        {"section behind the end", 12, 0xFFFFFFFF, whole},
        {"section cut", section, magic, section + 15},
        {"rows cut", section, magic, row + 39},
        {"rows that wrap", section + 12, 0xFFFFFFFF, whole},
        {"records cut", row + 4, records, records + 3 * 60 - 1},
        {"records from the end", row + 4, whole, whole},
        {"records that wrap", row + 8, 0x80000000, whole},
        {"records_bytes", row + 12, 181, whole},
        {"bm_num", row + 16, 256, whole},
        {"valid_block_num", row + 20, 256, whole},
        {"non_valid_block_num", row + 24, 256, whole},
        {"257 blocks", row + 24, 57, whole},
        {"files_num", row + 28, 0, whole},
        {"file_index 3 of 3", row + 28, 3, whole},
    };
    expect_unchanged(
        good,
        [](const void *data, uint32_t length) { return load_autogen_data(data, 0x105, length); },
        efs_state, cases);
    EXPECT_EQ(load_autogen_data(nullptr, 1, 2048), 1u);

    const auto before = efs_state();
    Bytes one_block = good;
    put32(one_block, row + 20, 1);
    put32(one_block, row + 24, 0);
    EXPECT_EQ(load(one_block, 0x105), 1u);
    EXPECT_EQ(efs_state(), before);
    EXPECT_EQ(g_dfs_sku, 0x105u) << "the selection stands although the geometry was refused";
}

TEST_F(FileTableTest, RecordsOffsetBehindTheEndStoresTheGeometryAlone) {
    const FileTable source = efs_source();
    Bytes table = source.build();
    const size_t row = source.geometry_at(1);
    ASSERT_EQ(load(table, 0x105), 0u);
    put32(table, row + 4, static_cast<uint32_t>(table.size()) + 1);
    put32(table, row + 28, 2);
    EFS_file_entry *const list = EFS_files;
    EXPECT_EQ(load(table, 0x105), 1u);
    EXPECT_EQ(geometry(), std::tuple(3u, 200u, 56u, 2u, 9u, 0xFE));
    EXPECT_EQ(EFS_files, list);
    EXPECT_EQ(g_efs_autogen_data_loaded, 1);

    // Five slots would lead behind the old list of four.
    put32(table, row + 28, 5);
    EXPECT_EQ(load(table, 0x105), 1u);
    EXPECT_EQ(g_efs_files_num, 5u);
    EXPECT_EQ(EFS_files, nullptr);
    EXPECT_EQ(g_efs_autogen_data_loaded, 0);
}

} // namespace
