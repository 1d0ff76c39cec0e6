// The words for a refused table, held against the library: whatever is done to a table, there is a
// reason exactly if the library refuses it.
#include <gtest/gtest.h>

#include <random>

#include "FCS.h"
#include "efs_tools_utils.h"
#include "host/manifest.h"
#include "host/table_refusal.h"
#include "host/tables.h"
#include "sample.h"

namespace dolm {
namespace {

bool library_takes_ftbl(const Bytes &ftbl, uint32_t sku) {
    return load_file_table(ftbl.data(), sku, static_cast<uint32_t>(ftbl.size())) == 0;
}

bool library_takes_store(const Bytes &store) {
    void *handle = nullptr;
    const uint32_t status =
        createHandleFromStructure(&handle, store.data(), static_cast<uint32_t>(store.size()));
    if (status == FCS_OK) {
        closeHandle(&handle);
    }
    return status == FCS_OK;
}

// Sets some bytes among the first ones, where the structure of a table lies, or cuts its end off.
Bytes damaged(const Bytes &table, std::mt19937 &random) {
    constexpr uint32_t structure = 1200;
    Bytes bytes = table;
    if (random() % 8 == 0) {
        bytes.resize(random() % bytes.size());
    }
    for (size_t i = random() % 3; i > 0 && !bytes.empty(); --i) {
        constexpr uint8_t values[] = {0, 1, 2, 11, 128, 255};
        const size_t at = random() % std::min<size_t>(bytes.size(), structure);
        bytes[at] = values[random() % std::size(values)];
    }
    return bytes;
}

class TableRefusal : public testing::Test {
  protected:
    const Manifest manifest = parse_manifest(sample_manifest_text(), "the sample", {});
    const Bytes ftbl = make_ftbl(manifest);
    std::mt19937 random{7};
    int refused = 0;
};

TEST_F(TableRefusal, HasAReasonExactlyForTheFileTablesThatTheLibraryRefuses) {
    for (int i = 0; i < dolm_test::sampled(20000); ++i) {
        const Bytes bytes = damaged(ftbl, random);
        const auto sku = static_cast<uint32_t>(1 + random() % 3);
        const auto refusal = why_ftbl_refused(bytes, sku);
        // The library reads the head of what it takes for a table without knowing its length.
        const bool taken = bytes.size() >= 16 && library_takes_ftbl(bytes, sku);
        ASSERT_EQ(taken, !refusal) << i << (refusal ? ": " + refusal->text : "");
        refused += refusal ? 1 : 0;
    }
    EXPECT_GT(refused, dolm_test::sampled(1000));
    load_file_table(ftbl.data(), 1, static_cast<uint32_t>(ftbl.size()));
}

TEST_F(TableRefusal, HasAReasonExactlyForTheStoresThatTheLibraryRefuses) {
    const Bytes orvel_cfg = make_orvel_cfg(manifest);
    ASSERT_TRUE(library_takes_ftbl(ftbl, 1));
    for (int i = 0; i < dolm_test::sampled(20000); ++i) {
        const Bytes bytes = damaged(orvel_cfg, random);
        const auto refusal = why_orvel_refused(bytes, ftbl, 1);
        ASSERT_EQ(library_takes_store(bytes), !refusal) << i << (refusal ? refusal->text : "");
        const auto in_partition = why_vync_refused(with_vync_head(bytes), ftbl, 1);
        ASSERT_EQ(refusal.has_value(), in_partition.has_value());
        refused += refusal ? 1 : 0;
    }
    EXPECT_GT(refused, dolm_test::sampled(1000));
}

TEST_F(TableRefusal, NamesTheRecordAndTheNumbers) {
    Bytes store = make_orvel_cfg(manifest);
    put_le(store, 4 + 12 + 4, 70000, 4);
    const auto refusal = why_orvel_refused(store, ftbl, 1);
    ASSERT_TRUE(refusal);
    EXPECT_EQ(refusal->offset, 16u);
    const std::string end = "reaches past the end: 2222 bytes at offset 70000 of 22462";
    EXPECT_TRUE(refusal->text.ends_with(end)) << refusal->text;
    EXPECT_EQ(why_vync_refused(Bytes(15), ftbl, 1)->text,
              "it has 15 bytes, less than its head of 16");
    Bytes partition = with_vync_head(store);
    partition.resize(20);
    EXPECT_EQ(why_vync_refused(partition, ftbl, 1)->offset, 8u);
}

} // namespace
} // namespace dolm
