// The EFS image, and which of it and the file table is wrong where they contradict each other.
#include <algorithm>

#include "host/check/set_view.h"
#include "host/check/table_check.h"
#include "image/efs_records.h"
#include "image/efs_survey.h"

namespace dolm {

namespace {

using Rule = EfsDamage::Rule;

constexpr const char *restore_image = "bring back efs.img from a backup or read it again from the "
                                      "device; dolm inspect shows what is left";

struct GeometryField {
    const char *name;
    uint32_t EfstRow::*in_row;
    uint32_t EfsLayout::*in_layout;
    size_t at; // in the row
};

constexpr GeometryField geometry_fields[] = {
    {"bm_num", &EfstRow::bm_num, &EfsLayout::bm_num, 16},
    {"valid_block_num", &EfstRow::valid_blocks, &EfsLayout::valid_blocks, 20},
    {"non_valid_block_num", &EfstRow::spare_blocks, &EfsLayout::spare_blocks, 24},
    {"layout_id", &EfstRow::layout_id, &EfsLayout::layout_id, 36},
};

bool is_same(const EfstRow &row, const EfsLayout &layout) {
    return std::all_of(
        std::begin(geometry_fields), std::end(geometry_fields),
        [&](const GeometryField &field) { return row.*field.in_row == layout.*field.in_layout; });
}

std::string geometry_text(const EfsLayout &layout) {
    return std::to_string(layout.bm_num) + " BMs, " + std::to_string(layout.valid_blocks) +
           " logical and " + std::to_string(layout.spare_blocks) + " spare blocks, layout " +
           std::to_string(layout.layout_id);
}

class EfsCheck {
  public:
    EfsCheck(SetView &view, Findings &findings)
        : view_(view), bytes_(view.files.efs_image), findings_(findings) {}

    void run() {
        own_ = own_geometry(bytes_);
        for (const EfstRow &row : view_.table.efst_rows) {
            compare_geometry(row);
        }
        if (!choose_layout()) {
            return;
        }
        view_.efs = read_efs_image(bytes_, *view_.layout);
        traces_ = survey_efs_image(bytes_, *view_.layout, view_.efs);
        tell_mapping();
        tell_blocks();
        tell_files();
        tell_traces();
        tell_wear();
        tell_sku();
    }

  private:
    Finding &error(std::string place, std::string text, const std::string &subject = {}) {
        Finding &finding = findings_.error({efs_img, std::move(place), std::move(text)}, subject);
        finding.advice = restore_image;
        return finding;
    }

    static void follow(Finding &cause, std::string text) {
        cause.consequences.push_back({efs_img, "", std::move(text)});
    }

    bool is_wrong(const EfstRow &row) {
        return findings_.has_error_about(ftbl_bin, subject_of(row));
    }

    // How many files of a row's list lie on the image where the list says, under the geometry of
    // the image itself.
    bool list_fits(const EfstRow &row) const {
        EfsLayout layout = efs_layout_of(row);
        const std::vector<EfsPlace> files = std::move(layout.files);
        layout = own_->layout;
        layout.files = files;
        const EfsImage image = read_efs_image(bytes_, layout);
        const auto good =
            std::count_if(image.files.begin(), image.files.end(),
                          [](const EfsFile &file) { return file.kind != EfsFile::Kind::damaged; });
        return !files.empty() && static_cast<size_t>(good) * 2 >= files.size();
    }

    // Image and table have to agree on the geometry. The file list tells whether they belong
    // together, and so whether a field of the row is wrong or the whole image.
    void compare_geometry(const EfstRow &row) {
        if (!own_ || is_same(row, own_->layout)) {
            return;
        }
        const bool other_row_fits =
            std::any_of(view_.table.efst_rows.begin(), view_.table.efst_rows.end(),
                        [&](const EfstRow &other) { return is_same(other, own_->layout); });
        if (!other_row_fits && !list_fits(row)) {
            error(at_offset(own_->at, "BM header"),
                  "the image has " + geometry_text(own_->layout) + "; the file table has " +
                      geometry_text(efs_layout_of(row)) + " for SKU " + std::to_string(row.sku) +
                      ": they are of different sets",
                  "geometry");
            return;
        }
        for (const GeometryField &field : geometry_fields) {
            if (row.*field.in_row != own_->layout.*field.in_layout) {
                findings_.error({ftbl_bin,
                                 at_offset(row.at + field.at, std::string(field.name) +
                                                                  " in the EFST row of SKU " +
                                                                  std::to_string(row.sku)),
                                 std::string(field.name) + " is " +
                                     std::to_string(row.*field.in_row) + ", and " +
                                     std::to_string(own_->layout.*field.in_layout) +
                                     " on the image"},
                                subject_of(row));
            }
        }
    }

    // The row of the set's SKU if it is good, else any that is; the geometry of the image if it
    // tells its own.
    bool choose_layout() {
        for (const bool of_own_sku : {true, false}) {
            for (const EfstRow &row : view_.table.efst_rows) {
                const bool is_own = row.sku == view_.files.sku.value_or(row.sku);
                if (!is_wrong(row) && is_own == of_own_sku && is_possible(efs_layout_of(row))) {
                    view_.layout = efs_layout_of(row);
                    row_ = &row;
                    break;
                }
            }
            if (row_ != nullptr) {
                break;
            }
        }
        if (own_) {
            const auto files = view_.layout && is_same(*row_, own_->layout)
                                   ? view_.layout->files
                                   : std::vector<EfsPlace>();
            view_.layout = own_->layout;
            view_.layout->files = files;
        }
        if (!view_.layout) {
            findings_.follow({ftbl_bin},
                             {efs_img, "", "no geometry is known with which it could be read"});
            return false;
        }
        if (bytes_.size() < view_.layout->image_size()) {
            error(at_offset(bytes_.size(), "end of the file"),
                  counted(bytes_.size(), "byte") + ", too short for " +
                      geometry_text(*view_.layout) + ", which take " +
                      std::to_string(view_.layout->image_size()));
            return false;
        }
        if (bytes_.size() % efs::block_size != 0) {
            error(at_offset(bytes_.size(), "end of the file"),
                  counted(bytes_.size(), "byte") + " are no whole number of blocks");
        }
        return true;
    }

    size_t entry_at(uint32_t bm, uint32_t entry) const {
        return size_t{bm} * efs::block_size + efs::header_size +
               size_t{entry} * (view_.layout->data_blocks() + efs::entry_words_size);
    }
    size_t block_at(uint32_t block) const {
        return size_t{view_.layout->bm_num + block} * efs::block_size;
    }

    static std::string bm_name(uint32_t bm) { return "BM " + std::to_string(bm); }

    void tell_mapping() {
        for (const EfsDamage &damage : view_.efs.damages) {
            if (damage.rule == Rule::mapping && damage.bm) {
                error(at_offset(entry_at(*damage.bm, *damage.entry),
                                bm_name(*damage.bm) + ", entry " + std::to_string(*damage.entry)),
                      "the last two maps fail their checksums", "mapping");
            } else if (damage.rule == Rule::mapping) {
                tell_no_bm();
            } else if (damage.rule == Rule::entry) {
                error(at_offset(entry_at(*damage.bm, *damage.entry),
                                bm_name(*damage.bm) + ", entry " + std::to_string(*damage.entry)),
                      damage.text, "mapping");
            } else if (damage.rule == Rule::erased) {
                const auto rest = bytes_.begin() +
                                  static_cast<std::ptrdiff_t>(entry_at(*damage.bm, *damage.entry));
                const auto written =
                    std::find_if(rest, bytes_.end(), [](uint8_t byte) { return byte != 0xFF; });
                error(at_offset(static_cast<size_t>(written - bytes_.begin()),
                                bm_name(*damage.bm) + ", behind the entries"),
                      damage.text);
            } else if (damage.rule == Rule::geometry) {
                error(at_offset(*damage.bm * efs::block_size, bm_name(*damage.bm) + ", header"),
                      damage.text, "geometry");
            }
        }
        if (!view_.efs.bm_in_force || view_.efs.blocks.empty()) {
            findings_.follow({efs_img}, {efs_img, "", "the store does not mount"});
        }
    }

    // The BM that has to be in force is one that has entries and a header that does not count.
    void tell_no_bm() {
        const auto &bms = view_.efs.bms;
        if (findings_.has_error_about(efs_img, "geometry")) {
            return;
        }
        uint32_t lost = 0;
        for (uint32_t bm = 0; bm < bms.size(); ++bm) {
            if (bms[bm].entries > bms[lost].entries) {
                lost = bm;
            }
        }
        const char *text = bms[lost].state == EfsBmState::erased    ? "is erased"
                           : bms[lost].state == EfsBmState::retired ? "is retired, and none follows"
                           : bms[lost].state == EfsBmState::good    ? "has the sequence 0"
                                                                    : "fails its checksum";
        error(at_offset(lost * efs::block_size, bm_name(lost) + ", header"),
              "no BM is in force: the header of " + bm_name(lost) + " " + text, "mapping");
    }

    std::string file_name(uint32_t file) const {
        const std::string name = name_in(view_.efs_names, file);
        return name.empty() ? "file " + std::to_string(file) : name;
    }

    // Each live block once: the header, or the place in its data area that a file's record tells.
    void tell_blocks() {
        for (const EfsTrace &trace : traces_) {
            if (trace.kind == EfsTrace::Kind::zeros) {
                Finding &cause = error(at_offset(trace.at, trace.what), trace.text,
                                       "block " + std::to_string(block_of(trace.at)));
                follow_with_files(cause, logical_of(block_of(trace.at)));
            }
        }
        for (const EfsDamage &damage : view_.efs.damages) {
            if (damage.rule == Rule::block && damage.block) {
                tell_block(*damage.block, *damage.logical);
            } else if (damage.rule == Rule::block) {
                tell_spares(damage.text);
            }
        }
    }

    uint32_t block_of(size_t at) const {
        return static_cast<uint32_t>(at / efs::block_size) - view_.layout->bm_num;
    }

    std::optional<uint32_t> logical_of(uint32_t block) const {
        const auto &map = view_.efs.valid_map;
        const auto found = std::find(map.begin(), map.end(), block);
        return found == map.end() ? std::nullopt
                                  : std::optional(static_cast<uint32_t>(found - map.begin()));
    }

    void tell_block(uint32_t block, uint32_t logical) {
        const auto bytes = std::span(bytes_).subspan(block_at(block), efs::block_size);
        const std::string name =
            "block " + std::to_string(block) + " (logical " + std::to_string(logical) + ")";
        const std::string subject = "block " + std::to_string(block);
        size_t offset = 0;
        std::string what = "header";
        std::string text = "fails its checksum";
        std::string nvar;
        if (const auto header = bytes.first(efs::header_size); !efs::is_sealed(header)) {
            const auto wrong = efs::wrong_byte(header);
            offset = wrong ? wrong->at : 0;
        } else if (const EfsDamage *record = damaged_record(logical)) {
            const EfsPlace &place = place_of_file(*record->file);
            offset = efs::data_offset + (place.block == logical ? place.offset : 0);
            offset = wrong_byte_of(bytes).value_or(offset);
            what = "record of file " + std::to_string(*record->file);
            text = "fails its checksum, and so does the data area";
            nvar = name_in(view_.efs_names, *record->file);
        } else {
            offset = wrong_byte_of(bytes).value_or(efs::footer_offset);
            what = offset < efs::footer_offset ? "data area" : "checksum of the data area";
            text = "does not match; the records of all files in it are good";
        }
        Finding &cause = error(at_offset(block_at(block) + offset, name + ", " + what),
                               name + ": the " + what + " " + text, subject);
        if (cause.consequences.empty()) {
            cause.cause.nvar = nvar;
        }
        follow_with_files(cause, logical);
    }

    static std::optional<size_t> wrong_byte_of(std::span<const uint8_t> block) {
        const auto found = efs::wrong_byte(block.subspan(efs::data_offset));
        return found ? std::optional(found->at + efs::data_offset) : std::nullopt;
    }

    const EfsDamage *damaged_record(uint32_t logical) const {
        for (const EfsDamage &damage : view_.efs.damages) {
            if (damage.rule == Rule::record && damage.logical == logical) {
                return &damage;
            }
        }
        return nullptr;
    }

    const EfsPlace &place_of_file(uint32_t file) const {
        return std::find_if(view_.efs.files.begin(), view_.efs.files.end(),
                            [=](const EfsFile &known) { return known.place.number == file; })
            ->place;
    }

    void follow_with_files(Finding &cause, std::optional<uint32_t> logical) {
        std::vector<std::string> lost;
        std::vector<std::string> held;
        for (const EfsFile &file : view_.efs.files) {
            const uint32_t first = file.place.block;
            const size_t size = file.contents.size() + file.place.offset;
            const uint32_t last =
                first + static_cast<uint32_t>(size == 0 ? 0 : (size - 1) / efs::record_room);
            if (!logical || *logical < first || *logical > last) {
                continue;
            }
            (file.kind == EfsFile::Kind::damaged ? lost : held)
                .push_back(file_name(file.place.number));
        }
        if (!lost.empty()) {
            follow(cause, counted(lost.size(), "file") + " cannot be read: " + listed(lost));
        }
        if (!held.empty()) {
            follow(cause,
                   counted(held.size(), "file") + " can be read and not changed: " + listed(held));
        }
    }

    void tell_spares(const std::string &text) {
        for (uint32_t block = 0; block < view_.efs.blocks.size(); ++block) {
            if (view_.efs.blocks[block].state == EfsBlockState::no_header) {
                error(at_offset(block_at(block), "block " + std::to_string(block) + ", header"),
                      text + ", and a cut of power leaves one at most: no file can be changed",
                      "spares");
            }
        }
    }

    // Files whose block is good: then the list says the wrong place, or the record was damaged
    // before the block was sealed.
    void tell_files() {
        for (const EfsDamage &damage : view_.efs.damages) {
            const bool is_of_file = damage.rule == Rule::record || damage.rule == Rule::limit ||
                                    damage.rule == Rule::place;
            if (is_of_file) {
                ++bad_files_;
            }
        }
        for (const EfsDamage &damage : view_.efs.damages) {
            if (damage.rule == Rule::limit || damage.rule == Rule::place) {
                tell_list(damage, damage.rule == Rule::limit ? 54 : 50, damage.text);
            } else if (damage.rule == Rule::record) {
                tell_record(damage);
            }
        }
    }

    const EfstRecord *record_of(uint32_t file) const {
        if (row_ == nullptr) {
            return nullptr;
        }
        const auto found =
            std::find_if(row_->records.begin(), row_->records.end(),
                         [=](const EfstRecord &record) { return record.file_index == file; });
        return found == row_->records.end() ? nullptr : &*found;
    }

    void tell_list(const EfsDamage &damage, size_t field, const std::string &text) {
        const EfstRecord *record = record_of(*damage.file);
        if (record == nullptr) {
            error("file " + std::to_string(*damage.file), text);
            return;
        }
        findings_.error({ftbl_bin, place_of(*row_, *record, field), text,
                         name_in(view_.efs_names, *damage.file)},
                        subject_of(*record));
    }

    void tell_record(const EfsDamage &damage) {
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
            tell_list(damage, other->block == place.block ? 52 : 50,
                      "no good record stands at block " + std::to_string(place.block) +
                          ", offset " + std::to_string(place.offset) + ", and one does at block " +
                          std::to_string(other->block) + ", offset " +
                          std::to_string(other->offset));
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

    bool is_blank(size_t at) const {
        return efs::all(std::span(bytes_).subspan(at, efs::record_head_size), 0xFF);
    }

    // A good record that no other file of the list has, in the same block or at the same offset.
    std::optional<EfsPlace> find_elsewhere(const EfsPlace &place) const {
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

    bool is_unclaimed(const EfsPlace &candidate) const {
        return std::none_of(view_.efs.files.begin(), view_.efs.files.end(),
                            [&](const EfsFile &file) {
                                const size_t end = file.place.offset + efs::record_head_size +
                                                   file.contents.size();
                                return file.kind != EfsFile::Kind::damaged &&
                                       file.place.block == candidate.block &&
                                       candidate.offset >= file.place.offset &&
                                       candidate.offset < end;
                            }) &&
               (candidate.offset == 0 || byte_before(candidate) == 0xFF);
    }

    uint8_t byte_before(const EfsPlace &place) const {
        return bytes_[block_at(view_.efs.valid_map[place.block]) + efs::data_offset + place.offset -
                      1];
    }

    void tell_traces() {
        for (const EfsTrace &trace : traces_) {
            if (trace.kind == EfsTrace::Kind::lost_map) {
                error(at_offset(trace.at, trace.what), trace.text);
            } else if (trace.kind != EfsTrace::Kind::zeros) {
                findings_.note({efs_img, at_offset(trace.at, trace.what), trace.text});
            }
        }
    }

    // Beyond the gap at which each change evens wear out.
    void tell_wear() {
        if (row_ == nullptr || view_.efs.blocks.empty() || findings_.has_error_in(efs_img)) {
            return;
        }
        uint32_t lowest = UINT32_MAX;
        uint32_t highest = 0;
        for (const EfsBlock &block : view_.efs.blocks) {
            if (block.state != EfsBlockState::no_header) {
                lowest = std::min(lowest, block.erase_count);
                highest = std::max(highest, block.erase_count);
            }
        }
        if (highest > lowest && highest - lowest > 2 * uint64_t{row_->wear_threshold}) {
            findings_.note({efs_img, "block headers",
                            "wear is uneven: erase counts from " + std::to_string(lowest) + " to " +
                                std::to_string(highest)});
        }
    }

    void tell_sku() {
        const auto &sku = view_.files.sku;
        if (own_ && sku && (*sku & 0xFF) != own_->sku) {
            findings_.note({efs_img, at_offset(own_->at + 2, "BM header"),
                            "the map was made for SKU " + std::to_string(own_->sku) +
                                ", and set.json names SKU " + std::to_string(*sku)});
        }
    }

    SetView &view_;
    const Bytes &bytes_;
    Findings &findings_;
    std::optional<EfsOwnGeometry> own_;
    const EfstRow *row_ = nullptr; // whose file list is used
    std::vector<EfsTrace> traces_;
    size_t bad_files_ = 0;
};

} // namespace

void check_efs(SetView &view, Findings &findings) {
    if (!view.files.efs_image.empty()) {
        EfsCheck(view, findings).run();
    }
}

} // namespace dolm
