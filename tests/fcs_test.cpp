#include "FCS.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <map>
#include <ostream>
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
    EXPECT_EQ(reload(store_of({beta, {1, "between"}, beta})), FCS_BAD_STORE) << "a name twice";
}

TEST_F(FcsTest, WhatALoadAddedBeforeItsFailureStaysInOrder) {
    use_table({{"alpha", 0x21}, {"beta", 5}, {"dir/delta", 0x33}, {"gamma", 6}});
    const auto load = [this](const Bytes &bytes) {
        return loadDataFromFcsBuffer(store, bytes.data(), static_cast<uint32_t>(bytes.size()));
    };
    std::vector<StoreFile> of_one_name(40, beta);
    of_one_name[0].payload = "the first";
    of_one_name.push_back(alpha); // so that they have to be put in order
    EXPECT_FALSE(load(store_of(of_one_name)));
    EXPECT_EQ(flushed(), store_of({of_one_name[0]}));
    EXPECT_FALSE(load(store_of({delta, alpha, beta, {6, "behind"}})));
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

// ---- Every call that is refused, on a store of three files whose walk stands on the second ----

class FcsRefusal : public FcsTest {
  public:
    void SetUp() override {
        FcsTest::SetUp();
        ASSERT_EQ(add("alpha", ::alpha) + add("beta", ::beta) + add("dir/delta", ::delta), FCS_OK);
        ASSERT_EQ(step(getNextFile), "beta");
    }
    // A block of that many bytes, of a record with that number.
    uint32_t add_block(uint32_t fileno, const char *directory, const char *name, uint16_t size) {
        put32(block, 0, fileno);
        return addNewFile(store, directory, name, block.data(), size, true);
    }
    uint32_t data_of(const char *name, uint32_t capacity) {
        length = capacity;
        return getFileData(store, name, out, &length);
    }

    using FcsTest::store;
    Bytes block = Bytes(30);
    char out[64] = {};
    uint32_t length = 0;
    void *other = nullptr;
};

using Test = FcsRefusal &;

struct Refusal {
    const char *name;
    uint32_t (*call)(Test);
    uint32_t status;
};

void PrintTo(const Refusal &test, std::ostream *stream) {
    *stream << test.name;
}

const Refusal refusals[] = {
    {"create_into_nothing", [](Test) { return createHandle(nullptr); }, FCS_INVALID_ARGUMENT},
    {"load_into_nothing", [](Test t) { return createHandleFromStructure(nullptr, t.out, 4); },
     FCS_INVALID_ARGUMENT},
    {"load_of_nothing", [](Test t) { return createHandleFromStructure(&t.other, nullptr, 4); },
     FCS_INVALID_ARGUMENT},
    {"load_of_three_bytes", [](Test t) { return createHandleFromStructure(&t.other, t.out, 3); },
     FCS_BAD_STORE},
    {"close_of_nothing", [](Test) { return closeHandle(nullptr); }, FCS_INVALID_ARGUMENT},
    {"close_of_no_store", [](Test t) { return closeHandle(&t.other); }, FCS_INVALID_HANDLE},

    {"flush_of_no_store", [](Test t) { return flush(nullptr, t.out, &t.length); },
     FCS_INVALID_HANDLE},
    {"flush_without_length", [](Test t) { return flush(t.store, t.out, nullptr); },
     FCS_INVALID_ARGUMENT},
    {"flush_into_a_byte_too_little",
     [](Test t) {
         t.length = 4 + 3 * 12 + 4;
         return flush(t.store, t.out, &t.length);
     },
     FCS_BUFFER_TOO_SMALL},
    {"flush_into_nothing",
     [](Test t) {
         t.length = 4 + 3 * 12 + 5;
         return flush(t.store, nullptr, &t.length);
     },
     FCS_INVALID_ARGUMENT},

    // Tested in this order.
    {"add_to_no_store",
     [](Test t) { return addNewFile(nullptr, "", "alpha", t.block.data(), 11, true); },
     FCS_INVALID_HANDLE},
    {"add_of_less_than_a_record", [](Test t) { return t.add_block(0, nullptr, nullptr, 11); },
     FCS_BUFFER_TOO_SMALL},
    {"add_of_nothing", [](Test t) { return addNewFile(t.store, "", "alpha/", nullptr, 22, true); },
     FCS_INVALID_ARGUMENT},
    {"add_without_name_and_number", [](Test t) { return t.add_block(0, nullptr, nullptr, 12); },
     FCS_INVALID_ARGUMENT},
    {"add_of_a_name_without_number", [](Test t) { return t.add_block(0, nullptr, "alpha/", 12); },
     FCS_NAME_NOT_IN_TABLE},
    {"add_of_an_unknown_number", [](Test t) { return t.add_block(0x777, nullptr, nullptr, 12); },
     FCS_NUMBER_NOT_IN_TABLE},
    {"add_of_a_byte_more_than_the_table_allows",
     [](Test t) { return t.add_block(0x21, nullptr, nullptr, 23); }, FCS_FILE_TOO_LARGE},
    {"add_without_directory", [](Test t) { return t.add_block(0x21, nullptr, "alpha", 22); },
     FCS_INVALID_ARGUMENT},
    {"add_without_name", [](Test t) { return t.add_block(0x21, "", nullptr, 22); },
     FCS_INVALID_ARGUMENT},
    {"add_of_a_file_that_is_there", [](Test t) { return t.add_block(0x21, "", "alpha", 22); },
     FCS_FILE_EXISTS},

    {"delete_from_no_store", [](Test) { return deleteFile(nullptr, "alpha"); }, FCS_INVALID_HANDLE},
    {"delete_of_nothing", [](Test t) { return deleteFile(t.store, nullptr); },
     FCS_INVALID_ARGUMENT},
    {"delete_of_no_file", [](Test t) { return deleteFile(t.store, "gamma"); }, FCS_FILE_NOT_FOUND},
    {"delete_by_a_path_of_components", [](Test t) { return deleteFile(t.store, "dir/delta"); },
     FCS_FILE_NOT_FOUND},

    {"data_of_no_store", [](Test t) { return getFileData(nullptr, "alpha", t.out, &t.length); },
     FCS_INVALID_HANDLE},
    {"data_of_nothing", [](Test t) { return t.data_of(nullptr, 15); }, FCS_INVALID_ARGUMENT},
    {"data_of_no_file", [](Test t) { return t.data_of("gamma", 15); }, FCS_FILE_NOT_FOUND},
    {"data_into_a_byte_too_little", [](Test t) { return t.data_of("alpha", 14); },
     FCS_BUFFER_TOO_SMALL},
    {"head_of_no_store", [](Test t) { return getFileAttributes(nullptr, "alpha", t.out); },
     FCS_INVALID_HANDLE},
    {"head_into_nothing", [](Test t) { return getFileAttributes(t.store, "alpha", nullptr); },
     FCS_INVALID_ARGUMENT},
    {"head_of_no_file", [](Test t) { return getFileAttributes(t.store, "gamma", t.out); },
     FCS_FILE_NOT_FOUND},
    {"first_of_no_store", [](Test t) { return getFirstFileInRoot(nullptr, t.out); },
     FCS_INVALID_HANDLE},
    {"next_of_no_store", [](Test t) { return getNextFile(nullptr, t.out); }, FCS_INVALID_HANDLE},
    {"next_into_nothing", [](Test t) { return getNextFile(t.store, nullptr); },
     FCS_INVALID_ARGUMENT},
};

class FcsRefusalTest : public FcsRefusal, public testing::WithParamInterface<Refusal> {};

// The status, a length that would do, and nothing else: neither the bytes nor the walk has changed.
TEST_P(FcsRefusalTest, LeavesTheStoreAndItsWalk) {
    const Bytes before = flushed();
    EXPECT_EQ(GetParam().call(*this), GetParam().status);
    if (GetParam().status == FCS_BUFFER_TOO_SMALL && length != 0) {
        EXPECT_EQ(length, GetParam().name[0] == 'f' ? before.size() : 15);
    }
    EXPECT_EQ(other, nullptr);
    EXPECT_EQ(out, std::string());
    EXPECT_EQ(flushed(), before);
    EXPECT_EQ(step(getNextFile), "dir/delta");
}

INSTANTIATE_TEST_SUITE_P(All, FcsRefusalTest, testing::ValuesIn(refusals),
                         [](const auto &test) { return std::string(test.param.name); });

TEST_F(FcsTest, AddTakesTheNumberFromTheTableAndAnyName) {
    Bytes block(22);
    for (const auto &[fileno, name] : {std::pair(0U, "alpha"), {0x21, "alpha/"}, {5, "beta"}}) {
        put32(block, 0, fileno);
        EXPECT_EQ(addNewFile(store, "", name, block.data(), 22, true), FCS_OK) << name;
        EXPECT_EQ(dolm::load_le32(block.data()), fileno == 0 ? 0x21 : fileno);
    }
    EXPECT_EQ(walk(), (Names{"alpha", "alpha/", "beta"}));
}

TEST_F(FcsTest, HeadsAndData) {
    ASSERT_EQ(reload(store_of({alpha})), FCS_OK);
    Bytes head = {0x21, 0, 0, 0, 16, 0, 0, 0, 3, 0, 0, 0, 0x41, 0, 10, 0, 0, 0};
    Bytes out(18, 0xEE);
    EXPECT_EQ(getFileAttributes(store, "alpha", out.data()), FCS_OK);
    EXPECT_EQ(out, head);
    ASSERT_EQ(add("alpha/", alpha), FCS_OK);
    EXPECT_EQ(getFileAttributes(store, "alpha/", out.data()), FCS_NUMBER_NOT_IN_TABLE);
    head[4] = 0;
    EXPECT_EQ(out, head) << "the record alone has been copied";

    uint32_t length = 15;
    EXPECT_EQ(getFileData(store, "alpha", out.data(), &length), FCS_OK);
    out.resize(length);
    EXPECT_EQ(out, block_of(alpha, 16));
}

TEST_F(FcsTest, SuccessfulChangesRestartTheWalk) {
    EXPECT_EQ(step(getNextFile), "status 3");
    ASSERT_EQ(add("alpha", alpha) + add("beta", beta) + add("dir/delta", delta), FCS_OK);
    EXPECT_EQ(step(getNextFile), "beta") << "the walk stands on the first file";
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
