// Image and file table agree on the geometry, and with which one the image is read.
#include <algorithm>

#include "host/check/efs_check.h"
#include "host/check/table_check.h"
#include "image/efs_records.h"

namespace dolm {

namespace {

struct GeometryField {
    const char *name;
    uint32_t EfstRow::*in_row;
    uint32_t EfsLayout::*in_layout;
    size_t at; // in the row
};

constexpr GeometryField geometry_fields[] = {
    {"bm_num", &EfstRow::bm_num, &EfsLayout::bm_num, ftbl::efst_bm_num_offset},
    {"valid_block_num", &EfstRow::valid_blocks, &EfsLayout::valid_blocks,
     ftbl::efst_valid_blocks_offset},
    {"non_valid_block_num", &EfstRow::spare_blocks, &EfsLayout::spare_blocks,
     ftbl::efst_spare_blocks_offset},
    {"layout_id", &EfstRow::layout_id, &EfsLayout::layout_id, ftbl::efst_layout_id_offset},
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

} // namespace

bool EfsCheck::is_wrong(const EfstRow &row) {
    return findings_.has_error_about(ftbl_bin, subject_of(row));
}

// How many files of a row's list lie on the image where the list says, under the geometry of
// the image itself.
bool EfsCheck::list_fits(const EfstRow &row) const {
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
void EfsCheck::compare_geometry(const EfstRow &row) {
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
            findings_.error(
                {ftbl_bin,
                 at_offset(row.at + field.at, std::string(field.name) + " in the EFST row of SKU " +
                                                  std::to_string(row.sku)),
                 std::string(field.name) + " is " + std::to_string(row.*field.in_row) + ", and " +
                     std::to_string(own_->layout.*field.in_layout) + " on the image"},
                subject_of(row));
        }
    }
}

// The row of the set's SKU if it is good, else any that is.
const EfstRow *EfsCheck::choose_row() {
    for (const bool of_own_sku : {true, false}) {
        for (const EfstRow &row : view_.table.efst_rows) {
            const bool is_own = row.sku == view_.files.sku.value_or(row.sku);
            if (!is_wrong(row) && is_own == of_own_sku && is_possible(efs_layout_of(row))) {
                return &row;
            }
        }
    }
    return nullptr;
}

// The geometry of the image if it tells its own, else that of a row.
bool EfsCheck::choose_layout() {
    row_ = choose_row();
    if (row_ != nullptr) {
        view_.layout = efs_layout_of(*row_);
    }
    if (own_) {
        const bool has_list = row_ != nullptr && is_same(*row_, own_->layout);
        const auto files = has_list ? view_.layout->files : std::vector<EfsPlace>();
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
              counted(bytes_.size(), "byte") + ", too short for " + geometry_text(*view_.layout) +
                  ", which take " + std::to_string(view_.layout->image_size()));
        return false;
    }
    if (bytes_.size() % efs::block_size != 0) {
        error(at_offset(bytes_.size(), "end of the file"),
              counted(bytes_.size(), "byte") + " are no whole number of blocks");
    }
    return true;
}

} // namespace dolm
