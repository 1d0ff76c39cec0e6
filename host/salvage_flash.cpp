#include "host/salvage_flash.h"

#include <algorithm>

#include "image/afs_history.h"
#include "image/afs_records.h"
#include "image/efs_history.h"
#include "image/efs_layout.h"
#include "image/file_table.h"

namespace dolm {

namespace {

std::string place_text(size_t at) {
    return "at offset " + std::to_string(at);
}

SalvagedPart to_part(const Bytes &image, const AfsVersion &version) {
    return {Found::sound, contents_of(image, version), "",
            version.chunks_at.empty() ? "" : place_text(version.chunks_at.front())};
}

SalvagedPart to_part(const Bytes &, const EfsVersion &version) {
    return {Found::sound, version.contents, "", place_text(version.at)};
}

// The newest content that is left, which is sound only if it is known to be the last.
SalvagedPart newest_part(const Bytes &image, const auto &file) {
    if (file.state == HistoryState::absent && file.why.empty()) {
        return {};
    }
    if (file.versions.empty()) {
        return {Found::lost, {}, file.why, ""};
    }
    SalvagedPart part = to_part(image, file.versions.front());
    if (file.state == HistoryState::sound) {
        part.where.clear();
    } else {
        part.state = Found::older;
        part.why = file.why;
    }
    return part;
}

void read_afs(const SetFiles &set, Manifest &manifest, SalvagedFlash &flash) {
    const auto history = set.qfs_image.empty() ? std::nullopt : read_afs_history(set.qfs_image);
    if (!history) {
        flash.afs_lost = set.qfs_image.empty() ? "qfs.img is missing"
                                               : "no header of a file system is left in qfs.img";
        return;
    }
    flash.afs_doubt = history->doubts.empty() ? "" : history->doubts.front();
    AfsLayout layout;
    layout.data_eus = (history->chunk_count + afs::data_slots - 1) / afs::data_slots;
    constexpr uint32_t least_others = 3; // two for the log and the spare
    layout.device_size = std::max(history->eu_count, layout.data_eus + least_others) * afs::eu_size;
    layout.file_count = history->file_count;
    const uint64_t units =
        std::min<uint64_t>(set.qfs_image.size() / afs::eu_size, afs::max_eu_count);
    const uint64_t behind = units - history->eu_count;
    if (behind != 0) {
        flash.damages.push_back(
            {"qfs.img", "", "",
             "is longer than its store by " + std::to_string(behind) + " erased units"});
    }
    manifest.afs = layout;
    for (const AfsFileHistory &file : history->files) {
        const SalvagedPart part = newest_part(set.qfs_image, file);
        if (part.value || part.state == Found::lost) {
            flash.afs.emplace(file.number, part);
        }
    }
}

size_t count_sound(const EfsHistory &history) {
    return static_cast<size_t>(
        std::count_if(history.files.begin(), history.files.end(), [](const EfsFileHistory &file) {
            return file.state == HistoryState::sound || file.state == HistoryState::doubtful;
        }));
}

// The row by which most files can be read, that of the set's SKU if it makes no odds.
const EfstRow *row_of_image(const SetFiles &set, const FileTable &table) {
    const EfstRow *best = nullptr;
    size_t best_count = 0;
    for (const EfstRow &row : table.efst_rows) {
        const EfsLayout layout = efs_layout_of(row);
        if (!is_possible(layout)) {
            continue;
        }
        const size_t count = count_sound(read_efs_history(set.efs_image, layout));
        if (best == nullptr || count > best_count || (count == best_count && row.sku == set.sku)) {
            best = &row;
            best_count = count;
        }
    }
    return best;
}

// Whether no other record of the file list has the file or begins where it does.
bool is_only_one(const std::vector<EfsFileHistory> &files, const EfsPlace &place) {
    return std::count_if(files.begin(), files.end(), [&](const EfsFileHistory &other) {
               return other.place.number == place.number ||
                      (other.place.block == place.block && other.place.offset == place.offset);
           }) == 1;
}

void read_efs(const SetFiles &set, const Bytes &ftbl, Manifest &manifest, SalvagedFlash &flash) {
    const FileTable table = read_file_table(ftbl);
    const EfstRow *row = set.efs_image.empty() ? nullptr : row_of_image(set, table);
    for (EfsSection &section : manifest.efs) {
        section.has_image = row != nullptr && section.has_sku(row->sku);
    }
    if (row == nullptr) {
        flash.efs_lost =
            set.efs_image.empty() ? "efs.img is missing" : "the file table has no geometry of EFS";
        return;
    }
    const EfsHistory history = read_efs_history(set.efs_image, efs_layout_of(*row));
    for (const EfsFileHistory &file : history.files) {
        const EfsPlace &place = file.place;
        const bool is_clear = is_only_one(history.files, place);
        flash.efs.insert_or_assign(
            place.number,
            is_clear ? newest_part(set.efs_image, file)
                     : SalvagedPart{Found::lost, {}, "the file table gives its place twice", ""});
        flash.efs_places.insert_or_assign(place.number,
                                          EfsPlacement{place.block, place.offset, place.max_size});
    }
}

} // namespace

SalvagedFlash read_flash(const SetFiles &set, const Bytes &ftbl, Manifest &manifest) {
    SalvagedFlash flash;
    read_afs(set, manifest, flash);
    read_efs(set, ftbl, manifest, flash);
    return flash;
}

} // namespace dolm
