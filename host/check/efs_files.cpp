// The records of the files, and the places that the file list gives them.
#include <algorithm>

#include "host/check/efs_check.h"
#include "host/check/table_check.h"
#include "image/efs_records.h"

namespace dolm {

// Files whose block is good: then the list says the wrong place, or the record was damaged
// before the block was sealed.
void EfsCheck::tell_files() {
    for (const EfsDamage &damage : view_.efs.damages) {
        const bool is_of_file =
            damage.rule == Rule::record || damage.rule == Rule::limit || damage.rule == Rule::place;
        if (is_of_file) {
            ++bad_files_;
        }
    }
    for (const EfsDamage &damage : view_.efs.damages) {
        if (damage.rule == Rule::limit || damage.rule == Rule::place) {
            tell_list(damage,
                      damage.rule == Rule::limit ? ftbl::record_max_size_offset
                                                 : ftbl::record_block_offset,
                      damage.text);
        } else if (damage.rule == Rule::record) {
            tell_record(damage);
        }
    }
}

const EfstRecord *EfsCheck::record_of(uint32_t file) const {
    return row_ == nullptr ? nullptr : row_->record_of(file);
}

void EfsCheck::tell_list(const EfsDamage &damage, size_t field, const std::string &text) {
    const EfstRecord *record = record_of(*damage.file);
    if (record == nullptr) {
        error("file " + std::to_string(*damage.file), text);
        return;
    }
    findings_.error(
        {ftbl_bin, place_of(*row_, *record, field), text, name_in(view_.efs_names, *damage.file)},
        subject_of(*record));
}

void EfsCheck::tell_record(const EfsDamage &damage) {
    const uint32_t logical = *damage.logical;
    const uint32_t block = view_.efs.valid_map[logical];
    const std::string subject = "block " + std::to_string(block);
    if (findings_.has_error_about(efs_img, subject)) {
        return; // told with the block
    }
    const EfsPlace &place = place_of_file(*damage.file);
    const size_t at =
        block_at(block) + efs::data_offset + (logical == place.block ? place.offset : 0);
    const EfstRecord *record = record_of(*damage.file);
    if (record != nullptr && findings_.has_error_about(ftbl_bin, subject_of(*record))) {
        tell_list(damage, 0, "no good record stands at its place on the image");
    } else if (bad_files_ > 2 && bad_files_ * 2 > view_.efs.files.size()) {
        error(at_offset(at, "files"),
              "most files of the list are not where the file table has them: image and table "
              "are of different sets",
              "geometry");
    } else if (const auto other = find_elsewhere(place)) {
        tell_list(damage,
                  other->block == place.block ? ftbl::record_start_offset
                                              : ftbl::record_block_offset,
                  "no good record stands at block " + std::to_string(place.block) + ", offset " +
                      std::to_string(place.offset) + ", and one does at block " +
                      std::to_string(other->block) + ", offset " + std::to_string(other->offset));
    } else if (is_blank(at)) {
        findings_.note({efs_img, at_offset(at, "file " + std::to_string(*damage.file)),
                        "no record was ever written here; the file counts as none",
                        name_in(view_.efs_names, *damage.file)});
    } else {
        error(at_offset(at, "block " + std::to_string(block) + " (logical " +
                                std::to_string(logical) + "), record of file " +
                                std::to_string(*damage.file)),
              "the record fails its checksum in a block that is good otherwise")
            .cause.nvar = name_in(view_.efs_names, *damage.file);
    }
}

bool EfsCheck::is_blank(size_t at) const {
    return efs::all(std::span(bytes_).subspan(at, efs::record_head_size), 0xFF);
}

// A good record that no other file of the list has, in the same block or at the same offset.
std::optional<EfsPlace> EfsCheck::find_elsewhere(const EfsPlace &place) const {
    for (uint32_t block = 0; block < view_.layout->valid_blocks; ++block) {
        for (uint32_t offset = 0; offset <= efs::record_room; ++offset) {
            const EfsPlace other{place.number, block, offset, place.max_size};
            if ((block == place.block || offset == place.offset) && is_unclaimed(other) &&
                is_good_record(bytes_, *view_.layout, view_.efs, other)) {
                return other;
            }
        }
    }
    return std::nullopt;
}

bool EfsCheck::is_unclaimed(const EfsPlace &candidate) const {
    return std::none_of(view_.efs.files.begin(), view_.efs.files.end(),
                        [&](const EfsFile &file) {
                            const size_t end =
                                file.place.offset + efs::record_head_size + file.contents.size();
                            return file.kind != EfsFile::Kind::damaged &&
                                   file.place.block == candidate.block &&
                                   candidate.offset >= file.place.offset && candidate.offset < end;
                        }) &&
           (candidate.offset == 0 || byte_before(candidate) == 0xFF);
}

uint8_t EfsCheck::byte_before(const EfsPlace &place) const {
    return bytes_[block_at(view_.efs.valid_map[place.block]) + efs::data_offset + place.offset - 1];
}

} // namespace dolm
