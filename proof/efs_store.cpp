#include "proof/efs_store.h"

#include <algorithm>

#include "EFS.h"
#include "image/efs_records.h"

namespace dolm::proof {
namespace {

Files files_in(const EfsImage &image) {
    Files files;
    for (const EfsFile &file : image.files) {
        if (file.kind == EfsFile::Kind::contents) {
            files[file.place.number] = file.contents;
        }
    }
    return files;
}

} // namespace

uint32_t EfsStore::entry_size() const {
    return layout_.data_blocks() + efs::entry_words_size;
}

uint32_t EfsStore::mount(std::span<uint8_t> image) {
    return EFS_init_tools(image.data());
}

Files EfsStore::read_files() {
    Files files;
    for (const EfsPlace &place : layout_.files) {
        uint32_t length = place.max_size;
        std::vector<uint8_t> bytes(length + 1); // never null
        const uint32_t status = EFS_read(place.number, 0, &length, bytes.data());
        if (status == EFS_NO_FILE) {
            continue;
        }
        expect_done(status, "the read of file " + std::to_string(place.number));
        bytes.resize(length);
        files.emplace(place.number, std::move(bytes));
    }
    return files;
}

Files EfsStore::files_on(std::span<const uint8_t> image) const {
    return files_in(view_of(image));
}

// What the reader finds. An image is looked at several times before it changes.
const EfsImage &EfsStore::view_of(std::span<const uint8_t> image) const {
    if (!std::ranges::equal(image, viewed_)) {
        viewed_.assign(image.begin(), image.end());
        view_ = read_efs_image(image, layout_);
    }
    return view_;
}

std::vector<std::string> EfsStore::check(std::span<const uint8_t> image, const Files &files) {
    const EfsImage &found = view_of(image);
    std::vector<std::string> findings = efs_damages(found);
    if (!findings.empty()) {
        return findings;
    }
    if (files_in(found) != files) {
        findings.push_back("the reader finds other files than the store");
    }
    const uint32_t entry_offset = efs::header_size + found.entry_in_force * entry_size();
    if (found.bm_in_force != efs_ctx.current_bm || entry_offset != efs_ctx.bme_offset ||
        found.torn_entry != (efs_ctx.bm_switch_pending != 0)) {
        findings.push_back("the reader finds another entry in force than the store");
    }
    return findings;
}

std::vector<Change> EfsStore::further_changes(uint32_t choice, const Files &) {
    const EfsPlace &place = layout_.files[choice / 8 % layout_.files.size()];
    const auto by_size = [](const EfsPlace &a, const EfsPlace &b) {
        return a.max_size < b.max_size;
    };
    const EfsPlace &largest = *std::ranges::max_element(layout_.files, by_size);
    const Change overwrite =
        write(place.number, std::min(1 + choice % 300, place.max_size), choice);
    const std::vector<Change> sequels[] = {
        {overwrite},
        {write(largest.number, largest.max_size / 10 * 9, choice), overwrite},
        {write(largest.number, choice % (largest.max_size + 1), choice), remove(largest.number),
         overwrite},
        {overwrite, remove(place.number)},
        {idle_reclaim(), overwrite},
        {overwrite, idle_reclaim(), idle_reclaim()},
        {switch_bm(), overwrite},
    };
    return sequels[choice % std::size(sequels)];
}

std::vector<uint32_t> EfsStore::boundaries(const DeviceEvent &event) const {
    if (event.kind == DeviceEvent::Kind::erase) {
        return {4, 12, 16, 20, 35, 2048, 4092};
    }
    if (event.length == 4) {
        return {2};
    }
    if (event.length == efs::header_size) {
        return {2, 4, 8, 12, 14};
    }
    if (event.length == entry_size()) { // of both maps, then of the words behind them
        const uint32_t maps = layout_.data_blocks();
        return {2, layout_.valid_blocks, maps, maps + 4, maps + 8, maps + 10};
    }
    return {2, 4, 104, 1004, 2004, efs::data_size}; // a data area, with or without footer
}

Change EfsStore::write(uint32_t file, uint32_t length, uint32_t seed) {
    return {"the write of file " + std::to_string(file),
            [=] {
                const std::vector<uint8_t> bytes = pattern(seed, length + 1);
                return EFS_write(file, 0, length, bytes.data());
            },
            [=](Files &files) {
                files[file] = pattern(seed, length + 1);
                files[file].resize(length);
            }};
}

Change EfsStore::remove(uint32_t file) {
    return {"the delete of file " + std::to_string(file), [=] { return EFS_delete(file); },
            [=](Files &files) { files.erase(file); }};
}

Change EfsStore::idle_reclaim() {
    return {"idle reclaim", EFS_idle_reclaim, {}};
}

Change EfsStore::switch_bm() {
    // By way of a commit, as every change does: it tries again where the new BM may be half there.
    return {"a BM switch",
            [] {
                efs_ctx.bm_switch_pending = 1;
                return EFS_commit_BME(&efs_ctx.current_bme, 0, 0);
            },
            {}};
}

Change EfsStore::dirty_erase() {
    return {"a dirty erase",
            [] {
                const uint32_t status = EFS_scan_for_Data_Blocks_status_and_EC();
                return status == EFS_OK ? EFS_erase_dirty_block() : status;
            },
            {}};
}

} // namespace dolm::proof
