#include "FCS.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <map>
#include <random>

#include "common/little_endian.h"
#include "heap_double.h"
#include "proof/builders.h"

namespace builders = dolm::proof::builders;

using dolm::Bytes;
using dolm::proof::GuardedBytes;
using namespace builders;

namespace {

using Names = std::vector<std::string>;

class FcsTest : public testing::Test {
  protected:
    void SetUp() override {
        use_table({{"alpha", 0x21, 10, 0x41}, {"beta", 5, 0xFFFFFFFF}, {"dir/delta", 0x33}});
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

    uint32_t add(const std::string &name, const StoreFile &file, bool check_size = false) {
        Bytes block = block_of(file);
        return addNewFile(store, "", name.c_str(), block.data(),
                          static_cast<uint16_t>(block.size()), check_size);
    }

    std::string step(uint32_t (*direction)(void *, char *)) {
        char name[49] = "";
        const uint32_t status = direction(store, name);
        return status == FCS_OK ? name : "status " + std::to_string(status);
    }

    Names walk() {
        Names names;
        for (auto name = step(getFirstFileInRoot); name != "status 3"; name = step(getNextFile)) {
            names.push_back(name);
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
const StoreFile beta = {5, ""};
const StoreFile delta = {0x33, "xy", 0xBEEF};

TEST_F(FcsTest, WritesTheWorkedLayout) {
    EXPECT_EQ(flushed(), Bytes(4)) << "an empty store is its count alone";
    ASSERT_EQ(add("dir/delta", delta) + add("alpha", alpha) + add("beta", beta), FCS_OK);
    const Bytes expected = {3,    0,   0,   0,                                    // count
                            0x21, 0,   0,   0,   0x28, 0, 0, 0, 3, 0, 0,    0,    // alpha
                            0x05, 0,   0,   0,   0x2B, 0, 0, 0, 0, 0, 0,    0,    // beta
                            0x33, 0,   0,   0,   0x2B, 0, 0, 0, 2, 0, 0xEF, 0xBE, // delta
                            'a',  'b', 'c', 'x', 'y'};
    EXPECT_EQ(flushed(), expected);
    EXPECT_EQ(flushed(), expected) << "the offsets in the tree do not add up";
}

TEST_F(FcsTest, LoadsWhatTheWriterWouldNotProduce) {
    Bytes reversed = store_of({delta, beta, {0x777, "an unknown number is left out"}, alpha});
    put32(reversed, 16 + 4, 0xFFFFFFFF); // the offset of an empty payload has no meaning
    reversed.resize(200);
    ASSERT_EQ(reload(reversed), FCS_OK);
    EXPECT_EQ(flushed(), store_of({alpha, beta, delta}));

    const std::string full(48, 'f'); // a table name without terminator
    use_table({{full, 5}, {"after", 1}});
    ASSERT_EQ(reload(reversed), FCS_OK);
    EXPECT_EQ(walk(), Names{full});
    EXPECT_EQ(reload(store_of({beta, beta})), FCS_BAD_STORE) << "a name twice";
}

TEST_F(FcsTest, WhatALoadAddedBeforeItsFailureStaysInOrder) {
    ASSERT_EQ(add("beta", beta), FCS_OK);
    const Bytes bytes = store_of({delta, alpha, beta});
    EXPECT_FALSE(loadDataFromFcsBuffer(store, bytes.data(), static_cast<uint32_t>(bytes.size())));
    EXPECT_EQ(walk(), (Names{"alpha", "beta", "dir/delta"}));
}

TEST_F(FcsTest, RefusesDamagedStores) {
    const std::pair<const char *, std::function<void(Bytes &)>> cases[] = {
        {"no count", [](Bytes &b) { b.resize(3); }},
        {"record table cut", [](Bytes &b) { b = store_of({beta}), b.pop_back(); }},
        {"count that wraps to nothing", [](Bytes &b) { put32(b, 0, 0x40000000); }},
        {"payload cut", [](Bytes &b) { b.pop_back(); }},
        {"offset that wraps", [](Bytes &b) { put32(b, 16 + 4, 0xFFFFFFFF); }},
        {"payload of an unknown number cut", [](Bytes &b) { put32(b, 4, 0x777), b.resize(28); }},
    };
    for (const auto &[what, damage] : cases) {
        Bytes bytes = store_of({alpha, delta});
        damage(bytes);
        EXPECT_EQ(reload(bytes), FCS_BAD_STORE) << what;
        EXPECT_EQ(store, nullptr) << what;
    }
    EXPECT_EQ(reload(store_of({{0x21, std::string(65524, 'p')}})), FCS_BAD_STORE);
    EXPECT_EQ(reload(store_of({{0x21, std::string(65523, 'p')}})), FCS_OK);
}

TEST_F(FcsTest, AddNewFileTestsInOrder) {
    // The number in the record, directory, name, length of the block, and the result.
    const std::tuple<uint32_t, const char *, const char *, uint16_t, uint32_t> cases[] = {
        {0, nullptr, nullptr, 11, FCS_BUFFER_TOO_SMALL},
        {0, nullptr, nullptr, 12, FCS_INVALID_ARGUMENT},
        {0, nullptr, "alpha/", 12, FCS_NAME_NOT_IN_TABLE},
        {0x777, nullptr, nullptr, 12, FCS_NUMBER_NOT_IN_TABLE},
        {0x21, nullptr, nullptr, 23, FCS_FILE_TOO_LARGE}, // a byte more than the table allows
        {0x21, nullptr, "alpha", 22, FCS_INVALID_ARGUMENT},
        {0x21, "", nullptr, 22, FCS_INVALID_ARGUMENT},
        {0, "", "alpha", 22, FCS_OK}, // takes the number from the table
        {0x21, "", "alpha", 22, FCS_FILE_EXISTS},
        {0x21, "", "alpha/", 22, FCS_OK},
        {5, "", "beta", 22, FCS_OK}, // the greatest limit plus 12 does not wrap
    };
    Bytes block(23);
    for (const auto &[fileno, directory, name, length, expected] : cases) {
        put32(block, 0, fileno);
        EXPECT_EQ(addNewFile(store, directory, name, block.data(), length, true), expected)
            << fileno << " with " << length << " bytes";
        EXPECT_TRUE(expected != FCS_OK || dolm::load_le32(block.data()) != 0);
    }
    EXPECT_EQ(walk(), (Names{"alpha", "alpha/", "beta"}));
}

TEST_F(FcsTest, NullArgumentsHaveResults) {
    uint32_t length = 0;
    char out[49] = "";
    void *none = nullptr;
    for (const uint32_t status :
         {closeHandle(&none), flush(nullptr, out, &length), deleteFile(nullptr, out),
          getFileData(nullptr, out, out, &length), getFileAttributes(nullptr, out, out),
          getFirstFileInRoot(nullptr, out)}) {
        EXPECT_EQ(status, FCS_INVALID_HANDLE);
    }
    for (const uint32_t status :
         {closeHandle(nullptr), createHandle(nullptr), createHandleFromStructure(&none, nullptr, 4),
          flush(store, out, nullptr), deleteFile(store, nullptr),
          getFileData(store, nullptr, out, &length), getFileAttributes(store, out, nullptr)}) {
        EXPECT_EQ(status, FCS_INVALID_ARGUMENT);
    }
}

TEST_F(FcsTest, CapacitiesAndHeads) {
    ASSERT_EQ(reload(store_of({alpha})), FCS_OK);
    Bytes head = {0x21, 0, 0, 0, 16, 0, 0, 0, 3, 0, 0, 0, 0x41, 0, 10, 0, 0, 0};
    Bytes out(18, 0xEE);
    EXPECT_EQ(getFileAttributes(store, "alpha", out.data()), FCS_OK);
    EXPECT_EQ(out, head);
    ASSERT_EQ(add("alpha/", alpha), FCS_OK);
    EXPECT_EQ(getFileAttributes(store, "alpha/", out.data()), FCS_NUMBER_NOT_IN_TABLE);
    head[4] = 0;
    EXPECT_EQ(out, head) << "the record alone has been copied";
    EXPECT_EQ(getFileAttributes(store, "beta", out.data()), FCS_FILE_NOT_FOUND);

    uint32_t length = 14;
    EXPECT_EQ(getFileData(store, "beta", out.data(), &length), FCS_FILE_NOT_FOUND);
    EXPECT_EQ(getFileData(store, "alpha", out.data(), &length), FCS_BUFFER_TOO_SMALL);
    EXPECT_EQ(length, 15u);
    EXPECT_EQ(getFileData(store, "alpha", out.data(), &length), FCS_OK);
    out.resize(length);
    EXPECT_EQ(out, block_of(alpha, 16));
    length = 33;
    EXPECT_EQ(flush(store, out.data(), &length), FCS_BUFFER_TOO_SMALL);
    EXPECT_EQ(length, 34u);
    EXPECT_EQ(flush(store, nullptr, &length), FCS_INVALID_ARGUMENT);
}

TEST_F(FcsTest, SuccessfulChangesRestartTheWalkAndFailedOnesDoNot) {
    EXPECT_EQ(step(getNextFile), "status 3");
    ASSERT_EQ(add("alpha", alpha) + add("beta", beta) + add("dir/delta", delta), FCS_OK);
    EXPECT_EQ(step(getNextFile), "beta") << "the walk stands on the first file";
    EXPECT_EQ(deleteFile(store, "dir/delta"), FCS_FILE_NOT_FOUND) << "paths go by components";
    EXPECT_EQ(add("alpha", alpha), FCS_FILE_EXISTS);
    EXPECT_EQ(getNextFile(store, nullptr), FCS_INVALID_ARGUMENT);
    EXPECT_EQ(step(getNextFile), "dir/delta");
    EXPECT_EQ(step(getNextFile), "status 3");
    ASSERT_EQ(add("alpha/", alpha), FCS_OK);
    EXPECT_EQ(step(getNextFile), "alpha/");
    EXPECT_EQ(deleteFile(store, "beta"), FCS_OK);
    EXPECT_EQ(step(getNextFile), "alpha/");
}

TEST_F(FcsTest, ExhaustedMemoryIsAResultAndLeavesTheStoreAsItWas) {
    const std::string name(40, 'n');
    const std::string path = name + "/";
    use_table({{name, 1}});
    const Bytes bytes = store_of({{1, "value"}});
    Bytes block = block_of({1, "value"});
    Bytes out(50);
    void *other = nullptr;
    uint32_t length = 50;
    const std::function<uint32_t()> operations[] = {
        [&] { return createHandle(&other); },
        [&] { return createHandleFromStructure(&other, bytes.data(), 21); },
        [&] { return addNewFile(store, "", name.c_str(), block.data(), 17, false); },
        [&] { return flush(store, out.data(), &length); },
        [&] { return getFirstFileInRoot(store, reinterpret_cast<char *>(out.data())); },
        [&] { return deleteFile(store, path.c_str()); },
    };
    for (const auto &operation : operations) {
        const Bytes before = flushed();
        uint32_t status = FCS_ALLOC_FAILED;
        for (long allocations = 0; status != FCS_OK; ++allocations) {
            heap_double::fail_from(allocations);
            status = operation();
            heap_double::stop();
            closeHandle(&other); // also one that is built in part
            ASSERT_TRUE(status == FCS_OK || flushed() == before);
            ASSERT_TRUE(status == FCS_OK || status == FCS_ALLOC_FAILED || status == FCS_BAD_STORE)
                << "operation " << &operation - operations << " status " << status;
        }
    }
}

// Random additions, deletions and reloads beside a map from name to file.
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
        const bool known = model.count(entry.name) != 0;
        const auto action = random() % 4;
        if (action == 0) {
            ASSERT_EQ(deleteFile(store, entry.name.c_str()), known ? FCS_OK : FCS_FILE_NOT_FOUND);
            model.erase(entry.name);
        } else if (action == 1) {
            std::vector<StoreFile> files;
            Names names;
            for (const auto &[name, file] : model) {
                names.push_back(name);
                files.push_back(file);
            }
            ASSERT_EQ(walk(), names);
            ASSERT_EQ(flushed(), store_of(files));
            std::shuffle(files.begin(), files.end(), random);
            ASSERT_EQ(reload(store_of(files)), FCS_OK);
        } else {
            const std::string payload(random() % 60, static_cast<char>(random()));
            const StoreFile file = {entry.fileno, payload, static_cast<uint16_t>(random())};
            const uint32_t expected = payload.size() > 50 ? FCS_FILE_TOO_LARGE
                                      : known             ? FCS_FILE_EXISTS
                                                          : FCS_OK;
            ASSERT_EQ(add(entry.name, file, true), expected);
            if (expected == FCS_OK) {
                model[entry.name] = file;
            }
        }
    }
}

} // namespace
