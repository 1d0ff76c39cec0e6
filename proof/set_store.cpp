#include "proof/set_store.h"

#include <cstring>
#include <stdexcept>
#include <utility>

#include "Afs.h"
#include "EFS.h"
#include "dfs.h"
#include "efs_tools_utils.h"
#include "miniVfs.h"
#include "qoqfs.h"

namespace dolm::proof {
namespace {

constexpr uint32_t efs_selector = 2U << 11;
constexpr uint32_t file_key_mask = 0x1FFF; // of a number: selector and id

// The errors of the library since they were last taken.
std::string errors;

void on_report(ErrorLevel level, ImageToolsErrorName number, const char *, const char *message) {
    if (level >= ERROR_LEVEL_ERROR) {
        errors += (errors.empty() ? "" : ", ") + std::to_string(number) + message;
    }
}

void expect_success(bool done, const std::string &what) {
    const std::string reports = std::exchange(errors, {});
    if (!done) {
        throw std::runtime_error(what + " fails" +
                                 (reports.empty() ? "" : " with the reports " + reports));
    }
}

_commonDolmTable range_of(std::span<uint8_t> bytes) {
    return {bytes.empty() ? nullptr : bytes.data(), static_cast<uint32_t>(bytes.size())};
}

void set_values(const std::vector<NewValue> &values) {
    for (const NewValue &change : values) {
        uint8_t *data = nullptr;
        expect_success(
            qoQfsNvarResize(change.name.c_str(), &data, static_cast<uint32_t>(change.value.size())),
            "the change of " + change.name);
        if (!change.value.empty()) {
            std::memcpy(data, change.value.data(), change.value.size());
        }
    }
}

// The current values that a termination writes to flash, by their files.
Files values_to_write() {
    Files files;
    for (int32_t i = 0; i < g_table_num_files; ++i) {
        const char *field = g_table_buf[i].name;
        const std::string name(field, strnlen(field, sizeof g_table_buf[i].name));
        uint8_t *data = nullptr;
        uint32_t size = 0;
        bool writable = false;
        uint32_t number = 0;
        if (qoqfsCheckNvarExists(name.c_str(), FCS_FILE_CURRENT_VALUES) &&
            qoQfsNvarGet(name.c_str(), &data, &size, FCS_FILE_CURRENT_VALUES, &writable, nullptr) &&
            writable && pathToFileNumber(name.c_str(), &number) == 0 && number != 0) {
            files[number & file_key_mask].assign(data, data + size);
        }
    }
    errors.clear(); // of values that nobody may see
    return files;
}

// The files of one store out of those of both, by their numbers there.
Files part_of(const Files &files, bool of_efs) {
    Files part;
    for (const auto &[key, contents] : files) {
        if (((key & efs_selector) != 0) == of_efs) {
            part[key & ~efs_selector] = contents;
        }
    }
    return part;
}

void add_part(Files &files, const Files &part, uint32_t selector) {
    for (const auto &[number, contents] : part) {
        files[number | selector] = contents;
    }
}

} // namespace

SetStore::SetStore(SetTables tables, size_t afs_size, const std::optional<EfsLayout> &layout)
    : tables_(std::move(tables)), afs_size_(afs_size) {
    if (layout) {
        efs_.emplace(*layout);
    }
}

SetStore::~SetStore() {
    // The images are gone, so that the library must not write to them any more.
    const _commonDolmInputs no_flash{range_of(tables_.orvel), {},          {},
                                     range_of(tables_.ftbl),  tables_.sku, {}};
    qoQfsDolmInit(&no_flash, on_report);
    if (qoFcsIsInitialized()) {
        qoQfsNvarTerm(false);
    }
    errors.clear();
}

uint32_t SetStore::mount(std::span<uint8_t> image) {
    const _commonDolmInputs inputs{range_of(tables_.orvel),
                                   range_of(tables_.vync),
                                   range_of(image.first(afs_size_)),
                                   range_of(tables_.ftbl),
                                   tables_.sku,
                                   range_of(image.subspan(afs_size_))};
    expect_success(qoQfsDolmInit(&inputs, on_report), "start-up");
    if (!qoQfsIsVfsDeployed()) {
        throw std::runtime_error("start-up finds no deployed VFS");
    }
    afs_.use(dfs_context);
    return 0;
}

Files SetStore::read_files() {
    Files files = afs_.read_files();
    if (efs_) {
        add_part(files, efs_->read_files(), efs_selector);
    }
    return files;
}

Files SetStore::files_on(std::span<const uint8_t> image) const {
    Files files = afs_.files_on(image.first(afs_size_));
    if (efs_) {
        add_part(files, efs_->files_on(image.subspan(afs_size_)), efs_selector);
    }
    return files;
}

std::vector<std::string> SetStore::check(std::span<const uint8_t> image, const Files &files) {
    std::vector<std::string> broken;
    for (const std::string &rule : afs_.check(image.first(afs_size_), part_of(files, false))) {
        broken.push_back("in AFS: " + rule);
    }
    if (efs_) {
        for (const std::string &rule :
             efs_->check(image.subspan(afs_size_), part_of(files, true))) {
            broken.push_back("in EFS: " + rule);
        }
    }
    return broken;
}

// All of them write no file longer, so that a full set does not refuse them.
std::vector<Change> SetStore::further_changes(uint32_t choice, const Files &files) {
    const Change in_afs = afs_overwrite(choice / 8, files);
    const Change in_efs = efs_overwrite(choice / 8, files);
    const Change idle{"idle reclaim",
                      [] {
                          const uint32_t status = dfs_idle_reclaim();
                          return status == AFS_RC_AGAIN || status == AFS_RC_NOT_RECLAIMED ? 0
                                                                                          : status;
                      },
                      {}};
    std::vector<std::vector<Change>> variants = {
        {in_afs}, {afs_.reclaim_data(), in_afs}, {afs_.reclaim_log(), in_afs}, {idle, in_afs}};
    if (efs_) {
        variants.insert(variants.end(), {{in_efs},
                                         {in_efs, in_afs},
                                         {EfsStore::switch_bm(), in_efs},
                                         {EfsStore::idle_reclaim(), in_efs}});
    }
    return variants[choice % variants.size()];
}

Change SetStore::afs_overwrite(uint32_t choice, const Files &files) {
    const Files known = part_of(files, false);
    const auto &[number, contents] =
        *std::next(known.begin(), static_cast<ptrdiff_t>(choice % known.size()));
    const auto size = static_cast<uint32_t>(contents.size());
    return afs_.write(number, size / 2, pattern(choice, std::min(size - size / 2, 10U)));
}

Change SetStore::efs_overwrite(uint32_t choice, const Files &files) {
    const Files known = part_of(files, true);
    if (known.empty()) {
        return afs_overwrite(choice, files);
    }
    const auto &[number, contents] =
        *std::next(known.begin(), static_cast<ptrdiff_t>(choice % known.size()));
    Change change = EfsStore::write(number, static_cast<uint32_t>(contents.size()), choice);
    change.effect = [effect = change.effect](Files &all) {
        Files part = part_of(all, true);
        effect(part);
        add_part(all, part, efs_selector);
    };
    return change;
}

std::vector<uint32_t> SetStore::boundaries(const DeviceEvent &event) const {
    return is_of_efs(event) ? efs_->boundaries(event) : afs_.boundaries(event);
}

std::vector<std::vector<uint8_t>> SetStore::torn_values(const DeviceEvent &event) const {
    return is_of_efs(event) ? std::vector<std::vector<uint8_t>>{} : afs_.torn_values(event);
}

const Limit *SetStore::limit(std::span<const DeviceEvent> events, size_t k, const Tear &tear,
                             std::span<const uint8_t> torn_image) const {
    return is_of_efs(events[k]) ? nullptr : afs_.limit(events, k, tear, torn_image);
}

bool SetStore::leaves_unclaimed_bytes(std::span<const DeviceEvent> events, size_t k) const {
    if (is_of_efs(events[k])) {
        return false;
    }
    // AFS judges by its own events, of which those of one operation stand together.
    size_t first = k;
    while (first > 0 && !is_of_efs(events[first - 1])) {
        --first;
    }
    return afs_.leaves_unclaimed_bytes(events.subspan(first), k - first);
}

Change SetStore::termination(const Image &image, const std::vector<NewValue> &values) {
    // What is to be in flash afterwards, told by a start-up of its own.
    Image copy = image;
    mount(copy);
    set_values(values);
    const Files written = values_to_write();
    unmount();

    Change change;
    change.name = "the termination";
    change.run = [values]() -> uint32_t {
        set_values(values);
        expect_success(qoQfsNvarTerm(true), "the termination");
        return 0;
    };
    change.effect = [written](Files &files) {
        for (const auto &[key, contents] : written) {
            files[key] = contents;
        }
    };
    change.file_by_file = true;
    return change;
}

} // namespace dolm::proof
