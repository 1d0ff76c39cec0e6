// The EFS image, and which of it and the file table is wrong where they contradict each other.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <vector>

#include "host/check/set_view.h"
#include "image/efs_survey.h"

namespace dolm {

class EfsCheck {
  public:
    EfsCheck(SetView &view, Findings &findings);
    void run();

  private:
    using Rule = EfsDamage::Rule;

    static std::string bm_name(uint32_t bm) { return "BM " + std::to_string(bm); }

    // In check_efs.cpp.
    Finding &error(std::string place, std::string text, const std::string &subject = {});
    static void follow(Finding &cause, std::string text);
    size_t entry_at(uint32_t bm, uint32_t entry) const;
    size_t block_at(uint32_t block) const;
    void tell_mapping();
    void tell_no_bm();
    std::string file_name(uint32_t file) const;
    void tell_traces();
    void tell_wear();
    void tell_sku();

    // In efs_geometry.cpp.
    bool is_wrong(const EfstRow &row);
    bool list_fits(const EfstRow &row) const;
    void compare_geometry(const EfstRow &row);
    const EfstRow *choose_row();
    bool choose_layout();

    // In efs_blocks.cpp.
    void tell_blocks();
    uint32_t block_of(size_t at) const;
    std::optional<uint32_t> logical_of(uint32_t block) const;
    void tell_block(uint32_t block, uint32_t logical);
    static std::optional<size_t> wrong_byte_of(std::span<const uint8_t> block);
    const EfsDamage *damaged_record(uint32_t logical) const;
    const EfsPlace &place_of_file(uint32_t file) const;
    void follow_with_files(Finding &cause, std::optional<uint32_t> logical);
    void tell_spares(const std::string &text);

    // In efs_files.cpp.
    void tell_files();
    const EfstRecord *record_of(uint32_t file) const;
    void tell_list(const EfsDamage &damage, size_t field, const std::string &text);
    void tell_record(const EfsDamage &damage);
    bool is_blank(size_t at) const;
    std::optional<EfsPlace> find_elsewhere(const EfsPlace &place) const;
    bool is_unclaimed(const EfsPlace &candidate) const;
    uint8_t byte_before(const EfsPlace &place) const;

    SetView &view_;
    const Bytes &bytes_;
    Findings &findings_;
    std::optional<EfsOwnGeometry> own_;
    const EfstRow *row_ = nullptr; // whose file list is used
    std::vector<EfsTrace> traces_;
    size_t bad_files_ = 0;
};

} // namespace dolm
