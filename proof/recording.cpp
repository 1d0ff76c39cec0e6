#include "proof/recording.h"

#include <algorithm>

#include "proof/tears.h"

namespace dolm::proof {

namespace {

const std::vector<uint8_t> *find(const Files &files, uint32_t number) {
    const auto file = files.find(number);
    return file == files.end() ? nullptr : &file->second;
}

} // namespace

bool same(const Files &a, const Files &b, uint32_t number) {
    const auto *in_a = find(a, number);
    const auto *in_b = find(b, number);
    return in_a == nullptr || in_b == nullptr ? in_a == in_b : *in_a == *in_b;
}

std::set<uint32_t> numbers_in(std::initializer_list<const Files *> all) {
    std::set<uint32_t> numbers;
    for (const Files *files : all) {
        for (const auto &file : *files) {
            numbers.insert(file.first);
        }
    }
    return numbers;
}

namespace {

std::string describe(const Files &shown, const Files &before, const Files &after) {
    const auto text = [](const Files &files, uint32_t number) {
        const auto *contents = find(files, number);
        return contents != nullptr ? std::to_string(contents->size()) + " bytes"
                                   : std::string("none");
    };
    std::string result = "files that are neither the old nor the new ones:";
    for (const uint32_t number : numbers_in({&shown, &before, &after})) {
        if (!same(shown, before, number) || !same(shown, after, number)) {
            result += " file " + std::to_string(number) + " is " + text(shown, number) + ", was " +
                      text(before, number) + ", becomes " + text(after, number) + ";";
        }
    }
    return result;
}

void mount(FlashStore &store, Image &image, const char *which) {
    store.unmount();
    if (const uint32_t status = store.mount(image); status != 0) {
        throw Broken(std::string(which) + " fails with " + std::to_string(status));
    }
}

void expect_sound(FlashStore &store, const Image &image, const Files &files, const char *when) {
    if (const Files shown = store.read_files(); shown != files) {
        throw Broken(std::string(when) + " shows " + describe(shown, files, files));
    }
    if (const auto broken = store.check(image, files); !broken.empty()) {
        throw Broken(std::string(when) + " leaves " + broken.front());
    }
}

// Returns whether unclaimed bytes were written over.
bool expect_discipline(bool unclaimed_bytes) {
    const DeviceDouble &device = DeviceDouble::instance();
    if (!device.out_of_range().empty()) {
        throw Undisciplined("outside the image: " + device.out_of_range().front());
    }
    if (device.breaches().empty()) {
        return false;
    }
    if (!unclaimed_bytes) {
        const DisciplineBreach &breach = device.breaches().front();
        throw Undisciplined("a write of " + std::to_string(breach.event.length) + " bytes at " +
                            std::to_string(breach.event.address) + " sets bits at " +
                            std::to_string(breach.address) + " that only an erase can set");
    }
    return true;
}

// Cuts a change of many files where an independent reader sees one of them become another. What it
// sees that is neither old nor new is left for the states there to fail over. Returns what it sees
// before the rest.
Files cut_into_files(Recording &recording, const FlashStore &store, Image image,
                     const std::vector<DeviceEvent> &log, const Files &after) {
    const Files before = store.files_on(image);
    Files shown = before;
    for (size_t k = recording.segments.back().end; k < log.size(); ++k) {
        apply(image, log[k]);
        Files now = store.files_on(image);
        const std::set<uint32_t> numbers = numbers_in({&now, &before, &after});
        const bool old_or_new = std::all_of(numbers.begin(), numbers.end(), [&](uint32_t number) {
            return same(now, before, number) || same(now, after, number);
        });
        if (now != shown && old_or_new) {
            recording.segments.push_back({k + 1, std::move(shown), now});
            shown = std::move(now);
        }
    }
    return shown;
}

} // namespace

const Files &oldest_allowed(const Segment &segment, size_t k, const Tear &tear) {
    const bool acknowledged =
        !segment.is_mount && tear.kind == Tear::Kind::whole && k + 1 == segment.end;
    return acknowledged ? segment.after : segment.before;
}

Recording run(FlashStore &store, Image &image, const State &state, const Changes &changes) {
    const std::vector<DeviceEvent> &log = DeviceDouble::instance().log();
    Recording recording;

    mount(store, image, "the mount");
    Files files = store.read_files();
    if (files != *state.before && files != *state.after) {
        throw Broken("the mount shows " + describe(files, *state.before, *state.after));
    }
    expect_sound(store, image, files, "the mount");
    mount(store, image, "the second mount");
    expect_sound(store, image, files, "the second mount");
    recording.files_at_mount = files;
    recording.segments.push_back({log.size(), *state.before, *state.after, true});

    for (const Change &change : changes(files)) {
        Image image_before = change.file_by_file ? image : Image();
        Files before = files;
        if (const uint32_t status = change.run(); status != 0) {
            throw Broken(change.name + " fails with " + std::to_string(status));
        }
        if (change.effect) {
            change.effect(files);
        }
        if (change.file_by_file) {
            before = cut_into_files(recording, store, std::move(image_before), log, files);
        }
        recording.segments.push_back({log.size(), std::move(before), files});
    }
    return recording;
}

bool look_again(FlashStore &store, Image &image, const Recording &recording, const State &state) {
    const Files &files = recording.segments.back().after;
    expect_sound(store, image, files, "the store after its changes");
    mount(store, image, "the mount after the changes");
    expect_sound(store, image, files, "the mount after the changes");
    return expect_discipline(state.unclaimed_bytes);
}

void take_log(Recording &recording) {
    recording.events = std::move(DeviceDouble::instance().log());
    const Files files = recording.segments.back().after;
    recording.segments.push_back({recording.events.size(), files, files}); // of the last mount
}

} // namespace dolm::proof
