#include "proof/afs_store.h"

#include <algorithm>
#include <stdexcept>

#include "Afs.h"
#include "AfsFtl.h"
#include "image/afs_image.h"
#include "image/afs_records.h"
#include "image/bytes.h"

namespace dolm::proof {
namespace {

constexpr Limit torn_header{"a torn header passes its checksum",
                            "the header of an EU has a checksum of 8 bits, which one torn header "
                            "in 256 passes by chance"};
constexpr Limit mixed_run{
    "bits of a run of entries are mixed",
    "the entries of the log have no checksum of their own, so that one of which only some bits "
    "landed names another page"};

uint32_t offset_in_eu(const DeviceEvent &event) {
    return event.address % AFS_EU_SIZE;
}

bool is_write(const DeviceEvent &event) {
    return event.kind == DeviceEvent::Kind::write;
}

bool are_records(const DeviceEvent &event, uint32_t first_record) {
    const uint32_t offset = offset_in_eu(event);
    return is_write(event) && offset >= first_record &&
           (offset - first_record) % afs::record_size == 0 && event.length % afs::record_size == 0;
}

// A run of pages that goes to the log. Those of a data EU start at other offsets.
bool are_log_records(const DeviceEvent &event) {
    return are_records(event, afs::log_records_offset);
}

bool could_be_entries(const DeviceEvent &event) {
    const uint32_t offset = offset_in_eu(event);
    return is_write(event) && offset >= afs::header_size && offset < afs::log_records_offset &&
           offset % 2 == 0 && event.length % 2 == 0;
}

bool same_log_slot(const DeviceEvent &entries, const DeviceEvent &records) {
    return could_be_entries(entries) && are_log_records(records) &&
           entries.address / AFS_EU_SIZE == records.address / AFS_EU_SIZE &&
           offset_in_eu(records) ==
               afs::log_records_offset +
                   (offset_in_eu(entries) - afs::header_size) / 2 * afs::record_size;
}

// A reclaim begins with an erase and ends with the state byte of a header.
bool is_in_reclaim(std::span<const DeviceEvent> events, size_t k) {
    while (k-- > 0) {
        if (!is_write(events[k])) {
            return true;
        }
        if (offset_in_eu(events[k]) == afs::state_offset) {
            return false;
        }
    }
    return false;
}

using Findings = std::vector<std::string>;

void expect_equal(Findings &findings, const std::string &what, uint64_t reader, uint64_t store) {
    if (reader != store) {
        findings.push_back(what + " is " + std::to_string(reader) + " for the reader and " +
                           std::to_string(store) + " for the store");
    }
}

Files files_in(const AfsImage &image) {
    Files files;
    for (const AfsFile &file : image.files) {
        if (file.kind != AfsFile::Kind::zombie) {
            files[file.number] = file.contents;
        }
    }
    return files;
}

// Fresh from a mount, the tables of the store say what the reader finds.
void compare_tables(Findings &findings, const AfsImage &image, const afs_ftl_state &ftl) {
    expect_equal(findings, "the spare", image.spare.value_or(AFS_FTL_NONE), ftl.spare_eu);
    expect_equal(findings, "the sequence", image.sequence, ftl.sequence);
    expect_equal(findings, "the head of the log", image.head.value_or(AFS_FTL_NONE), ftl.write_eu);
    const uint32_t next_slot = ftl.head_closed != 0 ? AFS_FTL_EU_PAGES : ftl.write_slot;
    expect_equal(findings, "the slot of the head", image.head_slot, next_slot);
    for (uint32_t i = 0; i < image.eu_count; ++i) {
        const AfsEu &eu = image.eus[i];
        const afs_eu_info &row = ftl.eu_table[i];
        const std::string name = " of EU " + std::to_string(i);
        expect_equal(findings, "the erase count" + name, eu.erase_count, row.erase_count);
        expect_equal(findings, "the first page" + name, eu.va_base, row.va_base);
        if (eu.role == AfsRole::log) {
            expect_equal(findings, "the dirt" + name, AFS_FTL_EU_PAGES - eu.live, row.dirty_pages);
            expect_equal(findings, "blankness" + name, eu.free == AFS_FTL_EU_PAGES ? 1 : 0,
                         row.free_pages);
        } else if (eu.role == AfsRole::data) {
            expect_equal(findings, "the dirt" + name, AFS_DATA_EU_PAGES - eu.live, row.dirty_pages);
            expect_equal(findings, "the free slots" + name, eu.free, row.free_pages);
        }
    }
}

// A file that exists, or a number for a new one.
uint32_t any_file(uint32_t choice, const Files &files) {
    if (files.empty()) {
        return choice % AFS_MIN_FILE_COUNT;
    }
    return std::next(files.begin(), static_cast<ptrdiff_t>(choice % files.size()))->first;
}

} // namespace

uint32_t AfsStore::mount(std::span<uint8_t> image) {
    mount_.emplace(image, cache_lines_);
    context_ = mount_->context();
    return mount_->status();
}

void AfsStore::unmount() {
    context_ = nullptr;
    mount_.reset();
}

Files AfsStore::read_files() {
    Files files;
    for (uint32_t number = 0; number < context()->file_count; ++number) {
        const auto file = static_cast<int32_t>(number);
        uint32_t size = 0;
        const uint32_t status = afs_getfilesize(context(), file, &size);
        if (status == AFS_RC_NO_FILE) {
            continue;
        }
        expect_done(status, "the size of file " + std::to_string(number));
        std::vector<uint8_t> contents(size + 1);
        uint32_t length = size + 1;
        expect_done(afs_readfile(context(), file, 0, &length, contents.data()),
                    "the read of file " + std::to_string(number));
        contents.resize(length);
        if (length != size) {
            throw std::runtime_error("file " + std::to_string(number) + " has " +
                                     std::to_string(size) + " bytes and " + std::to_string(length) +
                                     " of them can be read");
        }
        files.emplace(number, std::move(contents));
    }
    return files;
}

Files AfsStore::files_on(std::span<const uint8_t> image) const {
    return files_in(view_of(image));
}

// What the reader finds. An image is looked at several times before it changes.
const AfsImage &AfsStore::view_of(std::span<const uint8_t> image) const {
    if (!std::ranges::equal(image, viewed_)) {
        viewed_.assign(image.begin(), image.end());
        view_ = read_afs_image(image);
    }
    return view_;
}

std::vector<std::string> AfsStore::check(std::span<const uint8_t> image, const Files &files) {
    const AfsImage &found = view_of(image);
    Findings findings = check_invariants(found);
    if (files_in(found) != files) {
        findings.push_back("the reader finds other files than the store");
    }
    compare_tables(findings, found, ftl());
    return findings;
}

std::vector<Change> AfsStore::further_changes(uint32_t choice, const Files &files) {
    const uint32_t file = any_file(choice / 16, files);
    const auto known = files.find(file);
    const auto size = static_cast<uint32_t>(known == files.end() ? 0 : known->second.size());
    const Change overwrite = write(file, size / 2, pattern(choice, 10));
    const uint32_t other = choice / 64 % AFS_MIN_FILE_COUNT;
    const Change full_reclaim = maintain("full reclaim", afs_force_full_reclaim);
    const std::vector<Change> variants[] = {
        {write(file, size, pattern(choice, 70), size > 2000 ? AFS_WRITE_TRUNCATE : 0)},
        {write(file, 0, pattern(choice, 65), AFS_WRITE_TRUNCATE)},
        {reclaim_data(), overwrite},
        {reclaim_log(), overwrite},
        {maintain("end of reserved files mode", afs_physical_ftl_end_reserved_files_mode),
         overwrite},
        {maintain("idle reclaim", afs_idle_reclaim), overwrite},
        {maintain("dirty erase", afs_force_dirty_erase), overwrite},
        {reclaim_log(), reclaim_data(), overwrite},
        {full_reclaim, full_reclaim, overwrite},
        {files.contains(file) ? remove(file) : overwrite, write(other, 0, {}),
         write(other, 5, pattern(choice, 200))},
        {files.contains(other) ? overwrite : mark_zombie(other),
         write(other, 0, {}, AFS_WRITE_TRUNCATE)},
        {overwrite},
        {overwrite},
        {overwrite}};
    return variants[choice % std::size(variants)];
}

std::vector<uint32_t> AfsStore::boundaries(const DeviceEvent &event) const {
    const uint32_t offset = offset_in_eu(event);
    if (event.kind == DeviceEvent::Kind::erase) {
        // The fields at the head of an EU lie in its lower block.
        if (offset == 0) {
            return {4, 8, 17, 18, afs::data_records_offset, afs::log_records_offset, 2048};
        }
        return {afs::record_size, 2048};
    }
    if (offset == 0) {
        return {4, 8, 12, 14, 16};
    }
    std::vector<uint32_t> result;
    if (are_log_records(event) || are_records(event, afs::data_records_offset)) {
        for (uint32_t at = 0; at < event.length; at += afs::record_size) {
            result.insert(result.end(), {at, at + AFS_PAGE_SIZE});
        }
        return result;
    }
    for (uint32_t at = 2; at < event.length; at += 2) {
        result.push_back(at);
    }
    result.push_back(1);
    return result;
}

std::vector<std::vector<uint8_t>> AfsStore::torn_values(const DeviceEvent &event) const {
    const bool gives_up = is_write(event) && offset_in_eu(event) == 0 && event.length == 4;
    if (!gives_up) {
        return {};
    }
    std::vector<std::vector<uint8_t>> magics;
    for (const uint32_t magic : {afs::magic_alternative, afs::magic_partial}) {
        put_le(magics.emplace_back(4), 0, magic, 4);
    }
    return magics;
}

const Limit *AfsStore::limit(std::span<const DeviceEvent> events, size_t k, const Tear &tear,
                             std::span<const uint8_t> torn_image) const {
    const DeviceEvent &event = events[k];
    if (tear.kind == Tear::Kind::whole || !is_write(event)) {
        return nullptr;
    }
    if (offset_in_eu(event) == 0 && event.length == afs::state_offset &&
        afs::judge_header(torn_image.subspan(event.address)).state != afs::HeaderState::invalid) {
        return &torn_header;
    }
    // Each entry of a run commits the page before it. One that landed with some of its bits leads
    // astray behind a commit mark. Nothing does where that mark stands, or where whole entries are
    // missing.
    const bool run = k > 0 && same_log_slot(event, events[k - 1]) && event.length > 2;
    const bool mark_stands = get_le16(torn_image, event.address) == afs::entry_commit_mark;
    const bool bits_are_mixed = tear.kind == Tear::Kind::bits ||
                                (tear.kind == Tear::Kind::suffix && tear.at < sizeof(uint16_t));
    if (run && bits_are_mixed && !mark_stands) {
        return &mixed_run;
    }
    return nullptr;
}

// A page of its own goes to the log behind its entry, so that a cut gives its slot up. A reclaim
// alone writes a run of pages first and their entries after.
bool AfsStore::leaves_unclaimed_bytes(std::span<const DeviceEvent> events, size_t k) const {
    if (k == 0) {
        return false;
    }
    const DeviceEvent &event = events[k];
    const DeviceEvent &previous = events[k - 1];
    const bool ahead_of_entries = are_log_records(event) && !same_log_slot(previous, event);
    return (ahead_of_entries || same_log_slot(event, previous)) && is_in_reclaim(events, k);
}

Change AfsStore::write(uint32_t file, uint32_t offset, const std::vector<uint8_t> &bytes,
                       uint32_t flags) {
    Change change;
    change.name = "a write to file " + std::to_string(file);
    change.run = [this, file, offset, bytes, flags] {
        return afs_writefile(context(), static_cast<int32_t>(file), offset,
                             static_cast<uint32_t>(bytes.size()), bytes.data(), flags);
    };
    change.effect = [file, offset, bytes, flags](Files &files) {
        std::vector<uint8_t> &contents = files[file];
        const size_t end = offset + bytes.size();
        if ((flags & AFS_WRITE_TRUNCATE) != 0 || (contents.size() < end && !bytes.empty())) {
            contents.resize(end);
        }
        std::copy(bytes.begin(), bytes.end(), contents.begin() + (bytes.empty() ? 0 : offset));
    };
    return change;
}

Change AfsStore::remove(uint32_t file) {
    return {"the delete of file " + std::to_string(file),
            [this, file] { return afs_deletefile(context(), static_cast<int32_t>(file)); },
            [file](Files &files) { files.erase(file); }};
}

Change AfsStore::mark_zombie(uint32_t file) {
    return {"zombie mark of file " + std::to_string(file),
            [this, file] { return afs_mark_zombie_file(context(), file); },
            {}};
}

Change AfsStore::maintain(std::string name, std::function<uint32_t(afs_context *)> run) {
    return {std::move(name),
            [this, run = std::move(run)]() -> uint32_t {
                const uint32_t status = run(context());
                return status == AFS_RC_AGAIN || status == AFS_RC_NOT_RECLAIMED ? 0 : status;
            },
            {}};
}

Change AfsStore::reclaim_log() {
    return maintain("a reclaim of a log EU", [](afs_context *context) {
        uint32_t mode = 0;
        const uint32_t best = choose_eu_to_reclaim(context, AFS_FTL_KIND_LOG, 0, &mode, 0);
        const uint32_t eu = mode == AFS_FTL_MODE_RECLAIM ? best : context->ftl->write_eu;
        return reclaim_eu(context, eu, AFS_FTL_MODE_RECLAIM);
    });
}

Change AfsStore::reclaim_data() {
    return maintain("a reclaim of a data EU", [](afs_context *context) {
        uint32_t mode = 0;
        const uint32_t eu = choose_eu_to_reclaim(context, AFS_FTL_KIND_DATA, 0, &mode, 0);
        return reclaim_eu(context, eu, AFS_FTL_MODE_RECLAIM);
    });
}

Change AfsStore::reclaim(uint32_t eu) {
    return maintain("a reclaim of EU " + std::to_string(eu), [eu](afs_context *context) {
        return eu == context->ftl->spare_eu ? 0 : reclaim_eu(context, eu, AFS_FTL_MODE_RECLAIM);
    });
}

} // namespace dolm::proof
