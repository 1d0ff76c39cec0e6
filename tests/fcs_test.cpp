#include "FCS.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <map>
#include <new>
#include <random>

#include "builders.h"
#include "failing_new.h"

using namespace builders;

namespace {

using Names = std::vector<std::string>;

class FcsTest : public testing::Test {
  protected:
    void SetUp() override {
        use_table(
            {{"alpha", 0x21, 10, 0x41}, {"beta", 0x05}, {"gamma", 0x09}, {"dir/delta", 0x33}});
        ASSERT_EQ(createHandle(&store), FCS_OK);
    }
    void TearDown() override {
        closeHandle(&store);
        forget_file_table();
    }

    void use_table(const std::vector<TableEntry> &entries) {
        table = FileTable{.sku_rows = {{1, entries}}, .geometry_rows = {}}.build();
        ASSERT_EQ(load_file_table(table.data(), 1, static_cast<uint32_t>(table.size())), 0u);
    }

    uint32_t add(const std::string &name, Bytes block, bool check_size = false) {
        return addNewFile(store, "", name.c_str(), block.data(),
                          static_cast<uint16_t>(block.size()), check_size);
    }
    uint32_t add(const std::string &name, const StoreFile &file) {
        return add(name, block_of(file));
    }

    Names walk() {
        Names names;
        char name[49];
        for (uint32_t status = getFirstFileInRoot(store, name); status == FCS_OK;
             status = getNextFile(store, name)) {
            names.emplace_back(name);
        }
        return names;
    }

    // The bytes of the store, by the sizing call and the one that writes.
    Bytes flushed() {
        uint32_t length = 0;
        EXPECT_EQ(flush(store, nullptr, &length), FCS_BUFFER_TOO_SMALL);
        Bytes bytes(length + 1, 0xEE);
        EXPECT_EQ(flush(store, bytes.data(), &length), FCS_OK);
        EXPECT_EQ(bytes.back(), 0xEE) << "wrote behind the length";
        bytes.resize(length);
        return bytes;
    }

    // Replaces the store by a loaded one. The bytes stand against unreadable memory.
    uint32_t reload(const Bytes &bytes) {
        closeHandle(&store);
        const GuardedBytes guarded(bytes);
        return createHandleFromStructure(&store, guarded.data(),
                                         static_cast<uint32_t>(bytes.size()));
    }

    Bytes table;
    void *store = nullptr;
};

const StoreFile alpha = {0x21, "abc"};
const StoreFile beta = {0x05, ""};
const StoreFile gamma_file = {0x09, "xy"};

TEST_F(FcsTest, WritesTheWorkedLayout) {
    EXPECT_EQ(flushed(), Bytes(4)) << "an empty store is its count alone";
    EXPECT_EQ(reload(Bytes(4)), FCS_OK);
    ASSERT_EQ(add("gamma", gamma_file), FCS_OK);
    ASSERT_EQ(add("alpha", alpha), FCS_OK);
    ASSERT_EQ(add("beta", beta), FCS_OK);
    const Bytes expected = {3,    0,   0,   0,                              // count
                            0x21, 0,   0,   0,   0x28, 0, 0, 0, 3, 0, 0, 0, // alpha
                            0x05, 0,   0,   0,   0x2B, 0, 0, 0, 0, 0, 0, 0, // beta
                            0x09, 0,   0,   0,   0x2B, 0, 0, 0, 2, 0, 0, 0, // gamma
                            'a',  'b', 'c', 'x', 'y'};
    EXPECT_EQ(flushed(), expected);
    EXPECT_EQ(flushed(), expected) << "the offsets in the tree do not add up";
    ASSERT_EQ(reload(expected), FCS_OK);
    EXPECT_EQ(walk(), (Names{"alpha", "beta", "gamma"}));
    EXPECT_EQ(flushed(), expected);
}

TEST_F(FcsTest, LoadsWhatTheWriterWouldNotProduce) {
    const Bytes canonical = store_of({{0x21, "abc", 0xBEEF}, beta, gamma_file});
    Bytes reversed = store_of({gamma_file, beta, {0x21, "abc", 0xBEEF}});
    put32(reversed, 16 + 4, 0xFFFFFFFF); // the offset of an empty payload has no meaning
    ASSERT_EQ(reload(reversed), FCS_OK);
    EXPECT_EQ(flushed(), canonical);

    Bytes trailing = canonical;
    trailing.insert(trailing.end(), 100, 0xCC);
    ASSERT_EQ(reload(trailing), FCS_OK);
    EXPECT_EQ(flushed(), canonical);

    Bytes shared = store_of({alpha, {0x09, "abc"}});
    put32(shared, 16 + 4, 4 + 2 * 12); // both payloads are the same three bytes
    shared.resize(4 + 2 * 12 + 3);
    ASSERT_EQ(reload(shared), FCS_OK);
    EXPECT_EQ(flushed(), store_of({alpha, {0x09, "abc"}}));

    ASSERT_EQ(reload(store_of({{0x777, "lost"}, gamma_file})), FCS_OK);
    EXPECT_EQ(flushed(), store_of({gamma_file})) << "an unknown number is left out";
    forget_file_table();
    ASSERT_EQ(reload(canonical), FCS_OK);
    EXPECT_EQ(flushed(), Bytes(4)) << "without a file table every number is unknown";
}

TEST_F(FcsTest, RefusesDamagedStores) {
    const Bytes good = store_of({alpha, gamma_file});
    struct Case {
        const char *what;
        std::function<void(Bytes &)> damage;
    };
    const Case cases[] = {
        {"no count", [](Bytes &b) { b.resize(3); }},
        {"empty", [](Bytes &b) { b.clear(); }},
        {"record table cut", [](Bytes &b) { b.resize(4 + 2 * 12 - 1); }},
        {"count that wraps to nothing", [](Bytes &b) { put32(b, 0, 0x40000000); }},
        {"payload cut", [](Bytes &b) { b.pop_back(); }},
        {"offset that wraps", [](Bytes &b) { put32(b, 16 + 4, 0xFFFFFFFF); }},
        {"payload of an unknown number cut", [](Bytes &b) { put32(b, 4, 0x777), b.resize(28); }},
        {"same number twice", [](Bytes &b) { put32(b, 16, 0x21); }},
    };
    for (const Case &c : cases) {
        Bytes bytes = good;
        c.damage(bytes);
        EXPECT_EQ(reload(bytes), FCS_BAD_STORE) << c.what;
        EXPECT_EQ(store, nullptr) << c.what;
    }
    EXPECT_EQ(reload(store_of({{0x21, std::string(65523, 'p')}})), FCS_OK);
    EXPECT_EQ(reload(store_of({{0x21, std::string(65524, 'p')}})), FCS_BAD_STORE);
    EXPECT_EQ(reload(store_of({{0x777, std::string(65524, 'p')}, alpha})), FCS_OK);

    // What was read before the failure stays when the caller keeps the handle.
    Bytes twice = store_of({alpha, gamma_file, alpha});
    ASSERT_EQ(reload(Bytes(4)), FCS_OK);
    EXPECT_FALSE(loadDataFromFcsBuffer(store, twice.data(), static_cast<uint32_t>(twice.size())));
    EXPECT_EQ(walk(), (Names{"alpha", "gamma"}));
}

TEST_F(FcsTest, TerminatesATableNameThatFillsItsField) {
    const std::string full(48, 'f');
    use_table({{full, 1}, {"after", 2}});
    ASSERT_EQ(reload(store_of({{1, "value"}})), FCS_OK);
    EXPECT_EQ(walk(), Names{full});
    uint8_t head[18];
    EXPECT_EQ(getFileAttributes(store, full.c_str(), head), FCS_OK);

    // The tree cuts a longer name, so the whole of it is never found there.
    EXPECT_EQ(add(full + "x", StoreFile{1, ""}), FCS_OK);
    EXPECT_EQ(add(full + "x", StoreFile{1, ""}), FCS_OK);
    EXPECT_EQ(add(full, StoreFile{1, ""}), FCS_FILE_EXISTS);
    EXPECT_EQ(getFileAttributes(store, (full + "x").c_str(), head), FCS_FILE_NOT_FOUND);
    EXPECT_EQ(walk(), (Names{full, full, full}));
}

TEST_F(FcsTest, AddNewFileTestsInOrder) {
    Bytes good = block_of(alpha);
    const Bytes unknown = block_of({0x777, "abc"});
    const Bytes no_number = block_of({0, "abc"});
    EXPECT_EQ(addNewFile(nullptr, nullptr, nullptr, nullptr, 0, true), FCS_INVALID_HANDLE);
    EXPECT_EQ(addNewFile(store, nullptr, nullptr, nullptr, 11, true), FCS_BUFFER_TOO_SMALL);
    EXPECT_EQ(addNewFile(store, nullptr, nullptr, nullptr, 12, true), FCS_INVALID_ARGUMENT);
    Bytes block = no_number;
    EXPECT_EQ(addNewFile(store, "", nullptr, block.data(), 15, true), FCS_INVALID_ARGUMENT);
    EXPECT_EQ(add("alpha/", no_number), FCS_NAME_NOT_IN_TABLE);
    block = unknown;
    EXPECT_EQ(addNewFile(store, nullptr, nullptr, block.data(), 15, true), FCS_NUMBER_NOT_IN_TABLE);
    Bytes large = block_of({0x21, std::string(11, 'p')}); // one more than the table allows
    put16(large, 8, 10);                                  // the length of the block counts
    EXPECT_EQ(addNewFile(store, nullptr, nullptr, large.data(), 23, true), FCS_FILE_TOO_LARGE);
    EXPECT_EQ(addNewFile(store, nullptr, "alpha", good.data(), 15, true), FCS_INVALID_ARGUMENT);
    EXPECT_EQ(addNewFile(store, "", nullptr, good.data(), 15, true), FCS_INVALID_ARGUMENT);
    EXPECT_TRUE(walk().empty());

    large.pop_back();
    EXPECT_EQ(add("alpha", large, true), FCS_OK);
    EXPECT_EQ(add("alpha", good), FCS_FILE_EXISTS);
    EXPECT_EQ(add("alpha/", good), FCS_OK) << "another name, the same number";
    Bytes unlimited = block_of({0x44, std::string(9, 'p')});
    use_table({{"named", 0x21}, {"max", 0x44, 0xFFFFFFFF}});
    EXPECT_EQ(add("max", unlimited, true), FCS_OK) << "the limit plus 12 does not wrap";

    block = no_number;
    EXPECT_EQ(addNewFile(store, "", "named", block.data(), 15, false), FCS_OK);
    EXPECT_EQ(dolm::load_le32(block.data()), 0x21u) << "the caller learns the number";
    block = no_number;
    EXPECT_EQ(addNewFile(store, "", "named", block.data(), 15, false), FCS_FILE_EXISTS);

    Bytes stored(22);
    uint32_t length = 22;
    EXPECT_EQ(getFileData(store, "alpha", stored.data(), &length), FCS_OK);
    EXPECT_EQ(stored, large) << "the first version stays";
    forget_file_table();
    EXPECT_EQ(add("beta", block_of(beta)), FCS_NUMBER_NOT_IN_TABLE);
    EXPECT_EQ(add("beta", no_number), FCS_NAME_NOT_IN_TABLE);
}

TEST_F(FcsTest, NullArgumentsHaveResults) {
    uint32_t length = 0;
    char out[49];
    void *none = nullptr;
    const std::pair<uint32_t, uint32_t> results[] = {
        {createHandle(nullptr), 1},
        {createHandleFromStructure(nullptr, out, 4), 1},
        {createHandleFromStructure(&none, nullptr, 4), 1},
        {closeHandle(nullptr), 1},
        {closeHandle(&none), 6},
        {loadDataFromFcsBuffer(nullptr, Bytes(4).data(), 4), 0},
        {loadDataFromFcsBuffer(store, nullptr, 4), 0},
        {flush(nullptr, nullptr, nullptr), 6},
        {flush(store, nullptr, nullptr), 1},
        {deleteFile(nullptr, nullptr), 6},
        {deleteFile(store, nullptr), 1},
        {getFileData(nullptr, nullptr, nullptr, nullptr), 6},
        {getFileData(store, "x", nullptr, &length), 1},
        {getFileData(store, "x", out, nullptr), 1},
        {getFileData(store, nullptr, out, &length), 1},
        {getFileAttributes(nullptr, nullptr, nullptr), 6},
        {getFileAttributes(store, "x", nullptr), 1},
        {getFileAttributes(store, nullptr, out), 1},
        {getFirstFileInRoot(nullptr, nullptr), 6},
        {getNextFile(nullptr, nullptr), 6},
        {getFirstFileInRoot(store, nullptr), 3},
        {add("alpha", alpha), 0},
        {add("beta", beta), 0},
        {getNextFile(store, nullptr), 1},
        {getNextFile(store, out), 0},
    };
    for (size_t i = 0; i < std::size(results); ++i) {
        EXPECT_EQ(results[i].first, results[i].second) << "call " << i;
    }
    EXPECT_STREQ(out, "beta") << "the refused step did not move the walk";
    const _cfg_file_entry_t record = {};
    EXPECT_TRUE(validateAttributs(&record));
    EXPECT_FALSE(validateAttributs(nullptr));
}

TEST_F(FcsTest, CapacitiesAndHeads) {
    const StoreFile file = {0x21, "abc", 0x1122};
    ASSERT_EQ(reload(store_of({file})), FCS_OK);
    Bytes head(18, 0xEE);
    ASSERT_EQ(getFileAttributes(store, "alpha", head.data()), FCS_OK);
    Bytes expected = block_of(file, 16); // the offset in the loaded buffer
    expected.resize(18);
    put16(expected, 12, 0x41);
    put32(expected, 14, 10);
    EXPECT_EQ(head, expected);

    uint32_t length = 18;
    Bytes out(20);
    EXPECT_EQ(flush(store, out.data(), &length), FCS_BUFFER_TOO_SMALL);
    EXPECT_EQ(length, 19u);
    EXPECT_EQ(flush(store, nullptr, &length), FCS_INVALID_ARGUMENT);
    length = 20;
    EXPECT_EQ(flush(store, out.data(), &length), FCS_OK);
    EXPECT_EQ(length, 19u);

    length = 14;
    EXPECT_EQ(getFileData(store, "alpha", out.data(), &length), FCS_BUFFER_TOO_SMALL);
    EXPECT_EQ(length, 15u);
    EXPECT_EQ(getFileData(store, "alpha", out.data(), &length), FCS_OK);
    out.resize(length);
    EXPECT_EQ(out, block_of(file, 0)) << "the offset is that of the flush";
    EXPECT_EQ(getFileData(store, "none", out.data(), &length), FCS_FILE_NOT_FOUND);

    ASSERT_EQ(add("alpha/", alpha), FCS_OK);
    head.assign(18, 0xEE);
    EXPECT_EQ(getFileAttributes(store, "alpha/", head.data()), FCS_NUMBER_NOT_IN_TABLE);
    expected.assign(18, 0xEE);
    std::copy_n(block_of(alpha).data(), 12, expected.data());
    EXPECT_EQ(head, expected) << "the record alone has been copied";
    EXPECT_EQ(getFileAttributes(store, "beta", head.data()), FCS_FILE_NOT_FOUND);
}

TEST_F(FcsTest, SuccessfulChangesRestartTheWalkAndFailedOnesDoNot) {
    char name[49] = "untouched";
    EXPECT_EQ(getNextFile(store, name), FCS_NO_MORE_FILES);
    EXPECT_STREQ(name, "untouched");
    for (const auto &[file, number] :
         {std::pair("alpha", 0x21), {"beta", 5}, {"dir/delta", 0x33}}) {
        ASSERT_EQ(add(file, StoreFile{static_cast<uint32_t>(number), ""}), FCS_OK);
    }
    auto next = [&] {
        const uint32_t status = getNextFile(store, name);
        return status == FCS_OK ? std::string(name) : std::to_string(status);
    };
    EXPECT_EQ(next(), "beta") << "the walk stands on the first file";
    EXPECT_EQ(deleteFile(store, "dir/delta"), FCS_FILE_NOT_FOUND) << "paths go by components";
    EXPECT_EQ(add("alpha", alpha), FCS_FILE_EXISTS);
    EXPECT_EQ(next(), "dir/delta");
    EXPECT_EQ(next(), "3");
    EXPECT_EQ(next(), "3");
    ASSERT_EQ(add("gamma", gamma_file), FCS_OK);
    EXPECT_EQ(next(), "beta");
    EXPECT_EQ(deleteFile(store, "beta"), FCS_OK);
    EXPECT_EQ(next(), "dir/delta");
    EXPECT_EQ(getFirstFileInRoot(store, name), FCS_OK);
    EXPECT_STREQ(name, "alpha");
}

TEST_F(FcsTest, ExhaustedMemoryIsAResultAndLeavesTheStoreAsItWas) {
    const std::string long_name(40, 'n');
    const std::string path = long_name + "/";
    use_table({{"alpha", 1}, {long_name, 2}});
    ASSERT_EQ(add("alpha", StoreFile{1, "value"}), FCS_OK);
    const Bytes before = flushed();
    const Bytes bytes = store_of({{1, "value"}, {2, std::string(100, 'p')}});
    Bytes block = block_of({2, std::string(100, 'p')});
    Bytes out(1000);
    char name[49];
    void *other = nullptr;
    uint32_t length = 0;
    // A handle that is built in part can still be closed.
    const std::function<uint32_t()> operations[] = {
        [&] {
            const uint32_t status = createHandle(&other);
            closeHandle(&other);
            return status;
        },
        [&] { return flush(store, out.data(), &(length = 1000)); },
        [&] { return addNewFile(store, "", long_name.c_str(), block.data(), 112, false); },
        [&] { return getFirstFileInRoot(store, name); },
        [&] { return deleteFile(store, path.c_str()); },
    };
    for (size_t i = 0; i < std::size(operations); ++i) {
        const Bytes unchanged = flushed();
        for (long allocations = 0;; ++allocations) {
            ASSERT_LT(allocations, 50);
            allocations_left = allocations;
            const uint32_t status = operations[i]();
            allocations_left = -1;
            if (status == FCS_OK) {
                break;
            }
            ASSERT_EQ(status, FCS_ALLOC_FAILED) << "operation " << i;
            ASSERT_EQ(flushed(), unchanged) << "operation " << i;
        }
    }
    EXPECT_EQ(flushed(), before) << "the long name was added and deleted again";
    for (long allocations = 0; allocations < 8; ++allocations) {
        allocations_left = allocations;
        const uint32_t status = createHandleFromStructure(&other, bytes.data(), 133);
        allocations_left = -1;
        EXPECT_TRUE(status == FCS_ALLOC_FAILED || status == FCS_BAD_STORE) << status;
        closeHandle(&other);
    }
}

// Random additions, deletions and reloads beside a map from name to block.
TEST_F(FcsTest, RandomRunsMatchAModel) {
    const unsigned seed = 71;
    std::mt19937 random(seed);
    std::vector<TableEntry> entries;
    for (uint32_t i = 0; i < 60; ++i) {
        entries.push_back({"n" + std::to_string(i * 7919 % 1000), 0x100 + i, 50});
    }
    use_table(entries);
    std::map<std::string, StoreFile> model; // ordered as the store orders its names
    for (int step = 0; step < 4000; ++step) {
        SCOPED_TRACE(testing::Message() << "seed " << seed << " step " << step);
        const TableEntry &entry = entries[random() % entries.size()];
        const StoreFile file = {entry.fileno,
                                std::string(random() % 60, static_cast<char>(random())),
                                static_cast<uint16_t>(random())};
        const bool known = model.count(entry.name) != 0;
        switch (random() % 4) {
        case 0:
        case 1: {
            const uint32_t expected = file.payload.size() > 50 ? FCS_FILE_TOO_LARGE
                                      : known                  ? FCS_FILE_EXISTS
                                                               : FCS_OK;
            ASSERT_EQ(add(entry.name, block_of(file), true), expected);
            if (expected == FCS_OK) {
                model[entry.name] = file;
            }
            break;
        }
        case 2:
            ASSERT_EQ(deleteFile(store, entry.name.c_str()), known ? FCS_OK : FCS_FILE_NOT_FOUND);
            model.erase(entry.name);
            break;
        default: {
            std::vector<StoreFile> files;
            Names names;
            for (const auto &[name, content] : model) {
                names.push_back(name);
                files.push_back(content);
            }
            ASSERT_EQ(walk(), names);
            const Bytes bytes = store_of(files);
            ASSERT_EQ(flushed(), bytes);
            ASSERT_EQ(reload(bytes), FCS_OK);
        }
        }
    }
}

} // namespace
