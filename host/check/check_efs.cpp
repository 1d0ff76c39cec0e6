#include "host/check/efs_check.h"

#include <algorithm>

#include "image/efs_records.h"

namespace dolm {

EfsCheck::EfsCheck(SetView &view, Findings &findings)
    : view_(view), bytes_(view.files.efs_image), findings_(findings) {}

void EfsCheck::run() {
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

Finding &EfsCheck::error(std::string place, std::string text, const std::string &subject) {
    Finding &finding = findings_.error({efs_img, std::move(place), std::move(text)}, subject);
    finding.advice = how_to_restore(efs_img);
    return finding;
}

void EfsCheck::follow(Finding &cause, std::string text) {
    cause.consequences.push_back({efs_img, "", std::move(text)});
}

size_t EfsCheck::entry_at(uint32_t bm, uint32_t entry) const {
    return size_t{bm} * efs::block_size + efs::header_size +
           size_t{entry} * (view_.layout->data_blocks() + efs::entry_words_size);
}

size_t EfsCheck::block_at(uint32_t block) const {
    return size_t{view_.layout->bm_num + block} * efs::block_size;
}

void EfsCheck::tell_mapping() {
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
            const auto rest =
                bytes_.begin() + static_cast<std::ptrdiff_t>(entry_at(*damage.bm, *damage.entry));
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
void EfsCheck::tell_no_bm() {
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

std::string EfsCheck::file_name(uint32_t file) const {
    const std::string name = name_in(view_.efs_names, file);
    return name.empty() ? "file " + std::to_string(file) : name;
}

void EfsCheck::tell_traces() {
    for (const EfsTrace &trace : traces_) {
        if (trace.kind == EfsTrace::Kind::lost_map) {
            error(at_offset(trace.at, trace.what), trace.text);
        } else if (trace.kind != EfsTrace::Kind::zeros) {
            findings_.note({efs_img, at_offset(trace.at, trace.what), trace.text});
        }
    }
}

// Beyond the gap at which each change evens wear out.
void EfsCheck::tell_wear() {
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

void EfsCheck::tell_sku() {
    const auto &sku = view_.files.sku;
    if (own_ && sku && (*sku & 0xFF) != own_->sku) {
        findings_.note({efs_img, at_offset(own_->at + 2, "BM header"),
                        "the map was made for SKU " + std::to_string(own_->sku) +
                            ", and set.json names SKU " + std::to_string(*sku)});
    }
}

void check_efs(SetView &view, Findings &findings) {
    if (!view.files.efs_image.empty()) {
        EfsCheck(view, findings).run();
    }
}

} // namespace dolm
