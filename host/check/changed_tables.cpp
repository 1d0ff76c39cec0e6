// Tables that are not what dolm wrote: "set.json" has checksums of them, block by block.
#include <algorithm>
#include <cstdlib>

#include "host/check/flash_files.h"
#include "host/check/set_view.h"
#include "host/check/table_spot.h"
#include "image/efs_records.h"

namespace dolm {

namespace {

struct Changed {
    const SetMember *member;
    const Bytes *bytes;
    const Checksums *recorded;
    std::vector<size_t> blocks;

    const char *file() const { return member->name; }
    bool has_size() const { return bytes->size() == recorded->size; }
    // Hardly anything of it is left.
    bool is_another() const {
        const size_t all = recorded->crc32s.size();
        return blocks.size() > all / 2 + 1 || (all > 1 && blocks.size() == all);
    }
    // What lies behind all that has checksums is new.
    bool holds(uint64_t at) const {
        return at >= recorded->size ||
               std::binary_search(blocks.begin(), blocks.end(), at / recorded->block);
    }
    size_t begin() const { return blocks.front() * recorded->block; }
    size_t end() const {
        return std::min<size_t>((blocks.back() + 1) * recorded->block, bytes->size());
    }
};

class ChangeCheck {
  public:
    ChangeCheck(const SetView &view, Findings &findings)
        : view_(view), findings_(findings), flash_(view) {}

    void run() {
        for (const SetMember &member : set_members) {
            const auto recorded = view_.checksums.find(member.name);
            if (recorded != view_.checksums.end() && !(view_.files.*member.content).empty()) {
                compare(member, recorded->second);
            }
        }
        const auto others =
            std::count_if(changed_.begin(), changed_.end(),
                          [](const Changed &changed) { return changed.is_another(); });
        if (others > 1 && sound_.empty()) {
            tell_other_settings();
            return;
        }
        for (const Changed &changed : changed_) {
            tell(changed);
        }
    }

  private:
    void compare(const SetMember &member, const Checksums &recorded) {
        const Bytes &bytes = view_.files.*member.content;
        Changed changed{&member, &bytes, &recorded, changed_blocks(bytes, recorded)};
        const bool is_whole = changed.has_size() && efs::crc32(bytes) == recorded.whole;
        if (is_whole != (changed.has_size() && changed.blocks.empty())) {
            findings_.error({settings_name, "checksums",
                             std::string("those of the blocks of ") + member.name +
                                 " and that of the whole file contradict each other"});
        }
        if (is_whole || (changed.has_size() && changed.blocks.empty())) {
            sound_.insert(member.name);
        } else if (is_write_back(changed)) {
            findings_.note({vync_cfg, "",
                            "another program has written it since dolm did; it is well-formed, and "
                            "no value in flash contradicts it"});
        } else {
            changed_.push_back(std::move(changed));
        }
    }

    // Every host writes its values into this table and into flash, and knows nothing of checksums:
    // what is in order by itself and stands in flash too is no damage.
    bool is_write_back(const Changed &changed) const {
        if (changed.member->name != std::string(vync_cfg) || findings_.has_error_in(vync_cfg) ||
            finding_inside(changed) != nullptr) {
            return false;
        }
        return !changed.has_size() ||
               std::all_of(changed.blocks.begin(), changed.blocks.end(),
                           [&](size_t block) { return is_of_value_in_flash(changed, block); });
    }

    bool is_of_value_in_flash(const Changed &changed, size_t block) const {
        const size_t begin = block * changed.recorded->block;
        const size_t end = begin + changed.recorded->block;
        const auto &records = view_.overrides.records;
        return std::any_of(records.begin(), records.end(), [&](const FcsRecord &record) {
            return fcs::vync_head_size + record.offset < end &&
                   fcs::vync_head_size + record.end() > begin && is_in_flash(record.number);
        });
    }

    bool is_in_flash(uint32_t number) const {
        return std::any_of(view_.skus.begin(), view_.skus.end(), [&](uint32_t sku) {
            const auto &entries = view_.table.row_of(sku)->entries;
            return std::any_of(entries.begin(), entries.end(), [&](const FtblEntry &entry) {
                return entry.number == number && flash_.pulled(entry).has_value();
            });
        });
    }

    void tell_other_settings() {
        findings_.explain({settings_name, "checksums",
                           "none of the tables is one that it has checksums of: it belongs to "
                           "another set"},
                          [](const Finding &finding) {
                              return finding.cause.file == settings_name &&
                                     finding.severity == Finding::Severity::error;
                          });
    }

    void tell(const Changed &changed) {
        Remark cause = cause_of(changed);
        Finding &finding = findings_.explain(
            cause, [&](const Finding &other) { return follows(other, changed, cause); });
        finding.advice = std::string("bring the file back; if the change was meant, take ") +
                         changed.file() + " out of \"checksums\" in set.json";
    }

    Remark cause_of(const Changed &changed) const {
        const char *file = changed.file();
        if (!changed.has_size()) {
            const uint64_t end = std::min<uint64_t>(changed.bytes->size(), changed.recorded->size);
            return {file, changed.is_another() ? "" : at_offset(end, "end of the file"),
                    "has " + counted(changed.bytes->size(), "byte") + ", and " +
                        std::to_string(changed.recorded->size) + " when dolm wrote it" +
                        (changed.is_another() ? "; hardly a byte is the same" : "")};
        }
        if (const auto wrong = wrong_byte(changed)) {
            const TableSpot spot = spot_at(view_, file, wrong->at);
            const uint8_t byte = (*changed.bytes)[wrong->at];
            return {file, at_offset(wrong->at, spot.what),
                    "the byte is " + hex(byte) + ", and was " + hex(byte ^ wrong->bits) +
                        " when dolm wrote the file",
                    spot.nvar};
        }
        if (changed.is_another()) {
            return {file, "", "has hardly a byte as dolm wrote it: it belongs to another set"};
        }
        if (const Finding *inside = finding_inside(changed)) {
            return inside->cause;
        }
        return {file, place_of(changed), "not all bytes are those that dolm wrote"};
    }

    std::string place_of(const Changed &changed) const {
        const std::string first = spot_at(view_, changed.file(), changed.begin()).what;
        const std::string last = spot_at(view_, changed.file(), changed.end() - 1).what;
        return hex(changed.begin()) + " to " + hex(changed.end() - 1) + ", " + first +
               (last == first ? "" : " to " + last);
    }

    static std::optional<efs::WrongByte> wrong_byte(const Changed &changed) {
        if (changed.blocks.size() != 1) {
            return std::nullopt;
        }
        const size_t block = changed.blocks.front();
        auto wrong = efs::wrong_byte(block_of(*changed.bytes, *changed.recorded, block),
                                     changed.recorded->crc32s[block]);
        if (wrong) {
            wrong->at += block * changed.recorded->block;
        }
        return wrong;
    }

    // What else was found where the bytes have changed, an error first.
    const Finding *finding_inside(const Changed &changed) const {
        const Finding *note = nullptr;
        for (const Finding &finding : findings_.all()) {
            const uint64_t at = std::strtoull(finding.cause.place.c_str(), nullptr, 16);
            if (finding.cause.file != changed.file() || !finding.cause.place.starts_with("0x") ||
                !changed.holds(at)) {
                continue;
            }
            if (finding.severity == Finding::Severity::error) {
                return &finding;
            }
            note = note == nullptr ? &finding : note;
        }
        return note;
    }

    // Errors about what is sound by itself come of the table that is not.
    bool follows(const Finding &finding, const Changed &changed, const Remark &cause) const {
        const Remark &remark = finding.cause;
        if (finding.severity == Finding::Severity::note) {
            return remark.file == changed.file() &&
                   (remark.place == cause.place ||
                    (remark.nvar == cause.nvar && !remark.nvar.empty()));
        }
        const bool is_of_image = (remark.file == qfs_img && has_sound_afs()) ||
                                 (remark.file == efs_img && has_sound_efs());
        return remark.file == changed.file() || sound_.contains(remark.file) || is_of_image ||
               remark.file == "the set" || (remark.file == settings_name && remark.place == "sku");
    }

    // An image that is missing is no error of its own if nothing but the table asks for it.
    bool is_counted(const char *image) const {
        const auto &members = view_.files.members;
        return std::find(members.begin(), members.end(), image) != members.end();
    }

    bool has_sound_afs() const {
        return view_.files.qfs_image.empty() ? !is_counted(qfs_img) : view_.afs.damages.empty();
    }

    bool has_sound_efs() const {
        using Rule = EfsDamage::Rule;
        if (view_.files.efs_image.empty()) {
            return !is_counted(efs_img);
        }
        return std::none_of(view_.efs.damages.begin(), view_.efs.damages.end(),
                            [](const EfsDamage &damage) {
                                return damage.rule == Rule::mapping || damage.rule == Rule::block ||
                                       damage.rule == Rule::entry || damage.rule == Rule::erased;
                            });
    }

    const SetView &view_;
    Findings &findings_;
    const FlashFiles flash_;
    std::set<std::string> sound_; // tables that are what dolm wrote
    std::vector<Changed> changed_;
};

} // namespace

void check_changes(const SetView &view, Findings &findings) {
    ChangeCheck(view, findings).run();
}

} // namespace dolm
