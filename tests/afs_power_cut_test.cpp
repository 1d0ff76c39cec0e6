// Every kind of change of an AFS store, cut at every write and erase, two cuts deep.
#include <algorithm>
#include <functional>
#include <iostream>
#include <utility>

#include <gtest/gtest.h>

#include "Afs.h"
#include "AfsFtl.h"
#include "afs/ftl_format.h"
#include "afs_store.h"
#include "host/afs_image.h"

namespace dolm_test {
namespace {

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

void run(AfsStore &store, Base &base, const std::vector<Change> &changes) {
    run_changes(store, base.image, base.files, changes);
}

using Predicate = std::function<bool(const afs_ftl_state &)>;

// Repeats a change until the tables look as wanted.
void repeat_until(AfsStore &store, Base &base, const Predicate &reached,
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

// Each step writes one page to the log.
void fill_log(AfsStore &store, Base &base, const Predicate &reached) {
    repeat_until(store, base, reached, [&store](uint32_t i) {
        return i % 2 == 0 ? store.write(toggled_file, 0, {}) : store.remove(toggled_file);
    });
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

Predicate head_at(uint32_t slot, bool with_blank_eu) {
    return [=](const afs_ftl_state &ftl) {
        return ftl.write_slot == slot && has_blank_log_eu(ftl) == with_blank_eu;
    };
}

uint32_t erased_data_slots(const afs_ftl_state &ftl) {
    uint32_t sum = 0;
    for (uint32_t i = 0; i < ftl.eu_count; ++i) {
        sum += ftl.eu_table[i].va_base != 0 ? ftl.eu_table[i].free_pages : 0U;
    }
    return sum;
}

// Each step takes one chunk.
void fill_data(AfsStore &store, Base &base, const Predicate &reached) {
    repeat_until(store, base, reached,
                 [&store](uint32_t i) { return store.write(small_file, 0, pattern(i, 64)); });
}

Predicate erased_slots_left(uint32_t slots) {
    return [=](const afs_ftl_state &ftl) { return erased_data_slots(ftl) == slots; };
}

void set_erase_count(Image &image, uint32_t eu, uint32_t count) {
    uint8_t *bytes = &image[size_t{eu} * AFS_EU_SIZE];
    dolm::afs_eu_header header = dolm::load_eu_header(bytes);
    const uint32_t magic = std::exchange(header.magic, dolm::eu_magic); // 0 in the spare
    header.erase_count = count;
    dolm::store_eu_header(bytes, header);
    dolm::store_le32(bytes, magic);
}

// Leaves the EU of a kind that has least to give far behind the others in wear, so that only the
// wear rule chooses it.
uint32_t wear_out_all_but_the_fullest(Image &image, dolm::AfsRole role) {
    const dolm::AfsImage found = dolm::read_afs_image(image);
    uint32_t fullest = *found.head;
    for (uint32_t eu = 0; eu < found.eu_count; ++eu) {
        const dolm::AfsEu &row = found.eus[eu];
        const bool first = found.eus[fullest].role != role;
        if (row.role == role && (first || row.live > found.eus[fullest].live)) {
            fullest = eu;
        }
    }
    for (uint32_t eu = 0; eu < found.eu_count; ++eu) {
        set_erase_count(image, eu, eu == fullest ? 100 : 210);
    }
    return fullest;
}

// A step that changes nothing and fails if another EU is the spare by then.
Change expect_spare(AfsStore &store, uint32_t eu) {
    return {"the choice of EU " + std::to_string(eu),
            [&store, eu]() -> uint32_t { return store.ftl().spare_eu == eu ? 0 : 1; },
            {}};
}

// Runs a change up to the given number of writes before its end.
void run_all_but(AfsStore &store, Base &base, const Change &change, size_t left_out) {
    Image image = base.image;
    ASSERT_EQ(store.mount(image), 0U);
    DeviceDouble &device = DeviceDouble::instance();
    device.attach(image);
    ASSERT_EQ(change.run(), 0U);
    const std::vector<DeviceEvent> events = device.log();
    device.detach();
    store.unmount();
    ASSERT_GT(events.size(), left_out);
    for (size_t k = 0; k + left_out < events.size(); ++k) {
        const auto to = base.image.begin() + events[k].address;
        if (events[k].kind == DeviceEvent::Kind::erase) {
            std::fill_n(to, events[k].length, uint8_t{0xFF});
        } else {
            std::copy(events[k].bytes.begin(), events[k].bytes.end(), to);
        }
    }
}

using Changes = std::vector<Change>;

struct Case {
    const char *name;
    unsigned erased_eus;                                // in a run without a cut
    std::function<Changes(AfsStore &, Base &)> prepare; // on a populated store
    dolm::AfsLayout layout = two_log_eus;
    uint32_t cache_lines = dolm::afs_cache_lines;
};

std::ostream &operator<<(std::ostream &out, const Case &test) {
    return out << test.name;
}

// A write that the store has to refuse, and that leaves everything as it was.
Change expect_no_space(const Change &change) {
    return {change.name + " without room",
            [run = change.run]() -> uint32_t { return run() == AFS_RC_NO_SPACE ? 0 : 1; },
            {}};
}

// The EU that holds the metadata pages which are written rarely.
Change reclaim_fullest_log_eu(AfsStore &store) {
    return store.maintain("a reclaim of the log EU with most live pages", [](afs_context *context) {
        const afs_ftl_state &ftl = *context->ftl;
        uint32_t fullest = AFS_FTL_NONE;
        for (uint32_t i = 0; i < ftl.eu_count; ++i) {
            const afs_eu_info &eu = ftl.eu_table[i];
            if (i != ftl.spare_eu && i != ftl.write_eu && eu.va_base == 0 &&
                (fullest == AFS_FTL_NONE || eu.dirty_pages < ftl.eu_table[fullest].dirty_pages)) {
                fullest = i;
            }
        }
        return reclaim_eu(context, fullest, AFS_FTL_MODE_RECLAIM);
    });
}

// All slots of many_slots in use, then the head of the log close to its end in another EU.
void scatter_pages(AfsStore &store, Base &base, uint32_t head_slot, bool with_blank_eu) {
    Changes changes;
    for (uint32_t file = 100; file < 512; file += 31) {
        changes.push_back(store.write(file, 0, {}));
    }
    run(store, base, changes);
    ASSERT_EQ(store.mount(base.image), 0U);
    const uint32_t first_eu = store.ftl().write_eu;
    store.unmount();
    fill_log(store, base, [=](const afs_ftl_state &ftl) {
        return ftl.write_eu != first_eu && head_at(head_slot, with_blank_eu)(ftl);
    });
}

const Case cases[] = {
    {"overwrite", 0,
     [](AfsStore &store, Base &) {
         return Changes{store.write(medium_file, 100, pattern(9, 70)),
                        store.write(last_file, 0, pattern(10, 130))};
     }},
    {"grow", 0,
     [](AfsStore &store, Base &) {
         return Changes{store.write(medium_file, 300, pattern(9, 200)),
                        store.write(empty_file, 0, pattern(10, 1))};
     }},
    {"gap", 0,
     [](AfsStore &store, Base &) {
         return Changes{store.write(last_file, 400, pattern(9, 30)),
                        store.write(new_file, 100, pattern(10, 5))};
     }},
    {"truncate", 0,
     [](AfsStore &store, Base &) {
         return Changes{store.write(large_file, 500, pattern(9, 7), AFS_WRITE_TRUNCATE),
                        store.write(medium_file, 128, {}, AFS_WRITE_TRUNCATE),
                        store.write(last_file, 129, {}, AFS_WRITE_TRUNCATE)};
     }},
    {"empty", 0,
     [](AfsStore &store, Base &) {
         return Changes{store.write(large_file, 0, {}, AFS_WRITE_TRUNCATE),
                        store.write(new_file, 0, {}), store.write(new_file, 0, pattern(1, 64))};
     }},
    {"delete", 0,
     [](AfsStore &store, Base &) {
         return Changes{store.remove(large_file), store.remove(empty_file),
                        store.write(large_file, 0, pattern(9, 100))};
     }},
    {"zombie", 0,
     [](AfsStore &store, Base &base) {
         run(store, base, {store.mark_zombie(2)});
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
         run(store, base, {store.write(40, 0, pattern(9, 13000))});
         return Changes{expect_no_space(store.write(new_file, 0, pattern(10, 1200))),
                        store.remove(40), store.write(new_file, 0, pattern(11, 1200))};
     }},
    {"allocation_pages_given_up", 1,
     [](AfsStore &store, Base &base) {
         run(store, base, {store.write(new_file, 0, pattern(9, 6400))});
         return Changes{store.remove(new_file), store.reclaim_log(),
                        store.write(new_file, 0, pattern(10, 1000))};
     }},
    {"log_moves_to_blank_eu", 0,
     [](AfsStore &store, Base &base) {
         fill_log(store, base, head_at(118, true));
         return Changes{store.write(medium_file, 100, pattern(9, 70)), store.remove(small_file),
                        store.write(small_file, 0, pattern(8, 20))};
     },
     three_log_eus},
    {"log_reclaim_on_demand", 1,
     [](AfsStore &store, Base &base) {
         fill_log(store, base, head_at(118, false));
         return Changes{store.write(medium_file, 100, pattern(9, 70)), store.remove(small_file),
                        store.write(small_file, 0, pattern(8, 20))};
     }},
    {"log_reclaim_on_demand_third_eu", 1,
     [](AfsStore &store, Base &base) {
         fill_log(store, base, head_at(119, false));
         return Changes{store.write(medium_file, 100, pattern(9, 70)), store.remove(small_file)};
     },
     three_log_eus},
    {"data_allocator_moves", 0,
     [](AfsStore &store, Base &base) {
         fill_data(store, base, erased_slots_left(AFS_DATA_EU_PAGES + 2));
         return Changes{store.write(medium_file, 0, pattern(9, 300)),
                        store.write(small_file, 0, pattern(8, 64))};
     }},
    {"data_reclaim_on_demand", 1,
     [](AfsStore &store, Base &base) {
         fill_data(store, base, erased_slots_left(2));
         return Changes{store.write(medium_file, 0, pattern(9, 300)),
                        store.write(small_file, 0, pattern(8, 64))};
     }},
    {"data_reclaim_of_scattered_chunks", 1,
     [](AfsStore &store, Base &base) {
         Changes changes;
         for (uint32_t i = 0; i < 12; ++i) {
             changes.push_back(store.write(40 + i, 0, pattern(i, 100)));
             changes.push_back(store.write(medium_file, 0, pattern(i, 300)));
         }
         run(store, base, changes);
         fill_data(store, base, erased_slots_left(1));
         return Changes{store.write(large_file, 200, pattern(9, 300))};
     }},
    {"both_reclaims_on_demand", 2,
     [](AfsStore &store, Base &base) {
         fill_data(store, base, erased_slots_left(1));
         fill_log(store, base, head_at(118, false));
         return Changes{store.write(medium_file, 0, pattern(9, 300)),
                        store.write(small_file, 0, pattern(8, 64))};
     }},
    {"idle_reclaim_of_log", 1,
     [](AfsStore &store, Base &base) {
         fill_log(store, base, head_at(100, false));
         return Changes{store.maintain("idle reclaim", afs_idle_reclaim),
                        store.write(medium_file, 10, pattern(9, 70))};
     }},
    {"idle_reclaim_of_data", 1,
     [](AfsStore &store, Base &base) {
         fill_data(store, base, erased_slots_left(20));
         return Changes{store.maintain("idle reclaim", afs_idle_reclaim),
                        store.maintain("idle reclaim", afs_idle_reclaim),
                        store.write(medium_file, 10, pattern(9, 70))};
     }},
    {"force_full_reclaim", 3,
     [](AfsStore &store, Base &base) {
         run(store, base, {store.write(large_file, 300, pattern(9, 70))});
         const Change step = store.maintain("full reclaim", afs_force_full_reclaim);
         return Changes{step, step, step, store.write(medium_file, 10, pattern(9, 70))};
     }},
    {"dirty_erase", 0,
     [](AfsStore &store, Base &base) {
         run(store, base, {store.write(large_file, 300, pattern(9, 200)), store.reclaim_data()});
         return Changes{store.maintain("dirty erase", afs_force_dirty_erase),
                        store.write(medium_file, 10, pattern(9, 70))};
     }},
    {"end_of_reserved_files_mode", 2,
     [](AfsStore &store, Base &) {
         return Changes{
             store.maintain("end of reserved files mode", afs_physical_ftl_end_reserved_files_mode),
             store.write(medium_file, 10, pattern(9, 70))};
     }},
    {"head_overflows_to_blank_eu", 1,
     [](AfsStore &store, Base &base) {
         scatter_pages(store, base, 115, true);
         return Changes{reclaim_fullest_log_eu(store), store.write(300, 0, pattern(9, 70))};
     },
     many_slots},
    {"head_overflows_to_spare", 1,
     [](AfsStore &store, Base &base) {
         scatter_pages(store, base, 115, false);
         return Changes{reclaim_fullest_log_eu(store), store.write(300, 0, pattern(9, 70))};
     },
     many_slots},
    {"reclaim_of_the_head", 1,
     [](AfsStore &store, Base &base) {
         fill_log(store, base, head_at(60, false));
         return Changes{store.maintain("a reclaim of the head",
                                       [](afs_context *context) {
                                           return reclaim_eu(context, context->ftl->write_eu,
                                                             AFS_FTL_MODE_RECLAIM);
                                       }),
                        store.write(medium_file, 10, pattern(9, 70))};
     }},
    {"wear_rule_on_data", 1,
     [](AfsStore &store, Base &base) {
         fill_data(store, base, erased_slots_left(0));
         const uint32_t eu = wear_out_all_but_the_fullest(base.image, dolm::AfsRole::data);
         return Changes{store.write(small_file, 0, pattern(9, 64)), expect_spare(store, eu),
                        store.write(medium_file, 10, pattern(9, 70))};
     }},
    {"wear_rule_on_log", 1,
     [](AfsStore &store, Base &base) {
         fill_log(store, base, head_at(120, false));
         const uint32_t eu = wear_out_all_but_the_fullest(base.image, dolm::AfsRole::log);
         return Changes{store.remove(small_file), expect_spare(store, eu),
                        store.write(medium_file, 10, pattern(9, 70))};
     }},
    {"rolled_forward_data", 2,
     [](AfsStore &store, Base &base) {
         run(store, base, {store.write(large_file, 300, pattern(9, 200))});
         run_all_but(store, base, store.reclaim_data(), 1);
         return Changes{store.write(medium_file, 10, pattern(9, 70)), store.reclaim_log(),
                        store.reclaim_data(), store.write(medium_file, 0, pattern(8, 300))};
     }},
    {"rolled_forward_log", 2,
     [](AfsStore &store, Base &base) {
         fill_log(store, base, head_at(70, false));
         run_all_but(store, base, store.reclaim_log(), 1);
         return Changes{store.write(medium_file, 10, pattern(9, 70)), store.reclaim_data(),
                        store.reclaim_log(), store.write(medium_file, 0, pattern(8, 300))};
     }},
    {"rolled_forward_head", 2,
     [](AfsStore &store, Base &base) {
         fill_log(store, base, head_at(120, false));
         run_all_but(store, base, store.reclaim_log(), 1);
         return Changes{store.write(medium_file, 10, pattern(9, 70)), store.reclaim_log(),
                        store.reclaim_data(), store.write(medium_file, 0, pattern(8, 300))};
     }},
    {"rolled_back_data", 2,
     [](AfsStore &store, Base &base) {
         run(store, base, {store.write(large_file, 300, pattern(9, 200))});
         run_all_but(store, base, store.reclaim_data(), 2);
         return Changes{store.write(medium_file, 10, pattern(9, 70)), store.reclaim_log(),
                        store.reclaim_data()};
     }},
    {"rolled_back_log", 3,
     [](AfsStore &store, Base &base) {
         fill_log(store, base, head_at(120, false));
         run_all_but(store, base, store.reclaim_log(), 2);
         return Changes{store.write(medium_file, 10, pattern(9, 70)), store.reclaim_data(),
                        store.reclaim_log()};
     }},
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
    const Changes changes = test.prepare(store, base);
    ASSERT_FALSE(HasFatalFailure());
    ASSERT_EQ(dolm::check_invariants(base.image), std::vector<std::string>{});
    expect_erased_eus(store, base, changes, test.erased_eus);

    PowerCut power_cut(store);
    power_cut.explore({test.name, base.image, base.files, changes});
    std::cout << "AFS " << test.name << ": " << power_cut.counts() << std::endl;
}

// Cuts follow each other without end, over stores that wear and fill up.
TEST(AfsPowerCutChain, HoldsFromCutToCut) {
    AfsStore store;
    PowerCut power_cut(store);
    for (uint64_t seed = 1; seed <= 40; ++seed) {
        const Base base = populated(seed % 2 == 0 ? two_log_eus : three_log_eus);
        power_cut.chain({"chain", base.image, base.files, {}}, seed, 250);
    }
    std::cout << "AFS chain: " << power_cut.counts().chained << " cuts\n";
}

INSTANTIATE_TEST_SUITE_P(All, AfsPowerCut, testing::ValuesIn(cases),
                         [](const auto &test) { return std::string(test.param.name); });

} // namespace
} // namespace dolm_test
