// The proof itself: a small store that keeps its promise must pass, each fault in it must be found
// and named by a state that shows it again, and the double of the devices must do to a store what a
// device does.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <functional>
#include <ostream>

#include "proof/afs_store.h"
#include "proof/power_cut.h"
#include "proof/recording.h"
#include "proof/tears.h"

namespace dolm::proof {
namespace {

enum class Fault {
    none,
    commits_first,
    trusts_every_commit,
    rewrites_in_place,
    erases_too_early,
    writes_outside,
    cleans_up_at_mount,
    keeps_in_memory,
    refuses,
    refuses_the_second_mount,
    breaks_a_rule
};

// A store of one file of four bytes, in two banks of four records: a sequence number, the content,
// its sum, and a byte that commits all of it. The newest committed record counts. If its bank has
// no room behind it, the other bank is erased and goes on.
class Ledger : public FlashStore {
  public:
    static constexpr uint32_t number = 1;
    static constexpr uint32_t record_size = 7;
    static constexpr uint32_t bank_size = 4 * record_size;
    static constexpr uint32_t image_size = 2 * bank_size;

    explicit Ledger(Fault fault) : fault_(fault) {}

    uint32_t mount(std::span<uint8_t> image) override {
        image_ = image;
        current_ = newest(image, fault_ != Fault::trusts_every_commit);
        if (fault_ == Fault::cleans_up_at_mount && has_uncommitted()) {
            erase(0);
            current_ = newest(image, true);
        }
        cached_ = content_at(image_, current_);
        ++mounts_;
        return fault_ == Fault::refuses_the_second_mount && mounts_ % 4 == 0 ? 7 : 0;
    }
    void unmount() override { image_ = {}; }

    Files read_files() override {
        return current_ == nowhere && cached_.empty() ? Files{} : Files{{number, cached_}};
    }
    Files files_on(std::span<const uint8_t> image) const override {
        const uint32_t at = newest(image, true);
        return at == nowhere ? Files{} : Files{{number, content_at(image, at)}};
    }
    std::vector<std::string> check(std::span<const uint8_t> image, const Files &files) override {
        if (fault_ == Fault::breaks_a_rule && image[2 * record_size] != 0xFF) {
            return {"a third record"};
        }
        return fault_ != Fault::none || files_on(image) == files
                   ? std::vector<std::string>{}
                   : std::vector<std::string>{"files that the reader does not see"};
    }
    std::vector<Change> further_changes(uint32_t choice, const Files &) override {
        return {write(static_cast<uint8_t>(choice))};
    }
    std::vector<uint32_t> boundaries(const DeviceEvent &event) const override {
        std::vector<uint32_t> all;
        for (uint32_t at = 1; at < event.length; ++at) {
            all.push_back(at);
        }
        return all;
    }
    const Limit *limit(std::span<const DeviceEvent> /*events*/, size_t /*k*/, const Tear &tear,
                       std::span<const uint8_t> /*torn_image*/) const override {
        static const Limit bits{"bits", "some bits of a record may pass for others"};
        return limits_bits && tear.kind == Tear::Kind::bits ? &bits : nullptr;
    }

    Change write(uint8_t seed) {
        const std::vector<uint8_t> content = pattern(seed, 4);
        return {"write", [=, this] { return put(content); },
                [=](Files &files) { files[number] = content; }};
    }

    bool limits_bits = false;

  private:
    static constexpr uint32_t nowhere = UINT32_MAX;

    static uint8_t sum(std::span<const uint8_t> record) {
        uint8_t sum = 1;
        for (const uint8_t byte : record.first(5)) {
            sum = static_cast<uint8_t>(3 * sum + byte);
        }
        return sum;
    }

    static uint32_t newest(std::span<const uint8_t> image, bool with_sum) {
        uint32_t found = nowhere;
        for (uint32_t at = 0; at < image_size; at += record_size) {
            const auto record = image.subspan(at, record_size);
            const bool counts = record[6] == 0 && (!with_sum || record[5] == sum(record));
            const bool is_newer =
                found == nowhere || static_cast<int8_t>(record[0] - image[found]) > 0;
            found = counts && is_newer ? at : found;
        }
        return found;
    }

    static std::vector<uint8_t> content_at(std::span<const uint8_t> image, uint32_t at) {
        if (at == nowhere) {
            return {};
        }
        const auto content = image.subspan(at + 1, 4);
        return {content.begin(), content.end()};
    }

    bool is_erased(uint32_t at) const {
        const auto record = image_.subspan(at, record_size);
        return std::all_of(record.begin(), record.end(), [](uint8_t byte) { return byte == 0xFF; });
    }
    bool has_uncommitted() const {
        return std::any_of(offsets.begin(), offsets.end(),
                           [&](uint32_t at) { return !is_erased(at) && image_[at + 6] != 0; });
    }

    uint32_t access(DeviceAccess kind, uint32_t at, std::span<const uint8_t> bytes) {
        return DeviceDouble::instance().access(
            {.access = kind,
             .address = at,
             .length = static_cast<uint32_t>(bytes.size()),
             .written = kind == DeviceAccess::write ? bytes.data() : nullptr},
            [&] {
                std::copy(bytes.begin(), bytes.end(), image_.begin() + at);
                return 0U;
            });
    }
    void erase(uint32_t bank) {
        const std::array<uint8_t, bank_size> erased = [] {
            std::array<uint8_t, bank_size> bytes{};
            bytes.fill(0xFF);
            return bytes;
        }();
        access(DeviceAccess::erase, bank * bank_size, erased);
    }

    // Where the next record goes, behind the newest one.
    uint32_t make_room() {
        const uint32_t bank = current_ == nowhere ? 1 : current_ / bank_size;
        for (uint32_t at = bank * bank_size; current_ != nowhere && at < (bank + 1) * bank_size;
             at += record_size) {
            if (at > current_ && is_erased(at)) {
                return at;
            }
        }
        const uint32_t next =
            fault_ == Fault::erases_too_early && current_ != nowhere ? bank : 1 - bank;
        if (current_ != nowhere || has_uncommitted()) {
            erase(next);
        }
        return next * bank_size;
    }

    uint32_t put(const std::vector<uint8_t> &content) {
        if (fault_ == Fault::refuses) {
            return 5;
        }
        cached_ = content;
        if (fault_ == Fault::keeps_in_memory) {
            return 0;
        }
        const uint8_t sequence =
            current_ == nowhere ? 0 : static_cast<uint8_t>(image_[current_] + 1);
        uint32_t at = make_room();
        if (fault_ == Fault::rewrites_in_place && current_ != nowhere) {
            at = current_;
        }
        std::array<uint8_t, record_size> record{sequence};
        std::copy(content.begin(), content.end(), record.begin() + 1);
        record[5] = sum(record);
        const std::span<const uint8_t> bytes = record;
        if (fault_ == Fault::writes_outside) {
            access(DeviceAccess::write, image_size - 3, bytes);
        }
        const auto put_body = [&] { return access(DeviceAccess::write, at, bytes.first(6)); };
        const auto commit = [&] { return access(DeviceAccess::write, at + 6, bytes.last(1)); };
        const bool is_reversed =
            fault_ == Fault::commits_first || fault_ == Fault::trusts_every_commit;
        const uint32_t status = is_reversed ? commit() | put_body() : put_body() | commit();
        current_ = at;
        return status;
    }

    static constexpr std::array<uint32_t, 8> offsets{0, 7, 14, 21, 28, 35, 42, 49};

    const Fault fault_;
    std::span<uint8_t> image_;
    uint32_t current_ = nowhere;
    std::vector<uint8_t> cached_;
    uint32_t mounts_ = 0;
};

Workload workload_of(Ledger &store, unsigned writes) {
    Workload workload{"ledger", Image(Ledger::image_size, 0xFF), {}, {}};
    for (unsigned i = 0; i < writes; ++i) {
        workload.changes.push_back(store.write(static_cast<uint8_t>(i + 1)));
    }
    return workload;
}

TEST(Proof, AStoreThatKeepsItsPromisePasses) {
    Ledger store(Fault::none);
    uint64_t told = 0;
    const Findings found =
        explore(store, workload_of(store, 6), {}, [&](uint64_t done, uint64_t total) {
            EXPECT_EQ(done, ++told);
            EXPECT_LE(done, total);
        });
    EXPECT_EQ(found.failed, 0U) << found.failures.front().id << found.failures.front().reason;
    EXPECT_EQ(found.writes, 12U);
    EXPECT_EQ(found.erases, 1U) << "of the second bank";
    EXPECT_EQ(found.bytes, 6U * 7);
    // A body: whole, 5 ends, 5 beginnings, 3 times some bits. A commit: whole and some bits, and
    // the erase: whole and its ends.
    EXPECT_EQ(told, 6 * 14 + 6 * 4 + 28U);
    EXPECT_GT(found.first_level, 60U);
    EXPECT_GT(found.second_level, 1000U);
    EXPECT_EQ(found.files, 1U);
    EXPECT_EQ(found.states_by_old_files.at(0) + found.states_by_old_files.at(1), found.first_level);
    EXPECT_GE(found.examples.size(), 5U);
    EXPECT_TRUE(found.at_limit.empty());

    const Findings chained = chain(store, workload_of(store, 0), 3, 300);
    EXPECT_EQ(chained.failed, 0U);
    EXPECT_EQ(chained.chained, 300U);
}

struct FaultCase {
    const char *name;
    const char *reason;
    Fault fault;
    bool is_of_a_state = true; // else the workload fails without a cut
};

void PrintTo(const FaultCase &test, std::ostream *out) {
    *out << test.name;
}

class ProofFaults : public testing::TestWithParam<FaultCase> {};

TEST_P(ProofFaults, AreFoundAndTheirStatesShowThemAgain) {
    const auto &[name, reason, fault, is_of_a_state] = GetParam();
    Ledger store(fault);
    const Findings found = explore(store, workload_of(store, 6), {});
    ASSERT_NE(found.failed, 0U);
    EXPECT_EQ(found.failures.size(), std::min<uint64_t>(found.failed, 20));
    const Failure &first = found.failures.front();
    EXPECT_NE(first.reason.find(reason), std::string::npos) << first.id << ": " << first.reason;
    EXPECT_EQ(first.id == "ledger", !is_of_a_state) << first.id;
    if (!is_of_a_state) {
        return;
    }
    Ledger other(fault);
    const Findings again = explore(other, workload_of(other, 6), {0, UINT64_MAX, first.id});
    ASSERT_GE(again.failed, 1U);
    EXPECT_EQ(again.failures.front().id, first.id);
    EXPECT_EQ(again.failures.front().reason, first.reason);
    EXPECT_EQ(again.failures.front().image, first.image);
}

const FaultCase fault_cases[] = {
    {"a_commit_before_the_content", "neither the old nor the new ones", Fault::trusts_every_commit},
    {"a_write_over_what_is_in_force", "that only an erase can set", Fault::rewrites_in_place},
    {"an_erase_of_the_last_copy", "neither the old nor the new ones", Fault::erases_too_early},
    {"a_write_behind_the_end", "outside the image: write of 7 bytes at 53", Fault::writes_outside},
    {"a_mount_that_loses", "neither the old nor the new ones", Fault::cleans_up_at_mount},
    {"a_value_that_stays_in_memory", "the mount after the changes shows", Fault::keeps_in_memory,
     false},
    {"a_change_that_fails", "write fails with 5", Fault::refuses, false},
    {"a_mount_that_fails", "fails with 7", Fault::refuses_the_second_mount},
    {"a_broken_rule", "leaves a third record", Fault::breaks_a_rule},
};

INSTANTIATE_TEST_SUITE_P(All, ProofFaults, testing::ValuesIn(fault_cases),
                         [](const auto &test) { return std::string(test.param.name); });

// The sum alone saves a store whose commit goes first, but not at every cut.
TEST(Proof, AFaultThatFewStatesShowIsFound) {
    Ledger store(Fault::commits_first);
    const Findings found = explore(store, workload_of(store, 6), {});
    EXPECT_NE(found.failed, 0U);
    EXPECT_LT(found.failed, found.states() / 10);
}

TEST(Proof, ChainsFindFaultsToo) {
    Ledger store(Fault::trusts_every_commit);
    const Findings found = chain(store, workload_of(store, 0), 3, 300);
    ASSERT_EQ(found.failed, 1U) << "a chain ends there";
    EXPECT_TRUE(found.failures.front().id.starts_with("ledger.3/"));
    EXPECT_LT(found.chained, 300U);
}

TEST(Proof, ARunThatVisitsNothingHasFailed) {
    const struct {
        unsigned writes;
        Choice choice;
        const char *reason;
    } runs[] = {
        {0, {}, "there is no state to visit"},
        {3, {0, 0, ""}, "there is no state to visit"},
        {3, {0, 100, "ledger/99w0"}, "there is no state ledger/99w0"},
        {3, {0, 100, "ledger/0p6"}, "there is no state ledger/0p6"},
        {3, {0, 100, "other/0p1"}, "there is no state other/0p1"},
    };
    for (const auto &[writes, choice, reason] : runs) {
        Ledger store(Fault::none);
        const Findings found = explore(store, workload_of(store, writes), choice);
        ASSERT_EQ(found.failed, 1U) << reason;
        EXPECT_EQ(found.failures.front().id, "ledger");
        EXPECT_EQ(found.failures.front().reason, reason);
    }
    Ledger store(Fault::none);
    EXPECT_THROW(chain(store, workload_of(store, 0), 3, 0), std::runtime_error);
}

TEST(Proof, SamplesAreEvenAndNeverMoreThanAsked) {
    Ledger store(Fault::none);
    const Findings all = explore(store, workload_of(store, 6), {});
    for (const uint64_t first : {1U, 10U, 50U}) {
        const Findings some = explore(store, workload_of(store, 6), {first, 3 * first, ""});
        EXPECT_EQ(some.failed, 0U);
        EXPECT_LE(some.first_level, first);
        EXPECT_GT(some.first_level, first / 2);
        EXPECT_LE(some.second_level, 3 * first);
        EXPECT_GT(some.second_level, first);
    }
    EXPECT_EQ(explore(store, workload_of(store, 6), {UINT64_MAX, 0, ""}).first_level,
              all.first_level);
    // What a replay hands out is the state that the identifier tells.
    Findings one = explore(store, workload_of(store, 6), {0, 0, "ledger/0p3"});
    Image torn(Ledger::image_size, 0xFF);
    torn[0] = 0;
    std::copy_n(pattern(1, 4).begin(), 2, torn.begin() + 1);
    EXPECT_EQ(one.replayed, torn);
}

// States behind a limit of the format are counted by themselves, lost or not.
TEST(Proof, StatesAtALimitAreToldApart) {
    for (const Fault fault : {Fault::none, Fault::trusts_every_commit}) {
        Ledger store(fault);
        store.limits_bits = true;
        const Findings found = explore(store, workload_of(store, 2), {UINT64_MAX, 0, ""});
        ASSERT_EQ(found.at_limit.size(), 1U);
        const Findings::AtLimit &bits = found.at_limit.at("bits");
        EXPECT_EQ(bits.why, "some bits of a record may pass for others");
        EXPECT_GT(bits.states, 2U);
        EXPECT_EQ(bits.lost != 0, fault != Fault::none);
        for (const Failure &failure : found.failures) {
            EXPECT_EQ(failure.id.find('b'), std::string::npos) << failure.id;
        }
    }
}

// Each tear leaves what its name says, of a write of 1 2 3 4 over erased bytes and of an erase.
// Such a page looks free after a cut, and flash does not take another one there.
TEST(Proof, OnlyAReclaimOfAfsMayWriteAPageAheadOfItsEntry) {
    const auto written = [](uint32_t address, uint32_t length) {
        return DeviceEvent{DeviceEvent::Kind::write, address, length, std::vector<uint8_t>(length)};
    };
    const DeviceEvent entry = written(18 + 2 * 5, 2);
    const DeviceEvent page = written(260 + 66 * 5, 66);
    const DeviceEvent erase{DeviceEvent::Kind::erase, 16384, 4096, {}};
    const DeviceEvent header_state = written(16384 + 17, 1);
    const AfsStore store;

    const std::vector<DeviceEvent> page_first{page, entry};
    EXPECT_FALSE(store.leaves_unclaimed_bytes(page_first, 0));
    EXPECT_FALSE(store.leaves_unclaimed_bytes(page_first, 1));

    const std::vector<DeviceEvent> reclaim{erase, page, entry, header_state, page};
    EXPECT_TRUE(store.leaves_unclaimed_bytes(reclaim, 1));
    EXPECT_TRUE(store.leaves_unclaimed_bytes(reclaim, 2));
    EXPECT_FALSE(store.leaves_unclaimed_bytes(reclaim, 4));

    const std::vector<DeviceEvent> entry_first{erase, entry, page};
    EXPECT_FALSE(store.leaves_unclaimed_bytes(entry_first, 2));
}

TEST(Proof, TearsLeaveWhatTheirNamesSay) {
    const Ledger store(Fault::none);
    const Image before{9, 0xFF, 0xFF, 0xFF, 0xFF, 9};
    const DeviceEvent write{DeviceEvent::Kind::write, 1, 4, {1, 2, 3, 4}};
    using Kind = Tear::Kind;
    EXPECT_EQ(torn(store, before, write, {Kind::whole, 0}), (Image{9, 1, 2, 3, 4, 9}));
    EXPECT_EQ(torn(store, before, write, {Kind::prefix, 1}), (Image{9, 1, 0xFF, 0xFF, 0xFF, 9}));
    EXPECT_EQ(torn(store, before, write, {Kind::suffix, 3}), (Image{9, 0xFF, 0xFF, 0xFF, 4, 9}));
    for (const Tear &tear : tears_of(store, write)) {
        const Image image = torn(store, before, write, tear);
        for (size_t i = 0; i < 4; ++i) {
            EXPECT_EQ(image[1 + i] & write.bytes[i], write.bytes[i]) << tear.name();
        }
        EXPECT_EQ(std::pair(image[0], image[5]), std::pair(uint8_t{9}, uint8_t{9})) << tear.name();
    }
    const DeviceEvent erase{DeviceEvent::Kind::erase, 0, 6, {}};
    EXPECT_EQ(torn(store, before, erase, {Kind::prefix, 5}), (Image{255, 255, 255, 255, 255, 9}));
    for (const Tear &tear : tears_of(store, erase)) {
        EXPECT_TRUE(tear.kind == Kind::whole || tear.kind == Kind::prefix) << tear.name();
    }
}

// One access of each kind on an image of twelve bytes, of which EFS has the last four.
class DeviceDoubleTest : public testing::Test {
  protected:
    void SetUp() override { device.attach_both(image, 8); }
    void TearDown() override {
        device.restore_power();
        device.detach();
    }

    uint32_t read(Device of, uint32_t at, uint32_t length) {
        seen.assign(length, 0);
        return device.access({of, DeviceAccess::read, at, length, nullptr, seen.data()}, [&] {
            std::copy_n(image.begin() + base(of) + at, length, seen.begin());
            return 0U;
        });
    }
    uint32_t write(Device of, uint32_t at, const std::vector<uint8_t> &bytes) {
        return device.access({of, DeviceAccess::write, at, static_cast<uint32_t>(bytes.size()),
                              bytes.data(), nullptr},
                             [&] {
                                 std::copy(bytes.begin(), bytes.end(),
                                           image.begin() + base(of) + at);
                                 return 0U;
                             });
    }
    uint32_t erase(Device of, uint32_t at, uint32_t length) {
        return device.access({of, DeviceAccess::erase, at, length, nullptr, nullptr}, [&] {
            std::fill_n(image.begin() + base(of) + at, length, uint8_t{0xFF});
            return 0U;
        });
    }
    static std::ptrdiff_t base(Device of) { return of == Device::efs ? 8 : 0; }

    DeviceDouble &device = DeviceDouble::instance();
    Image image = Image(12, 0xFF);
    std::vector<uint8_t> seen;
};

TEST_F(DeviceDoubleTest, LogsWritesAndErasesByTheirPlaceInTheWhole) {
    EXPECT_EQ(write(Device::afs, 1, {1, 2}), 0U);
    EXPECT_EQ(write(Device::efs, 1, {3}), 0U);
    EXPECT_EQ(read(Device::efs, 0, 4), 0U);
    EXPECT_EQ(erase(Device::efs, 0, 4), 0U);
    ASSERT_EQ(device.log().size(), 3U);
    EXPECT_EQ(device.log()[0].bytes, (std::vector<uint8_t>{1, 2}));
    EXPECT_EQ(device.log()[1].address, 9U);
    EXPECT_EQ(device.log()[2].kind, DeviceEvent::Kind::erase);
    EXPECT_EQ(device.log()[2].length, 4U);
    EXPECT_TRUE(device.log()[2].bytes.empty());
    EXPECT_EQ(device.count(DeviceAccess::write), 2U);
    device.keep_log(false);
    EXPECT_EQ(write(Device::afs, 0, {0}), 0U);
    EXPECT_EQ(device.log().size(), 3U);
    EXPECT_TRUE(device.breaches().empty());
    EXPECT_TRUE(device.out_of_range().empty());
}

TEST_F(DeviceDoubleTest, FindsWhatIsOutsideAndWhatFlashCannotDo) {
    EXPECT_EQ(read(Device::afs, 7, 1), 0U);
    EXPECT_EQ(read(Device::efs, 3, 1), 0U);
    for (const uint32_t status : {write(Device::afs, 7, {0, 0}), write(Device::efs, 3, {0, 0}),
                                  write(Device::efs, 0xFFFFFFF8, {0}), erase(Device::afs, 8, 1)}) {
        EXPECT_EQ(status, device_failure);
    }
    EXPECT_EQ(
        device.out_of_range(),
        (std::vector<std::string>{"write of 2 bytes at 7", "write of 2 bytes at 3",
                                  "write of 1 bytes at 4294967288", "erase of 1 bytes at 8"}));
    EXPECT_EQ(image, Image(12, 0xFF));

    write(Device::efs, 0, {0xF0, 0x0F});
    write(Device::efs, 0, {0xF0, 0x1F});
    ASSERT_EQ(device.breaches().size(), 1U);
    EXPECT_EQ(device.breaches()[0].address, 9U);
    device.clear_bits_only(true);
    write(Device::efs, 0, {0x3F, 0xFF});
    EXPECT_EQ(image[8], 0x30) << "as on the real part";
    device.allow_rewrites(true);
    write(Device::efs, 0, {0xFF});
    EXPECT_EQ(device.breaches().size(), 2U);
}

TEST_F(DeviceDoubleTest, MakesTheAccessesGoWrongThatAFaultNames) {
    using Effect = DeviceFault::Effect;
    const struct {
        Effect effect;
        uint32_t status;
        std::vector<uint8_t> lands;
        size_t logged;
    } effects[] = {
        {Effect::fail, device_failure, {0xFF, 0xFF, 0xFF}, 2},
        {Effect::lose, 0, {0xFF, 0xFF, 0xFF}, 2},
        {Effect::flip_bit, 0, {1, 2 ^ 0x10, 3}, 3},
        {Effect::flip_last, 0, {1, 2, 3 ^ 0x10}, 3},
    };
    for (const auto &[effect, status, lands, logged] : effects) {
        image.assign(12, 0xFF);
        device.attach(image);
        device.add_fault({DeviceAccess::write, 1, 1, effect});
        EXPECT_EQ(write(Device::afs, 0, {7}), 0U);
        EXPECT_EQ(read(Device::afs, 0, 1), 0U) << "a fault of writes is none of reads";
        EXPECT_EQ(write(Device::afs, 1, {1, 2, 3}), status);
        EXPECT_EQ(std::vector<uint8_t>(image.begin() + 1, image.begin() + 4), lands);
        EXPECT_EQ(write(Device::afs, 5, {7}), 0U);
        EXPECT_EQ(image[5], 7);
        EXPECT_EQ(device.log().size(), logged);
    }
    device.attach(image);
    device.add_fault({DeviceAccess::read, 0, 2, Effect::flip_last});
    for (const uint8_t expected : {uint8_t{7 ^ 0x10}, uint8_t{7 ^ 0x10}, uint8_t{7}}) {
        EXPECT_EQ(read(Device::afs, 5, 1), 0U);
        EXPECT_EQ(seen[0], expected);
        EXPECT_EQ(image[5], 7) << "what is read wrong is not wrong";
    }
}

TEST_F(DeviceDoubleTest, LosesWhatComesBehindACutAndEndsWhatWaitsForIt) {
    device.cut_after(2);
    EXPECT_EQ(write(Device::afs, 0, {1}), 0U);
    EXPECT_EQ(read(Device::afs, 0, 1), 0U) << "a read is no event";
    EXPECT_EQ(write(Device::efs, 0, {2}), 0U);
    EXPECT_EQ(write(Device::afs, 1, {3}), 0U);
    EXPECT_EQ(erase(Device::efs, 0, 4), 0U);
    EXPECT_EQ(image[0], 1);
    EXPECT_EQ(image[1], 0xFF);
    EXPECT_EQ(image[8], 2);
    device.restore_power();
    EXPECT_EQ(write(Device::afs, 1, {3}), 0U);
    EXPECT_EQ(image[1], 3);
    device.detach();
    device.cut_after(0);
    EXPECT_EQ(write(Device::afs, 1, {0}), 0U);
    EXPECT_EQ(image[1], 3) << "whatever is attached";
    device.restore_power();
    EXPECT_EQ(write(Device::afs, 1, {0}), 0U);
    EXPECT_EQ(image[1], 0);

    device.attach(image);
    device.allow(2);
    EXPECT_EQ(read(Device::afs, 0, 1), 0U);
    EXPECT_FALSE(device.is_exhausted());
    EXPECT_EQ(read(Device::afs, 0, 1), 0U);
    EXPECT_TRUE(device.is_exhausted());
    EXPECT_EQ(read(Device::afs, 0, 1), device_failure);
}

} // namespace
} // namespace dolm::proof
