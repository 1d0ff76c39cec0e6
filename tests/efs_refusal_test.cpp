// What EFS refuses, call by call: the status is the only thing that comes of it. The device sees no
// access, and neither the image nor anything that the store has in memory changes.
#include <functional>
#include <ostream>

#include "efs/efs_internal.h"
#include "efs_fixture.h"

namespace dolm_test {
namespace {

// All of the context, with the arrays that it points to.
Bytes memory_of_the_store() {
    Bytes all(sizeof efs_ctx);
    std::memcpy(all.data(), &efs_ctx, sizeof efs_ctx);
    const auto add = [&](const void *bytes, size_t length) {
        const auto *from = static_cast<const uint8_t *>(bytes);
        all.insert(all.end(), from, from + length);
    };
    if (efs_ctx.initialized != 0) {
        add(efs_ctx.erase_counts, 10 * sizeof *efs_ctx.erase_counts);
        add(efs_ctx.block_status, 3);
        add(efs_ctx.current_bme.valid_map, 7);
        add(efs_ctx.current_bme.non_valid_map, 3);
    }
    return all;
}

class EfsRefusal : public EfsTest {
  public:
    void SetUp() override {
        EfsTest::SetUp();
        // Different records and blocks of each kind: a file, an absent one, a dirty spare, free
        // ones, and every count known.
        ASSERT_EQ(write(3, efs_pattern(4500, 1)), EFS_OK);
        ASSERT_EQ(EFS_scan_for_Data_Blocks_status_and_EC(), EFS_OK);
        std::copy_n(efs_ctx.current_bme.valid_map, 7, maps);
        std::copy_n(efs_ctx.current_bme.non_valid_map, 3, maps + 7);
        device().attach(image);
    }

    // The call gives that status; nothing has happened.
    void expect_refused(const std::function<uint32_t(EfsRefusal &)> &call, uint32_t status) {
        const Bytes image_before = image;
        const Bytes memory_before = memory_of_the_store();
        const Bytes maps_before(maps, maps + 10);
        EXPECT_EQ(call(*this), status);
        EXPECT_EQ(take_events(), "");
        EXPECT_EQ(device().count(DeviceAccess::read), 0U);
        EXPECT_TRUE(image == image_before);
        EXPECT_TRUE(memory_of_the_store() == memory_before);
        EXPECT_EQ(Bytes(maps, maps + 10), maps_before);
    }

    // A mapping of the caller's own, good until one of its entries is changed.
    EFS_bme own(uint32_t at = 0, uint8_t entry = 0) {
        bme_maps.assign(maps, maps + 10);
        bme_maps[at] = at == 0 && entry == 0 ? maps[0] : entry;
        return {bme_maps.data(), bme_maps.data() + 7, 5, 6, 7};
    }

    uint8_t maps[10] = {};
    Bytes bme_maps;
    Bytes data = efs_pattern(4097, 9);
    uint32_t word = 4;
};

using Test = EfsRefusal &;
constexpr uint32_t most = 0xFFFFFFFF;

struct Refusal {
    const char *name;
    std::function<uint32_t(Test)> call;
    uint32_t status = EFS_INVALID;
};

void PrintTo(const Refusal &test, std::ostream *out) {
    *out << test.name;
}

const Refusal refusals[] = {
    // The verified write.
    {"write_without_data", [](Test) { return EFS_write_with_read_check(0x8010, 4, nullptr, 0); }},
    {"write_without_length",
     [](Test t) { return EFS_write_with_read_check(0x8010, 0, t.data.data(), 0); }},
    {"checked_write_without_data",
     [](Test) { return EFS_write_with_read_check(0x8010, 4, nullptr, 1); }},
    {"write_longer_than_a_block",
     [](Test t) { return EFS_write_with_read_check(0x8000, 4097, t.data.data(), 0); },
     EFS_BAD_DATA},
    {"write_longer_than_a_block_without_data",
     [](Test) { return EFS_write_with_read_check(0x8000, 4097, nullptr, 1); }, EFS_BAD_DATA},

    // Blocks.
    {"block_beyond_the_last", [](Test t) { return EFS_write_data_block(10, t.data.data()); }},
    {"block_whose_address_wraps",
     [](Test t) { return EFS_write_data_block(0xFFFFF - 1, t.data.data()); }},
    {"block_without_data", [](Test) { return EFS_write_data_block(9, nullptr); }},
    {"footer_beyond_the_last", [](Test t) { return EFS_write_data_footer(10, t.data.data()); }},
    {"footer_whose_address_wraps",
     [](Test t) { return EFS_write_data_footer(0xFFFFF - 1, t.data.data()); }},
    {"footer_without_data", [](Test) { return EFS_write_data_footer(9, nullptr); }},
    {"free_slot_into_nothing", [](Test) { return EFS_select_free_page_for_write(nullptr); }},
    {"swap_in_no_map",
     [](Test t) { return EFS_bme_swap_and_write_new_block(nullptr, 0, t.data.data()); }},
    {"swap_without_data",
     [](Test t) {
         EFS_bme bme = t.own();
         return EFS_bme_swap_and_write_new_block(&bme, 0, nullptr);
     }},
    {"swap_without_a_map_of_valid_blocks",
     [](Test t) {
         EFS_bme bme = t.own();
         bme.valid_map = nullptr;
         return EFS_bme_swap_and_write_new_block(&bme, 0, t.data.data());
     }},
    {"swap_without_a_map_of_spares",
     [](Test t) {
         EFS_bme bme = t.own();
         bme.non_valid_map = nullptr;
         return EFS_bme_swap_and_write_new_block(&bme, 0, t.data.data());
     }},
    {"swap_of_no_logical_block",
     [](Test t) {
         return EFS_bme_swap_and_write_new_block(&efs_ctx.current_bme, 7, t.data.data());
     }},
    {"check_of_no_block",
     [](Test) { return EFS_read_and_verify_data_block_header_and_footer(10, 1, 1); }},
    {"check_of_a_footer_that_is_not_read",
     [](Test) { return EFS_read_and_verify_data_block_header_and_footer(0, 1, 0); }, EFS_BAD_DATA},
    {"record_of_no_logical_block", [](Test) { return EFS_read_and_verify_file(7, 0, 1, 0); }},
    {"record_at_no_offset", [](Test) { return EFS_read_and_verify_file(0, 4073, 1, 0); }},
    {"record_longer_than_its_block", [](Test) { return EFS_read_and_verify_file(0, 1, 0, 4072); }},

    // Block maps.
    {"switch_to_no_map", [](Test) { return EFS_switch_BM(nullptr); }},
    {"switch_to_half_a_map",
     [](Test t) {
         EFS_bme bme = t.own();
         bme.non_valid_map = nullptr;
         return EFS_switch_BM(&bme);
     }},
    {"switch_to_a_valid_block_that_is_none",
     [](Test t) {
         const EFS_bme bme = t.own(0, 10);
         return EFS_switch_BM(&bme);
     }},
    {"switch_to_a_spare_that_is_none",
     [](Test t) {
         const EFS_bme bme = t.own(9, 255);
         return EFS_switch_BM(&bme);
     }},
    {"commit_of_no_map", [](Test) { return EFS_commit_BME(nullptr, 1, 2); }},
    {"commit_of_half_a_map",
     [](Test t) {
         EFS_bme bme = t.own();
         bme.valid_map = nullptr;
         return EFS_commit_BME(&bme, 1, 2);
     }},
    {"commit_of_a_valid_block_that_is_none",
     [](Test t) {
         EFS_bme bme = t.own(6, 10);
         const uint32_t status = EFS_commit_BME(&bme, 1, 2);
         EXPECT_EQ(bme.aux0 + bme.aux1 + bme.crc32, 5U + 6 + 7);
         return status;
     }},
    {"commit_of_a_spare_that_is_none",
     [](Test t) {
         EFS_bme bme = t.own(7, 10);
         return EFS_commit_BME(&bme, 1, 2);
     }},
    {"look_at_no_bm", [](Test) { return EFS_check_next_BM_state(2); }},
    {"look_at_a_bm_far_behind", [](Test) { return EFS_check_next_BM_state(most); }},
    {"erase_of_no_bm", [](Test) { return EFS_erase_next_BM(2); }},
    {"erase_of_a_bm_far_behind", [](Test) { return EFS_erase_next_BM(most); }},

    // Files.
    {"read_of_a_slot_that_is_not_present",
     [](Test t) { return EFS_read(10, 0, &t.word, t.data.data()); }},
    {"read_of_no_slot", [](Test t) { return EFS_read(16, 0, &t.word, t.data.data()); }},
    {"read_without_a_length", [](Test t) { return EFS_read(3, 0, nullptr, t.data.data()); }},
    {"read_into_nothing", [](Test t) { return EFS_read(3, 0, &t.word, nullptr); }},
    {"read_of_a_range_that_wraps",
     [](Test t) { return EFS_read(3, most - 3, &t.word, t.data.data()); }},
    {"size_of_no_slot", [](Test t) { return EFS_get_file_size(16, &t.word); }},
    {"size_into_nothing", [](Test) { return EFS_get_file_size(3, nullptr); }},
    {"write_of_a_slot_that_is_not_present",
     [](Test t) { return EFS_write(10, 0, 1, t.data.data()); }},
    {"write_of_no_slot", [](Test t) { return EFS_write(most, 0, 1, t.data.data()); }},
    {"write_of_nothing", [](Test) { return EFS_write(3, 0, 0, nullptr); }},
    {"write_of_a_part", [](Test t) { return EFS_write(3, 1, 1, t.data.data()); }},
    {"write_longer_than_the_file", [](Test t) { return EFS_write(2, 0, 501, t.data.data()); },
     EFS_OUT_OF_RANGE},
    {"write_of_a_length_that_means_no_file",
     [](Test t) { return EFS_write(4, 0, 0xFFFF, t.data.data()); }, EFS_OUT_OF_RANGE},
    {"write_over_more_blocks_than_spares",
     [](Test t) { return EFS_write(4, 0, 12213, t.data.data()); }, EFS_NO_SPACE},
    {"delete_of_a_slot_that_is_not_present", [](Test) { return EFS_delete(10); }},
    {"delete_of_no_slot", [](Test) { return EFS_delete(16); }},
    {"mount_of_nothing", [](Test) { return EFS_init_tools(nullptr); }},
};

class EfsRefusalTest : public EfsRefusal, public testing::WithParamInterface<Refusal> {};

TEST_P(EfsRefusalTest, IsAllThatHappens) {
    expect_refused(GetParam().call, GetParam().status);
    EXPECT_EQ(word, std::string_view(GetParam().name).starts_with("read_") &&
                            std::string_view(GetParam().name) != "read_without_a_length"
                        ? 0U
                        : 4U)
        << "a read delivers nothing, and nothing else stores anything";
}

INSTANTIATE_TEST_SUITE_P(All, EfsRefusalTest, testing::ValuesIn(refusals),
                         [](const auto &test) { return std::string(test.param.name); });

// Two refusals that the store remembers.
TEST_F(EfsRefusal, LeavesTheScanOrASpareInDoubt) {
    EXPECT_EQ(EFS_erase_data_block(10, 0), EFS_INVALID);
    EXPECT_EQ(efs_ctx.scan_done, 0);
    efs_ctx.scan_done = 1;

    uint32_t slot = 0;
    ASSERT_EQ(EFS_select_free_page_for_write(&slot), EFS_OK);
    const uint32_t free_before = efs_ctx.free_block_count;
    EFS_bme bme = own(7 + slot, 10);
    EXPECT_EQ(EFS_bme_swap_and_write_new_block(&bme, 0, data.data()), EFS_INVALID);
    EXPECT_EQ(efs_ctx.block_status[slot], EFS_BLOCK_DIRTY);
    EXPECT_EQ(efs_ctx.free_block_count, free_before - 1);
    EXPECT_EQ(bme_maps[0], maps[0]);
    EXPECT_EQ(bme_maps[7 + slot], 10);
    EXPECT_EQ(take_events(), "");
    EXPECT_EQ(EFS_select_free_page_for_write(&slot), EFS_BAD_DATA) << "it was the last one";
}

// Everything that works on a store, with good arguments: whether it needs a mounted one.
struct Call {
    const char *name;
    std::function<uint32_t(Test)> call;
    bool needs_mount = true;
};

const Call calls[] = {
    {"EFS_read", [](Test t) { return EFS_read(0, 0, &t.word, t.data.data()); }},
    {"EFS_write", [](Test t) { return EFS_write(0, 0, 4, t.data.data()); }},
    {"EFS_delete", [](Test) { return EFS_delete(3); }},
    {"EFS_get_file_size", [](Test t) { return EFS_get_file_size(3, &t.word); }},
    {"EFS_scan_for_Data_Blocks_status_and_EC",
     [](Test) { return EFS_scan_for_Data_Blocks_status_and_EC(); }},
    {"EFS_wear_leveling", [](Test) { return EFS_wear_leveling(0, 0); }},
    {"EFS_erase_dirty_block", [](Test) { return EFS_erase_dirty_block(); }},
    {"EFS_idle_reclaim", [](Test) { return EFS_idle_reclaim(); }},
    {"EFS_commit_BME",
     [](Test t) {
         EFS_bme bme = t.own();
         return EFS_commit_BME(&bme, 0, 0);
     }},
    {"EFS_switch_BM",
     [](Test t) {
         const EFS_bme bme = t.own();
         return EFS_switch_BM(&bme);
     }},
    {"EFS_select_free_page_for_write",
     [](Test t) { return EFS_select_free_page_for_write(&t.word); }},
    {"EFS_bme_swap_and_write_new_block",
     [](Test t) {
         EFS_bme bme = t.own();
         return EFS_bme_swap_and_write_new_block(&bme, 0, t.data.data());
     }},
    {"EFS_read_and_verify_file", [](Test) { return EFS_read_and_verify_file(3, 0, 1, 0); }},
    {"EFS_write_data_block", [](Test t) { return EFS_write_data_block(9, t.data.data()); }, false},
    {"EFS_write_data_footer", [](Test t) { return EFS_write_data_footer(9, t.data.data()); },
     false},
    {"EFS_write_with_read_check",
     [](Test t) { return EFS_write_with_read_check(0x8000, 4, t.data.data(), 0); }, false},
    {"EFS_erase_data_block", [](Test) { return EFS_erase_data_block(9, 1); }, false},
    {"EFS_check_next_BM_state", [](Test) { return EFS_check_next_BM_state(1); }, false},
    {"EFS_erase_next_BM", [](Test) { return EFS_erase_next_BM(1); }, false},
    {"EFS_write_RTFD_marker", [](Test) { return EFS_write_RTFD_marker(); }, false},
    {"EFS_erase", [](Test) { return EFS_erase(); }, false},
    {"EFS_do_format", [](Test) { return EFS_do_format(); }, false},
};

TEST_F(EfsRefusal, NothingWorksOnceTheGeometryHasChanged) {
    for (const Geometry &other :
         {Geometry{.bm_num = 3}, Geometry{.valid_block_num = 200, .non_valid_block_num = 55},
          Geometry{.layout_id = 1}}) {
        ASSERT_EQ(load(other), 0u);
        for (const Call &call : calls) {
            SCOPED_TRACE(call.name);
            word = 4;
            expect_refused(call.call, EFS_NOT_MOUNTED);
        }
    }
}

TEST_F(EfsRefusal, ACallNeedsTheMountThatItWorksOn) {
    for (const Call &call : calls) {
        SCOPED_TRACE(call.name);
        start({});
        ASSERT_EQ(EFS_erase(), EFS_OK);
        device().attach(image);
        if (call.needs_mount) {
            expect_refused(call.call, EFS_NOT_MOUNTED);
        } else {
            EXPECT_NE(call.call(*this), EFS_NOT_MOUNTED);
            EXPECT_NE(device().count(DeviceAccess::read) + device().log().size(), 0U);
        }
        EXPECT_EQ(EFS_is_initialized(), 0);
    }
}

} // namespace
} // namespace dolm_test
