#include "fault_run.h"

#include <algorithm>
#include <functional>
#include <stdexcept>

#include <gtest/gtest.h>

#include "power_cut_run.h"

namespace dolm_test {
namespace {

using namespace dolm::proof;
using Effect = DeviceFault::Effect;

constexpr uint32_t for_good = UINT32_MAX;

// Each from the first access of its kind on. A checked read is repeated up to seven times.
constexpr DeviceFault faults[] = {
    {DeviceAccess::read, 0, 1, Effect::fail},
    {DeviceAccess::read, 0, for_good, Effect::fail},
    {DeviceAccess::read, 0, 1, Effect::flip_bit},
    {DeviceAccess::read, 0, 6, Effect::flip_bit},
    {DeviceAccess::read, 0, 7, Effect::flip_bit},
    {DeviceAccess::read, 0, 7, Effect::flip_last},
    {DeviceAccess::write, 0, 1, Effect::fail},
    {DeviceAccess::write, 0, 1, Effect::flip_bit},
    {DeviceAccess::write, 0, 1, Effect::flip_last},
    {DeviceAccess::write, 0, 1, Effect::lose},
    {DeviceAccess::write, 0, for_good, Effect::lose},
    {DeviceAccess::erase, 0, 1, Effect::fail},
    {DeviceAccess::erase, 0, 1, Effect::lose},
    {DeviceAccess::erase, 0, for_good, Effect::lose},
};

std::string describe(const DeviceFault &fault) {
    static constexpr const char *kinds[] = {"read", "write", "erase"};
    static constexpr const char *effects[] = {" fails", " has a wrong bit",
                                              " has a wrong last byte", " is lost"};
    return kinds[static_cast<size_t>(fault.access)] + (" " + std::to_string(fault.first)) +
           effects[static_cast<size_t>(fault.effect)] +
           (fault.count == 1          ? ""
            : fault.count == for_good ? ", and all behind it"
                                      : ", " + std::to_string(fault.count) + " times");
}

void throw_if(bool wrong, const std::string &what) {
    if (wrong) {
        throw std::runtime_error(what);
    }
}

// One change of a workload, behind those before it, with what it leads from and to.
struct Step {
    const Workload &workload;
    size_t number;
    Files old_files;
    Files new_files;

    const Change &change() const { return workload.changes[number]; }
};

class FaultRun {
  public:
    FaultRun(FlashStore &store, const FaultRules &rules) : store_(store), rules_(rules) {}
    ~FaultRun() {
        store_.unmount();
        device_.detach();
    }
    FaultRun(const FaultRun &) = delete;
    FaultRun &operator=(const FaultRun &) = delete;

    // Returns whether the change went so far that it met the fault. Throws std::runtime_error if
    // what follows is not as it should be.
    bool survives(const Step &step, const DeviceFault &fault) {
        Image image;
        uint32_t status = 0;
        if (fault.access == DeviceAccess::erase) {
            // Where a device reports an erase and copies what is written, nobody can notice: all
            // that is asked then is an end.
            run_change(step, fault, true, image, status);
        }
        const bool was_met = run_change(step, fault, false, image, status);
        const bool is_limit = leaves_a_limit(fault, image);
        device_.detach();
        if (!is_limit) {
            expect_sound(image, step, status);
            expect_further_changes(image, fault.first);
        }
        return was_met;
    }

    // The same for a mount and the reading of all files, which write nothing.
    bool survives_reading(const Workload &workload, const DeviceFault &fault) {
        Image image = workload.start;
        store_.unmount();
        device_.attach(image);
        device_.allow(rules_.most_accesses);
        device_.add_fault(fault);
        const uint32_t status = store_.mount(image);
        expect_status_of_rules(status, fault);
        if (status == 0) {
            expect_readable_files_among({workload.files});
        }
        const bool was_met = device_.count(fault.access) > fault.first;
        throw_if(device_.is_exhausted(), "too many accesses");
        device_.detach();
        throw_if(image != workload.start, "the image is another one");
        return was_met;
    }

    // The same for a format. It may write over what is not erased.
    bool can_be_wiped(const Workload &wipe, const DeviceFault &fault) {
        Image image = wipe.start;
        mount(image);
        device_.attach(image);
        device_.allow_rewrites(true);
        device_.allow(rules_.most_accesses);
        device_.add_fault(fault);
        const uint32_t status = wipe.changes.front().run();
        const bool was_met = device_.count(fault.access) > fault.first;
        throw_if(device_.is_exhausted(), "too many accesses");
        expect_status_of_rules(status, fault);
        device_.detach();
        throw_if(wipe.changes.front().run() != 0, "it fails once more");
        mount(image);
        throw_if(!store_.read_files().empty(), "files are left");
        return was_met;
    }

  private:
    bool run_change(const Step &step, const DeviceFault &fault, bool device_copies, Image &image,
                    uint32_t &status) {
        device_.detach();
        image = step.workload.start;
        mount(image);
        for (size_t i = 0; i < step.number; ++i) {
            throw_if(step.workload.changes[i].run() != 0, "a change before it fails");
        }
        device_.attach(image);
        device_.clear_bits_only(!device_copies);
        device_.allow(rules_.most_accesses);
        device_.add_fault(fault);
        status = step.change().run();
        throw_if(device_.is_exhausted(), "too many accesses");
        throw_if(!device_.out_of_range().empty(), "accesses outside the image");
        expect_status_of_rules(status, fault);
        return device_.count(fault.access) > fault.first;
    }

    void expect_status_of_rules(uint32_t status, const DeviceFault &fault) {
        const bool must_not_matter = rules_.checks_all_reads &&
                                     fault.access == DeviceAccess::read &&
                                     fault.effect != Effect::fail && fault.count < 7;
        throw_if(status != 0 && (must_not_matter || !rules_.statuses.contains(status)),
                 "status " + std::to_string(status));
    }

    // If they can't be read, that is said.
    void expect_readable_files_among(std::initializer_list<Files> allowed) {
        Files files;
        try {
            files = store_.read_files();
        } catch (const std::runtime_error &) {
            return;
        }
        throw_if(std::ranges::find(allowed, files) == allowed.end(), "wrong contents are read");
    }

    void mount(Image &image) {
        store_.unmount();
        const uint32_t status = store_.mount(image);
        throw_if(status != 0, "the mount gives " + std::to_string(status));
    }

    // Whether a wrong bit landed where the format can't tell.
    bool leaves_a_limit(const DeviceFault &fault, const Image &image) {
        if (fault.access != DeviceAccess::write ||
            (fault.effect != Effect::flip_bit && fault.effect != Effect::flip_last)) {
            return false;
        }
        const std::vector<DeviceEvent> &log = device_.log();
        uint32_t writes = 0;
        for (size_t k = 0; k < log.size(); ++k) {
            if (log[k].kind == DeviceEvent::Kind::write && writes++ == fault.first) {
                return store_.limit(log, k, {Tear::Kind::bits}, image) != nullptr;
            }
        }
        return false;
    }

    // The store goes on with a sound device, as it is or by way of refusing until it is mounted
    // again. What it acknowledges is there after the mount.
    void expect_sound(Image &image, const Step &step, uint32_t status) {
        Files old_files = step.old_files;
        Files new_files = step.new_files;
        expect_readable_files_among({old_files, new_files});
        const Change next = store_.further_changes(0, new_files).back();
        const uint32_t next_status = next.run();
        throw_if(next_status != 0 && !rules_.statuses.contains(next_status),
                 "status " + std::to_string(next_status) + " of the next change");
        if (next_status == 0) {
            next.effect(old_files);
            next.effect(new_files);
        }
        mount(image);
        const Files files = store_.read_files();
        throw_if(files != new_files && (status == 0 || files != old_files),
                 "other files than they should be after status " + std::to_string(status) +
                     " and " + std::to_string(next_status));
        for (const std::string &broken : store_.check(image, files)) {
            throw std::runtime_error(broken);
        }
    }

    void expect_further_changes(Image &image, uint32_t choice) {
        Files files = store_.read_files();
        for (const Change &change : store_.further_changes(choice, files)) {
            const uint32_t status = change.run();
            throw_if(status != 0, change.name + " gives " + std::to_string(status) + " afterwards");
            if (change.effect) {
                change.effect(files);
            }
        }
        mount(image);
        throw_if(store_.read_files() != files, "other files than they should be in the end");
    }

    FlashStore &store_;
    const FaultRules &rules_;
    DeviceDouble &device_ = DeviceDouble::instance();
};

// Each fault in turn, for as long as it is met.
uint64_t try_all(const std::string &name,
                 const std::function<bool(const DeviceFault &)> &survives) {
    uint64_t runs = 0;
    for (DeviceFault fault : faults) {
        for (bool met = true; met; ++fault.first, ++runs) {
            try {
                met = survives(fault);
            } catch (const std::runtime_error &error) {
                ADD_FAILURE() << name << ", " << describe(fault) << ": " << error.what();
            }
        }
    }
    count_states(runs);
    return runs;
}

} // namespace

void expect_every_fault_is_survived(FlashStore &store, const Workload &workload,
                                    const FaultRules &rules) {
    if (replays_one_state()) {
        GTEST_SKIP() << "DOLM_POWER_CUT names a state behind a cut";
    }
    FaultRun run(store, rules);
    uint64_t runs = try_all("the mount and the reads", [&](const DeviceFault &fault) {
        return run.survives_reading(workload, fault);
    });
    Files files = workload.files;
    for (size_t i = 0; i < workload.changes.size(); ++i) {
        Step step{workload, i, files, {}};
        if (step.change().effect) {
            step.change().effect(files);
        }
        step.new_files = files;
        runs += try_all(step.change().name,
                        [&](const DeviceFault &fault) { return run.survives(step, fault); });
    }
    EXPECT_GT(runs, 100u);
}

void expect_every_fault_can_be_wiped(FlashStore &store, const Workload &wipe,
                                     const FaultRules &rules) {
    if (replays_one_state()) {
        GTEST_SKIP() << "DOLM_POWER_CUT names a state behind a cut";
    }
    FaultRun run(store, rules);
    const uint64_t runs =
        try_all(wipe.name, [&](const DeviceFault &fault) { return run.can_be_wiped(wipe, fault); });
    EXPECT_GT(runs, 100u);
}

} // namespace dolm_test
