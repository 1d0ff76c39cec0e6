// Every kind of change of an AFS store, cut at every write and erase, two cuts deep.
#include <algorithm>
#include <functional>
#include <optional>

#include <gtest/gtest.h>

#include "Afs.h"
#include "AfsFtl.h"
#include "afs/ftl_format.h"
#include "fault_run.h"
#include "image/afs_image.h"
#include "power_cut_run.h"
#include "proof/afs_store.h"

namespace dolm_test {
namespace {

using namespace dolm::proof;

struct Base {
    Image image;
    Files files;
};

constexpr dolm::AfsLayout two_log_eus{5 * AFS_EU_SIZE, 2, 65};
constexpr dolm::AfsLayout three_log_eus{6 * AFS_EU_SIZE, 2, 65};
// Empty files in all of its slots make 17 metadata pages live.
constexpr dolm::AfsLayout many_slots{6 * AFS_EU_SIZE, 2, 512};

constexpr uint32_t small_file = 1;
constexpr uint32_t medium_file = 3;
constexpr uint32_t large_file = 7;
constexpr uint32_t empty_file = 20;
constexpr uint32_t last_file = 64;
constexpr uint32_t new_file = 33;
constexpr uint32_t toggled_file = 50; // comes and goes to move the head of the log

Base populated(const dolm::AfsLayout &layout) {
    Base base;
    base.files = {{small_file, pattern(1, 64)},
                  {medium_file, pattern(2, 300)},
                  {large_file, pattern(3, 1000)},
                  {empty_file, {}},
                  {last_file, pattern(4, 130)}};
    std::vector<dolm::AfsFileInput> inputs;
    for (const auto &[number, contents] : base.files) {
        inputs.push_back({number, contents});
    }
    base.image = dolm::build_afs_image(layout, inputs);
    return base;
}

// Repeats a change until the tables look as wanted.
void repeat_until(AfsStore &store, Base &base,
                  const std::function<bool(const afs_ftl_state &)> &reached,
                  const std::function<Change(uint32_t)> &change) {
    ASSERT_EQ(store.mount(base.image), 0U);
    for (uint32_t i = 0; !reached(store.ftl()); ++i) {
        ASSERT_LT(i, 2000U);
        const Change next = change(i);
        ASSERT_EQ(next.run(), 0U);
        next.effect(base.files);
    }
    store.unmount();
}

uint32_t erased_data_slots(const afs_ftl_state &ftl) {
    uint32_t sum = 0;
    for (uint32_t i = 0; i < ftl.eu_count; ++i) {
        sum += ftl.eu_table[i].va_base != 0 ? ftl.eu_table[i].free_pages : 0U;
    }
    return sum;
}

bool has_blank_log_eu(const afs_ftl_state &ftl) {
    for (uint32_t i = 0; i < ftl.eu_count; ++i) {
        const afs_eu_info &eu = ftl.eu_table[i];
        if (i != ftl.spare_eu && i != ftl.write_eu && eu.va_base == 0 && eu.free_pages != 0) {
            return true;
        }
    }
    return false;
}

// How full a store is to be made, as far as it is said.
struct Filling {
    std::optional<uint32_t> erased_data_slots = {}; // left
    std::optional<uint32_t> head_slot = {};         // the next one of the log
    bool blank_log_eu = false;                      // beside the head
};

void fill(AfsStore &store, Base &base, const Filling &filling) {
    // Each step takes one chunk.
    repeat_until(
        store, base,
        [&](const afs_ftl_state &ftl) {
            return erased_data_slots(ftl) ==
                   filling.erased_data_slots.value_or(erased_data_slots(ftl));
        },
        [&](uint32_t i) { return store.write(small_file, 0, pattern(i, 64)); });
    // Each step writes one page to the log.
    repeat_until(
        store, base,
        [&](const afs_ftl_state &ftl) {
            return !filling.head_slot || (ftl.write_slot == *filling.head_slot &&
                                          has_blank_log_eu(ftl) == filling.blank_log_eu);
        },
        [&](uint32_t i) {
            return i % 2 == 0 ? store.write(toggled_file, 0, {}) : store.remove(toggled_file);
        });
}

using Changes = std::vector<Change>;
using Prepare = std::function<Changes(AfsStore &, Base &)>; // on a populated store

Prepare small_changes(const Filling &filling) {
    return [=](AfsStore &store, Base &base) {
        fill(store, base, filling);
        return Changes{store.write(medium_file, 0, pattern(9, 300)), store.remove(last_file),
                       store.write(small_file, 0, pattern(8, 20))};
    };
}

Prepare maintenance(const Filling &filling, uint32_t (*operation)(afs_context *),
                    size_t times = 1) {
    return [=](AfsStore &store, Base &base) {
        fill(store, base, filling);
        return Changes(times, store.maintain("maintenance", operation));
    };
}

uint32_t reclaim_the_head(afs_context *context) {
    return reclaim_eu(context, context->ftl->write_eu, AFS_FTL_MODE_RECLAIM);
}

uint32_t copy_log_pages(afs_context *context) {
    uint8_t page[AFS_PAGE_SIZE];
    uint32_t status = AFS_RC_OK;
    for (uint32_t va = 0; status == AFS_RC_OK && va < context->data_va_start; va += AFS_PAGE_SIZE) {
        if (context->ftl->page_map[va / AFS_PAGE_SIZE].slot < AFS_FTL_EU_PAGES) {
            status = afs_physical_ftl_read_page(context, va, AFS_PAGE_SIZE, page, 0);
            status = status != AFS_RC_OK
                         ? status
                         : afs_physical_ftl_write_page(context, va, AFS_PAGE_SIZE, page, 0);
        }
    }
    return status;
}

// The log's first EU keeps metadata pages of all slots, while the head is close to the end of
// another EU: these pages do not fit behind it.
Prepare head_overflow(bool blank_log_eu) {
    return [=](AfsStore &store, Base &base) {
        Changes changes;
        for (uint32_t file = 100; file < 512; file += 31) {
            changes.push_back(store.write(file, 0, {}));
        }
        run_changes(store, base.image, base.files, changes);
        fill(store, base, {.head_slot = 120, .blank_log_eu = true});
        fill(store, base, {.head_slot = 115, .blank_log_eu = blank_log_eu});
        return Changes{store.reclaim(0), store.write(300, 0, pattern(9, 70))};
    };
}

// Leaves the EU of a kind that has most live pages far behind the others in wear, so that only the
// wear rule chooses it.
uint32_t wear_out_all_but_the_fullest(Image &image, dolm::AfsRole role) {
    const dolm::AfsImage found = dolm::read_afs_image(image);
    const auto live = [role](const dolm::AfsEu &eu) { return eu.role == role ? eu.live : 0; };
    const auto fullest =
        static_cast<uint32_t>(std::ranges::max_element(found.eus, {}, live) - found.eus.begin());
    for (uint32_t eu = 0; eu < found.eu_count; ++eu) {
        uint8_t *bytes = &image[size_t{eu} * AFS_EU_SIZE];
        dolm::afs_eu_header header = dolm::load_eu_header(bytes);
        header.erase_count = eu == fullest ? 100 : 210;
        dolm::store_eu_header(bytes, header);
    }
    return fullest;
}

Prepare wear_rule(dolm::AfsRole role, const Filling &filling) {
    return [=](AfsStore &store, Base &base) {
        fill(store, base, filling);
        const uint32_t eu = wear_out_all_but_the_fullest(base.image, role);
        const auto eu_is_spare = [eu](afs_context *context) -> uint32_t {
            return context->ftl->spare_eu == eu ? 0 : 1;
        };
        return Changes{store.write(small_file, 0, pattern(9, 64)),
                       store.maintain("the choice of EU " + std::to_string(eu), eu_is_spare)};
    };
}

// Runs a change up to the given number of writes before its end.
void run_all_but(AfsStore &store, Image &image, const Change &change, size_t left_out) {
    Image copy = image;
    ASSERT_EQ(store.mount(copy), 0U);
    DeviceDouble &device = DeviceDouble::instance();
    device.attach(copy);
    ASSERT_EQ(change.run(), 0U);
    const size_t events = device.log().size();
    device.detach();
    ASSERT_EQ(store.mount(image), 0U);
    device.cut_after(events - left_out);
    ASSERT_NE(change.run(), 0U);
    device.restore_power();
    store.unmount();
}

// Both kinds of reclaim on a store that was cut inside one.
Prepare after_a_cut(Change (AfsStore::*reclaim)(), size_t left_out, const Filling &filling = {}) {
    return [=](AfsStore &store, Base &base) {
        fill(store, base, filling);
        run_all_but(store, base.image, (store.*reclaim)(), left_out);
        return Changes{store.write(medium_file, 10, pattern(9, 70)), store.reclaim_data(),
                       store.reclaim_log(), store.reclaim_data()};
    };
}

// A write that the store has to refuse, and that leaves everything as it was.
Change expect_no_space(const Change &change) {
    return {change.name + " without room",
            [run = change.run]() -> uint32_t {
                const uint32_t status = run();
                return status == AFS_RC_NO_SPACE ? 0 : status == AFS_RC_OK ? 1 : status;
            },
            {}};
}

struct Case {
    const char *name;
    unsigned erased_eus; // in a run without a cut
    Prepare prepare;     // gives the changes; a last write follows them
    dolm::AfsLayout layout = two_log_eus;
    uint32_t cache_lines = dolm::afs_cache_lines;
};

void PrintTo(const Case &test, std::ostream *out) {
    *out << test.name;
}

const Case cases[] = {
    {"writes", 0,
     [](AfsStore &store, Base &) {
         return Changes{store.write(medium_file, 100, pattern(9, 70)),
                        store.write(medium_file, 300, pattern(9, 200)),
                        store.write(empty_file, 0, pattern(10, 1)),
                        store.write(last_file, 400, pattern(9, 30)),
                        store.write(new_file, 100, pattern(10, 5))};
     }},
    {"truncate", 0,
     [](AfsStore &store, Base &) {
         return Changes{store.write(large_file, 500, pattern(9, 7), AFS_WRITE_TRUNCATE),
                        store.write(medium_file, 128, {}, AFS_WRITE_TRUNCATE),
                        store.write(last_file, 129, {}, AFS_WRITE_TRUNCATE),
                        store.write(large_file, 0, {}, AFS_WRITE_TRUNCATE)};
     }},
    {"create_and_delete", 0,
     [](AfsStore &store, Base &) {
         return Changes{store.write(new_file, 0, {}), store.write(new_file, 0, pattern(1, 64)),
                        store.remove(large_file), store.remove(empty_file),
                        store.write(large_file, 0, pattern(9, 100))};
     }},
    {"zombie", 0,
     [](AfsStore &store, Base &base) {
         run_changes(store, base.image, base.files, {store.mark_zombie(2)});
         return Changes{store.mark_zombie(new_file), store.write(new_file, 0, pattern(9, 65)),
                        store.mark_zombie(40), store.remove(40)};
     }},
    {"large_write", 0,
     [](AfsStore &store, Base &) { return Changes{store.write(new_file, 0, pattern(9, 4200))}; }},
    {"large_write_through_a_small_cache", 0,
     [](AfsStore &store, Base &) {
         return Changes{store.write(new_file, 0, pattern(9, 4200)),
                        store.write(new_file, 1000, pattern(10, 2500))};
     },
     two_log_eus, 2},
    {"write_without_room", 2,
     [](AfsStore &store, Base &base) {
         run_changes(store, base.image, base.files, {store.write(40, 0, pattern(9, 13000))});
         return Changes{expect_no_space(store.write(new_file, 0, pattern(10, 1200))),
                        store.remove(40), store.write(new_file, 0, pattern(11, 1200))};
     }},
    {"allocation_pages_given_up", 1,
     [](AfsStore &store, Base &base) {
         run_changes(store, base.image, base.files, {store.write(new_file, 0, pattern(9, 6400))});
         return Changes{store.remove(new_file), store.reclaim_log(),
                        store.write(new_file, 0, pattern(10, 1000))};
     }},
    {"log_moves_to_blank_eu", 0, small_changes({.head_slot = 118, .blank_log_eu = true}),
     three_log_eus},
    {"log_reclaim_on_demand", 1, small_changes({.head_slot = 118})},
    {"log_reclaim_on_demand_third_eu", 1, small_changes({.head_slot = 119}), three_log_eus},
    {"data_allocator_moves", 0, small_changes({.erased_data_slots = AFS_DATA_EU_PAGES + 2})},
    {"data_reclaim_on_demand", 1, small_changes({.erased_data_slots = 2})},
    {"data_reclaim_of_scattered_chunks", 1,
     [](AfsStore &store, Base &base) {
         Changes changes;
         for (uint32_t i = 0; i < 12; ++i) {
             changes.push_back(store.write(40 + i, 0, pattern(i, 100)));
             changes.push_back(store.write(medium_file, 0, pattern(i, 300)));
         }
         run_changes(store, base.image, base.files, changes);
         fill(store, base, {.erased_data_slots = 1});
         return Changes{store.write(large_file, 200, pattern(9, 300))};
     }},
    {"both_reclaims_on_demand", 2, small_changes({.erased_data_slots = 1, .head_slot = 118})},
    {"idle_reclaim_of_log", 1, maintenance({.head_slot = 100}, afs_idle_reclaim)},
    {"idle_reclaim_of_data", 1, maintenance({.erased_data_slots = 20}, afs_idle_reclaim, 2)},
    {"idle_reclaim_of_dead_log_eu", 1,
     [](AfsStore &store, Base &base) {
         fill(store, base, {.head_slot = 120, .blank_log_eu = true});
         run_changes(store, base.image, base.files,
                     {store.maintain("a new copy of each log page", copy_log_pages)});
         return Changes{store.maintain("idle reclaim", afs_idle_reclaim)};
     },
     three_log_eus},
    {"force_full_reclaim", 3, maintenance({}, afs_force_full_reclaim, 3)},
    {"dirty_erase", 0,
     [](AfsStore &store, Base &base) {
         run_changes(store, base.image, base.files,
                     {store.write(large_file, 300, pattern(9, 200)), store.reclaim_data()});
         return Changes{store.maintain("dirty erase", afs_force_dirty_erase)};
     }},
    {"end_of_reserved_files_mode", 2, maintenance({}, afs_physical_ftl_end_reserved_files_mode)},
    {"reclaim_of_the_head", 1, maintenance({.head_slot = 60}, reclaim_the_head)},
    {"head_overflows_to_blank_eu", 1, head_overflow(true), many_slots},
    {"head_overflows_to_spare", 1, head_overflow(false), many_slots},
    {"wear_rule_on_data", 1, wear_rule(dolm::AfsRole::data, {.erased_data_slots = 0})},
    {"wear_rule_on_log", 1, wear_rule(dolm::AfsRole::log, {.head_slot = 120})},
    {"rolled_forward_data", 3, after_a_cut(&AfsStore::reclaim_data, 1)},
    {"rolled_forward_log", 3, after_a_cut(&AfsStore::reclaim_log, 1, {.head_slot = 70})},
    {"rolled_forward_head", 3, after_a_cut(&AfsStore::reclaim_log, 1, {.head_slot = 120})},
    {"rolled_back_data", 3, after_a_cut(&AfsStore::reclaim_data, 2)},
    {"rolled_back_log", 4, after_a_cut(&AfsStore::reclaim_log, 2, {.head_slot = 120})},
};

class AfsPowerCut : public testing::TestWithParam<Case> {};

// The workload reaches what its name promises.
void expect_erased_eus(AfsStore &store, const Base &base, const Changes &changes, unsigned count) {
    Base copy = base;
    ASSERT_EQ(store.mount(copy.image), 0U);
    DeviceDouble &device = DeviceDouble::instance();
    device.attach(copy.image);
    for (const Change &change : changes) {
        EXPECT_EQ(change.run(), 0U) << change.name;
    }
    EXPECT_EQ(device.count(DeviceAccess::erase), 2 * count);
    device.detach();
    store.unmount();
}

TEST_P(AfsPowerCut, EveryCutLeavesTheOldOrTheNew) {
    const Case &test = GetParam();
    AfsStore store(test.cache_lines);
    Base base = populated(test.layout);
    Changes changes = test.prepare(store, base);
    changes.push_back(store.write(medium_file, 10, pattern(9, 70)));
    ASSERT_FALSE(HasFatalFailure());
    ASSERT_EQ(dolm::check_invariants(base.image), std::vector<std::string>{});
    expect_erased_eus(store, base, changes, test.erased_eus);

    expect_every_cut_holds("AFS", store, {test.name, base.image, base.files, changes});
}

TEST_P(AfsPowerCut, EveryFaultLeavesTheOldOrTheNew) {
    const Case &test = GetParam();
    AfsStore store(test.cache_lines);
    Base base = populated(test.layout);
    const Changes changes = test.prepare(store, base);
    // No call does more than write every page slot once and move every EU.
    const uint64_t slots = base.image.size() / dolm::page_slot_size;
    expect_every_fault_is_survived(store, {test.name, base.image, base.files, changes},
                                   {{AFS_RC_IO, AFS_RC_NO_SPACE}, 8 * slots, false});
}

// Cuts follow each other without end, over stores that wear and fill up.
TEST(AfsPowerCutChain, HoldsFromCutToCut) {
    AfsStore store;
    expect_chains_hold("AFS", store, 40, [](uint64_t seed) {
        const Base base = populated(seed % 2 == 0 ? two_log_eus : three_log_eus);
        return Workload{"chain", base.image, base.files, {}};
    });
}

TEST(AfsWipe, EveryFaultInAFormatCanBeWiped) {
    AfsStore store;
    const Base base = populated(two_log_eus);
    const Change format = {"the format",
                           [] {
                               constexpr uint32_t flags = AFS_FLAG_MOUNT_FTL | AFS_FLAG_FTL |
                                                          AFS_FLAG_FORCE_FORMAT |
                                                          AFS_FLAG_ERASE_ON_FORMAT;
                               afs_context context{};
                               const uint32_t status =
                                   afs_init(&context, nullptr, AFS_PAGE_SIZE, 10, 65, 0,
                                            two_log_eus.device_size, flags, 0, 0);
                               afs_free_context(&context);
                               return status;
                           },
                           {}};
    expect_every_fault_can_be_wiped(store, {"format", base.image, base.files, {format}},
                                    {{AFS_RC_IO}, 1000, false});
}

INSTANTIATE_TEST_SUITE_P(All, AfsPowerCut, testing::ValuesIn(cases),
                         [](const auto &test) { return std::string(test.param.name); });

} // namespace
} // namespace dolm_test
