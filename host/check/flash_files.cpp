#include "host/check/flash_files.h"

#include <algorithm>

#include "host/manifest.h"

namespace dolm {

FlashFiles::FlashFiles(const SetView &view) : has_afs_image(!view.files.qfs_image.empty()) {
    for (const AfsFile &file : view.afs.files) {
        if (file.kind != AfsFile::Kind::zombie) {
            afs.emplace(file.number, &file);
        }
    }
    for (const EfsFile &file : view.efs.files) {
        if (file.kind == EfsFile::Kind::contents) {
            efs.emplace(file.place.number, &file);
        }
    }
}

const std::vector<uint8_t> *FlashFiles::contents(const FtblEntry &entry) const {
    if (entry.is_in_efs()) {
        const auto found = efs.find(entry.id);
        return found == efs.end() ? nullptr : &found->second->contents;
    }
    const bool is_dispatched_to_afs = entry.store <= 1;
    const bool reads_as_no_file = entry.id == 0 && entry.number >> 28 == 0;
    const auto found = afs.find(entry.id);
    const bool is_there = is_dispatched_to_afs && !reads_as_no_file && found != afs.end();
    return is_there ? &found->second->contents : nullptr;
}

std::optional<std::span<const uint8_t>> FlashFiles::pulled(const FtblEntry &entry) const {
    const auto *found = contents(entry);
    if (found == nullptr || (entry.attributes & attribute_not_pulled) != 0 ||
        found->size() < entry.trailer()) {
        return std::nullopt;
    }
    return std::span(*found).first(found->size() - entry.trailer());
}

bool FlashFiles::is_deployed(const FtblRow &row) const {
    const FtblEntry *marker = deploy_marker_of(row);
    const auto *found = marker == nullptr ? nullptr : contents(*marker);
    return has_afs_image && found != nullptr && !found->empty();
}

const FtblEntry *deploy_marker_of(const FtblRow &row) {
    const auto found =
        std::find_if(row.entries.begin(), row.entries.end(),
                     [](const FtblEntry &entry) { return entry.name == deploy_marker; });
    return found == row.entries.end() ? nullptr : &*found;
}

} // namespace dolm
