#include "host/salvage.h"

#include <algorithm>
#include <map>
#include <set>

#include "host/salvage_flash.h"
#include "host/salvage_tables.h"
#include "host/set_manifest.h"
#include "image/afs_records.h"
#include "image/efs_survey.h"
#include "image/table_mend.h"

namespace dolm {

namespace {

constexpr uint8_t trailer_filler = 0x5A;

bool belongs(const SetFiles &set, const char *member) {
    return std::find(set.members.begin(), set.members.end(), member) != set.members.end();
}

void demote(SalvagedPart &part, const std::string &why) {
    if (part.state == Found::sound && part.value) {
        part.state = Found::older;
        part.why = why;
    }
}

Content to_content(const Bytes &bytes) {
    return Content(bytes, bytes.size());
}

class Salvager {
  public:
    explicit Salvager(const SetFiles &set)
        : set_(set), tables_(mend_tables(set)), manifest_(salvage_.manifest) {}

    Salvage run() {
        describe();
        flash_ = read_flash(set_, tables_.files.ftbl, manifest_);
        salvage_.damages.insert(salvage_.damages.end(), flash_.damages.begin(),
                                flash_.damages.end());
        add_files_without_entry();
        count_claims();
        note_values();
        for (const ManifestFile &file : manifest_.files) {
            SalvagedFile found;
            found.base = table_part(file, base_of_, tables_.base);
            found.override_value = table_part(file, override_of_, tables_.overrides);
            if (file.is_in_afs() || file.is_in_efs()) {
                found.flash = flash_part(file);
            }
            salvage_.files.push_back(std::move(found));
        }
        find_deployment();
        for (size_t i = 0; i < salvage_.files.size(); ++i) {
            choose_current(manifest_.files[i], salvage_.files[i]);
            put_back(manifest_.files[i], salvage_.files[i]);
        }
        finish_manifest();
        return std::move(salvage_);
    }

  private:
    void damage(const char *member, const std::string &text) {
        salvage_.damages.push_back({member, "", "", text});
    }

    // The tables as far as they can be mended, as a manifest.
    void describe() {
        SetDescription described = describe_set(tables_.files);
        salvage_.damages = tables_.damages;
        for (const Problem &hidden : described.hidden) {
            salvage_.damages.push_back(hidden);
        }
        manifest_ = std::move(described.manifest);
        for (ManifestFile &file : manifest_.files) {
            if (!file.skus.empty() && !file.name.starts_with('/')) {
                damage("ftbl.bin",
                       "the entry of file " + std::to_string(file.number) + " has no name");
                file.skus.clear(); // what it holds is kept under its number
                file.name.clear();
            }
        }
        if (set_.qfs_image.empty() && is_expected("qfs.img")) {
            damage("qfs.img", "is missing");
        }
        if (set_.efs_image.empty() && is_expected("efs.img")) {
            damage("efs.img", "is missing");
        }
        if (set_.vync_cfg.empty() && is_expected("vync.cfg")) {
            damage("vync.cfg", "is missing");
        }
    }

    // Without a set.json that names the members, an image is missed if a file of the table that
    // makes the set a deployed one lies in it.
    bool is_expected(const char *member) const {
        if (!set_.members.empty() || std::string_view(member) == "vync.cfg") {
            return belongs(set_, member);
        }
        const bool is_afs = std::string_view(member) == "qfs.img";
        return std::any_of(
            manifest_.files.begin(), manifest_.files.end(), [&](const ManifestFile &file) {
                return file.name == deploy_marker && (is_afs ? file.is_in_afs() : file.is_in_efs());
            });
    }

    // Files in flash that no entry leads to.
    void add_files_without_entry() {
        std::set<std::pair<bool, uint32_t>> known;
        for (const ManifestFile &file : manifest_.files) {
            known.emplace(file.is_in_efs(), file.id);
        }
        for (const auto &[id, part] : flash_.afs) {
            if (part.value && !known.contains({false, id})) {
                ManifestFile file;
                file.store = Store::afs;
                file.id = static_cast<uint16_t>(id);
                manifest_.files.push_back(std::move(file));
                has_stranger_ = true;
            }
        }
        for (const auto &[id, part] : flash_.efs) {
            if (part.value && !known.contains({true, id})) {
                ManifestFile file;
                file.store = Store::efs;
                file.id = static_cast<uint16_t>(id);
                file.efs = flash_.efs_places.at(id);
                manifest_.files.push_back(std::move(file));
                has_stranger_ = true;
            }
        }
    }

    bool is_doubted(const ManifestFile &file) const {
        return tables_.doubted_numbers.contains(file.number);
    }

    using Claim = std::tuple<uint32_t, bool, uint32_t>; // SKU, whether in EFS, id

    // An entry that is in doubt takes nothing from one that is not.
    struct Claims {
        int sure = 0;
        int doubted = 0;
    };
    struct Trailers { // lengths
        std::set<uint32_t> sure;
        std::set<uint32_t> doubted;
    };

    void count_claims() {
        for (const ManifestFile &file : manifest_.files) {
            const bool is_in_flash = file.is_in_afs() || file.is_in_efs();
            for (const uint32_t sku : is_in_flash ? file.skus : std::vector<uint32_t>{}) {
                Claims &claims = claims_[{sku, file.is_in_efs(), file.id}];
                ++(is_doubted(file) ? claims.doubted : claims.sure);
            }
            if (is_in_flash && !file.skus.empty()) {
                Trailers &trailers = trailers_[{0, file.is_in_efs(), file.id}];
                (is_doubted(file) ? trailers.doubted : trailers.sure)
                    .insert(trailer_length(file.attributes));
            }
        }
    }

    // Of several files with a number one has the values in the manifest, and all have them in the
    // tables.
    void note_values() {
        for (const ManifestFile &file : manifest_.files) {
            if (file.base) {
                base_of_.emplace(file.number, file.base->bytes());
            }
            if (file.override_value) {
                override_of_.emplace(file.number, file.override_value->bytes());
            }
        }
    }

    SalvagedPart table_part(const ManifestFile &file, const std::map<uint32_t, Bytes> &values,
                            const MendedValues &mended) const {
        SalvagedPart part;
        if (const auto value = values.find(file.number);
            value != values.end() && file.number != 0) {
            part.value = value->second;
            if (const auto doubt = mended.doubts.find(file.number); doubt != mended.doubts.end()) {
                demote(part, doubt->second);
            }
            if (is_doubted(file)) {
                demote(part, "the entries of its SKUs contradict each other");
            }
        } else if (const auto lost = mended.lost.find(file.number);
                   lost != mended.lost.end() && file.number != 0) {
            part = {Found::lost, {}, lost->second, ""};
        }
        return part;
    }

    // The content of the file in its store, without the trailer.
    SalvagedPart flash_part(const ManifestFile &file) {
        const bool is_efs = file.is_in_efs();
        if (const auto why = is_efs ? flash_.efs_lost : flash_.afs_lost) {
            return is_expected(is_efs ? "efs.img" : "qfs.img") || !image_of(file).empty()
                       ? SalvagedPart{Found::lost, {}, *why, ""}
                       : SalvagedPart{};
        }
        const auto &parts = is_efs ? flash_.efs : flash_.afs;
        const auto found = parts.find(file.id);
        if (found == parts.end()) {
            if (is_efs) {
                return {Found::lost, {}, "the file table gives it no place", ""};
            }
            return flash_.afs_doubt.empty() ? SalvagedPart{}
                                            : SalvagedPart{Found::lost, {}, flash_.afs_doubt, ""};
        }
        SalvagedPart part = found->second;
        const auto doubt = tables_.efs_doubts.find(file.id);
        if (is_efs && doubt != tables_.efs_doubts.end()) {
            demote(part, doubt->second);
        }
        for (const uint32_t sku : file.skus) {
            const Claims &claims = claims_[{sku, is_efs, file.id}];
            if (claims.sure + (is_doubted(file) ? claims.doubted : 0) > 1) {
                return {Found::lost,
                        {},
                        "two files of SKU " + std::to_string(sku) + " have its place in flash",
                        ""};
            }
            if (claims.sure + claims.doubted > 1) {
                demote(part, "another file may have its place in flash");
            }
        }
        if (is_doubted(file)) {
            demote(part, "the entries of its SKUs contradict each other");
        }
        return part.value ? without_trailer(file, std::move(part)) : part;
    }

    const Bytes &image_of(const ManifestFile &file) const {
        return file.is_in_efs() ? set_.efs_image : set_.qfs_image;
    }

    SalvagedPart without_trailer(const ManifestFile &file, SalvagedPart part) {
        const uint32_t length = trailer_length(file.attributes);
        const Trailers &trailers = trailers_[{0, file.is_in_efs(), file.id}];
        const auto &told = trailers.sure.empty() ? trailers.doubted : trailers.sure;
        if (!file.skus.empty() && told != std::set<uint32_t>{length}) {
            return {Found::lost, {}, "the file table has no one length of its trailer", ""};
        }
        if (part.value->size() < length) {
            return {Found::lost, {}, "it is shorter than its trailer", ""};
        }
        const auto value_end = part.value->end() - length;
        const Bytes trailer(value_end, part.value->end());
        if (std::any_of(trailer.begin(), trailer.end(),
                        [](uint8_t byte) { return byte != trailer_filler; })) {
            trailer_of_[&file] = trailer;
        }
        part.value->erase(value_end, part.value->end());
        if (part.value->size() > file.max_size && !file.skus.empty()) {
            demote(part, "it is longer than the file table lets it be");
        }
        return part;
    }

    void find_deployment() {
        for (size_t i = 0; i < manifest_.files.size(); ++i) {
            const SalvagedPart &flash = salvage_.files[i].flash;
            if (manifest_.files[i].name == deploy_marker) {
                is_deployed_ = is_deployed_ || flash.state == Found::lost ||
                               (flash.value && !flash.value->empty());
            }
        }
    }

    // Tries the places in the order in which a start-up fills the current values.
    void choose_current(const ManifestFile &file, SalvagedFile &found) const {
        const bool is_pulled = (file.attributes & attribute_not_pulled) == 0;
        const bool has_table_value = found.base.value || found.override_value.value ||
                                     found.base.state == Found::lost ||
                                     found.override_value.state == Found::lost;
        // What a start-up passes by is the value only of a file that the tables do not have.
        std::string lost = is_pulled || has_table_value ? "" : what_is_missing();
        const bool reads_flash = (is_deployed_ && is_pulled) || (!has_table_value && lost.empty());
        const auto try_part = [&](const SalvagedPart &part, const char *source) {
            if (part.state == Found::lost && lost.empty()) {
                lost = part.why;
            }
            if (part.value && !found.current.value) {
                found.current = part;
                found.source = source;
                if (!lost.empty()) {
                    demote(found.current, lost);
                }
            }
        };
        if (reads_flash) {
            try_part(found.flash, "flash");
            if (has_stranger_ && !found.flash.value && lost.empty() && !file.skus.empty() &&
                (file.is_in_afs() || file.is_in_efs())) {
                lost = "a file in flash has no entry in the file table, which may be this one";
            }
        }
        try_part(found.override_value, "override");
        if (lost.empty()) {
            lost = missing_overrides();
        }
        try_part(found.base, "base");
        if (!found.current.value && !lost.empty()) {
            found.current = {Found::lost, {}, lost, ""};
        }
    }

    std::string missing_overrides() const {
        return set_.vync_cfg.empty() && belongs(set_, "vync.cfg") ? "vync.cfg is missing"
                                                                  : tables_.overrides.missing;
    }

    // Why a file without a value in the tables may have had one.
    std::string what_is_missing() const {
        return tables_.base.missing.empty() ? missing_overrides() : tables_.base.missing;
    }

    // What was found goes to where it belongs. A file whose content in flash is lost gets the value
    // that it has in the tables, so that the set stays a deployed one; but not one with a trailer,
    // which would be wrong behind it.
    void put_back(ManifestFile &file, const SalvagedFile &found) {
        const bool has_store = file.is_in_efs() ? file.efs.has_value() : manifest_.afs.has_value();
        if (found.flash.value) {
            file.flash = to_content(*found.flash.value);
            if (const auto trailer = trailer_of_.find(&file); trailer != trailer_of_.end()) {
                file.trailer = to_content(trailer->second);
            }
        } else if (found.flash.state == Found::lost && found.current.value && has_store &&
                   trailer_length(file.attributes) == 0) {
            file.flash = to_content(*found.current.value);
        }
        if (!has_store) {
            file.flash.reset();
            file.trailer.reset();
        }
    }

    void finish_manifest() {
        constexpr int tries = 8;
        std::vector<Problem> refused = prepare_for_build(manifest_);
        for (int i = 0; i < tries && !refused.empty(); ++i) {
            if (!take_from_flash(refused) && manifest_.afs) {
                // An image that lost its end may be too small for what it held.
                manifest_.afs->device_size += afs::eu_size;
            }
            refused = prepare_for_build(manifest_);
        }
        salvage_.damages.insert(salvage_.damages.end(), refused.begin(), refused.end());
    }

    // Files that no image can have in the place that a damaged table gives them. False if none is.
    bool take_from_flash(const std::vector<Problem> &refused) {
        constexpr std::string_view files = "/files/";
        bool any = false;
        for (const Problem &problem : refused) {
            if (!problem.place.starts_with(files)) {
                continue;
            }
            ManifestFile &file = manifest_.files.at(std::stoul(problem.place.substr(files.size())));
            damage("ftbl.bin", "no place in flash can be that of " +
                                   (file.name.empty() ? std::to_string(file.number) : file.name) +
                                   ": " + problem.text);
            file.store = Store::none;
            file.id = 0;
            file.efs.reset();
            file.flash.reset();
            file.trailer.reset();
            any = true;
        }
        return any;
    }

    const SetFiles &set_;
    const MendedTables tables_;
    Salvage salvage_;
    Manifest &manifest_;
    SalvagedFlash flash_;
    std::map<uint32_t, Bytes> base_of_; // by number
    std::map<uint32_t, Bytes> override_of_;
    std::map<Claim, Claims> claims_;
    std::map<Claim, Trailers> trailers_;
    std::map<const ManifestFile *, Bytes> trailer_of_;
    bool has_stranger_ = false;
    bool is_deployed_ = false;
};

} // namespace

Salvage salvage_set(const SetFiles &set) {
    return Salvager(set).run();
}

} // namespace dolm
