#include "host/set_manifest.h"

#include <algorithm>
#include <map>
#include <utility>

#include "host/counted.h"
#include "host/flash_images.h"
#include "host/manifest_check.h"
#include "host/sku_merge.h"
#include "host/table_refusal.h"
#include "image/afs_image.h"
#include "image/afs_records.h"
#include "image/efs_image.h"
#include "image/efs_layout.h"
#include "image/efs_records.h"
#include "image/fcs_store.h"
#include "image/file_table.h"

namespace dolm {

namespace {

Content to_content(std::span<const uint8_t> bytes) {
    return Content(Bytes(bytes.begin(), bytes.end()), bytes.size());
}

class Describer {
  public:
    explicit Describer(const SetFiles &set)
        : set_(set), table_(read_file_table(set.ftbl)), manifest_(description_.manifest) {}

    SetDescription describe() {
        if (!set_.ftbl.empty()) {
            check_table();
        }
        describe_efs_sections();
        describe_rows();
        manifest_.default_sku = set_.sku.value_or(manifest_.skus.front());
        number_files();
        describe_store("orvel.cfg", set_.orvel_cfg, &ManifestFile::base,
                       &ManifestFile::base_opaque);
        describe_overrides();
        describe_afs();
        describe_efs_image();
        check_refusals();
        return std::move(description_);
    }

  private:
    void hide(const char *member, const std::string &text, const std::string &name = "") {
        description_.hidden.push_back({member, "", name, text});
    }
    void note(const std::string &text) { description_.notes.push_back(text); }

    void check_table() {
        if (!table_.has_magic) {
            hide("ftbl.bin", "no file table: it does not begin with FTBL");
        }
        if (table_.rows.size() != table_.row_count) {
            hide("ftbl.bin", "its head counts " + counted(table_.row_count, "row") + ", " +
                                 std::to_string(table_.rows.size()) + " can be read");
        }
    }

    void describe_rows() {
        for (const FtblRow &row : table_.rows) {
            const std::string sku = "SKU " + std::to_string(row.sku);
            if (table_.row_of(row.sku) != &row) {
                note("ftbl.bin: a second row for " + sku + ", which no reader looks at");
                continue;
            }
            const bool is_empty = row.entries_count >> 31 != 0;
            if (!is_empty && row.entries.size() != row.entries_count) {
                hide("ftbl.bin", sku + " has " + counted(row.entries_count, "file") + ", " +
                                     std::to_string(row.entries.size()) +
                                     " of them lie in the table");
            }
            manifest_.skus.push_back(row.sku);
            std::vector<ManifestFile> files;
            for (const FtblEntry &entry : row.entries) {
                files.push_back(read_entry(entry, row.sku));
            }
            merge_files(manifest_.files, std::move(files), row.sku);
        }
        if (manifest_.skus.empty()) {
            hide("ftbl.bin", "no SKU has a row");
            manifest_.skus.push_back(set_.sku.value_or(0));
        }
    }

    ManifestFile read_entry(const FtblEntry &entry, uint32_t sku) const {
        ManifestFile file;
        file.name = entry.name;
        file.number = entry.number;
        file.attributes = entry.attributes;
        file.store = static_cast<Store>(entry.store);
        file.id = entry.id;
        file.max_size = entry.max_size;
        file.skus = {sku};
        if (file.is_in_efs()) {
            file.efs = place_of(sku, file.id);
        }
        return file;
    }

    // One section for all SKUs with the same geometry and list, in the order of the SKUs.
    void describe_efs_sections() {
        for (const FtblRow &row : table_.rows) {
            const EfstRow *efs_row = table_.efst_row_of(row.sku);
            if (efs_row != nullptr && table_.row_of(row.sku) == &row) {
                describe_efs_row(*efs_row);
            }
        }
        for (const EfstRow &row : table_.efst_rows) {
            if (table_.efst_row_of(row.sku) != &row || table_.row_of(row.sku) == nullptr) {
                note("ftbl.bin: an EFS row for SKU " + std::to_string(row.sku) +
                     ", which no reader looks at");
            }
        }
        if (table_.efst_rows.size() != table_.efst_row_count) {
            hide("ftbl.bin", "its EFS section counts " + counted(table_.efst_row_count, "row") +
                                 ", " + std::to_string(table_.efst_rows.size()) + " can be read");
        }
    }

    void describe_efs_row(const EfstRow &row) {
        if (!is_possible(efs_layout_of(row)) || row.files_num == 0 || row.files_num > max_files) {
            hide("ftbl.bin", "the EFS geometry of SKU " + std::to_string(row.sku) +
                                 " is none that an image can have");
            return;
        }
        EfsSection section;
        section.geometry = {row.bm_num,    row.valid_blocks,   row.spare_blocks,
                            row.files_num, row.wear_threshold, row.layout_id};
        section.places = efs_places(row);
        const auto same =
            std::find_if(manifest_.efs.begin(), manifest_.efs.end(), [&](const EfsSection &other) {
                return other.geometry == section.geometry && other.places == section.places;
            });
        auto &chosen =
            same == manifest_.efs.end() ? manifest_.efs.emplace_back(std::move(section)) : *same;
        chosen.skus.push_back(row.sku);
    }

    // By id; of several records for one the last counts.
    std::vector<EfsSlot> efs_places(const EfstRow &row) {
        const std::string sku = "SKU " + std::to_string(row.sku);
        if (row.records.size() != row.records_count) {
            hide("ftbl.bin", "the EFS list of " + sku + " has " +
                                 counted(row.records_count, "record") + ", " +
                                 std::to_string(row.records.size()) + " of them lie in the table");
        }
        std::map<uint16_t, EfsPlacement> places;
        for (const EfstRecord &record : row.records) {
            if (record.file_index >= row.files_num || record.offset > efs::record_room) {
                hide("ftbl.bin", "the EFS list of " + sku + " gives file " +
                                     std::to_string(record.file_index) + " a place that cannot be");
                continue;
            }
            places.insert_or_assign(record.file_index,
                                    EfsPlacement{record.block, record.offset, record.max_size});
        }
        std::vector<EfsSlot> slots;
        for (const auto &[id, placement] : places) {
            slots.push_back({id, placement});
        }
        return slots;
    }

    const EfsSection *section_of(uint32_t sku) const {
        const auto found =
            std::find_if(manifest_.efs.begin(), manifest_.efs.end(),
                         [=](const EfsSection &section) { return section.has_sku(sku); });
        return found == manifest_.efs.end() ? nullptr : &*found;
    }

    std::optional<EfsPlacement> place_of(uint32_t sku, uint16_t id) const {
        const EfsSection *section = section_of(sku);
        if (section == nullptr) {
            return std::nullopt;
        }
        const auto slot =
            std::lower_bound(section->places.begin(), section->places.end(), id,
                             [](const EfsSlot &any, uint16_t wanted) { return any.id < wanted; });
        return slot == section->places.end() || slot->id != id ? std::nullopt
                                                               : std::optional(slot->placement);
    }

    // Look-ups from what stores and images know of a file, to the first that has it.
    void number_files() {
        for (size_t i = 0; i < manifest_.files.size(); ++i) {
            const ManifestFile &file = manifest_.files[i];
            by_number_.emplace(file.number, i);
            if (file.is_in_afs()) {
                in_afs_.emplace(file.id, i);
            } else if (file.is_in_efs()) {
                in_efs_.emplace(file.id, i);
            }
        }
    }

    // The file with a key; one of no SKU if no table has it.
    ManifestFile &file_with(std::map<uint32_t, size_t> &index, uint32_t key) {
        const auto [found, fresh] = index.emplace(key, manifest_.files.size());
        if (fresh) {
            manifest_.files.emplace_back();
        }
        return manifest_.files[found->second];
    }

    std::string name_in(const std::map<uint32_t, size_t> &index, uint32_t key) const {
        const auto found = index.find(key);
        return found == index.end() ? "" : manifest_.files[found->second].name;
    }

    void describe_overrides() {
        const Bytes &bytes = set_.vync_cfg;
        if (bytes.empty()) {
            return;
        }
        if (bytes.size() < fcs::vync_head_size) {
            hide("vync.cfg", "shorter than its head");
            return;
        }
        const auto rest = std::span(bytes).subspan(fcs::vync_head_size);
        const uint32_t length = get_le32(bytes, fcs::vync_length_offset);
        if (length > rest.size()) {
            hide("vync.cfg", "its head counts " + std::to_string(length) + " bytes, " +
                                 std::to_string(rest.size()) + " are there");
        }
        describe_store("vync.cfg", rest.first(std::min<size_t>(length, rest.size())),
                       &ManifestFile::override_value, &ManifestFile::override_opaque);
    }

    void describe_store(const char *member, std::span<const uint8_t> bytes,
                        std::optional<Content> ManifestFile::*value,
                        uint16_t ManifestFile::*opaque) {
        const FcsStore store = read_fcs_store(bytes);
        if (bytes.size() < fcs::head_size) {
            hide(member, "too short for a store");
        } else if (!store.has_all_records()) {
            hide(member, "has " + counted(store.count, "record") + ", " +
                             std::to_string(store.records.size()) + " of them lie in the file");
        }
        for (const FcsRecord &record : store.records) {
            const std::string number = std::to_string(record.number & 0x0FFFFFFF) + " of class " +
                                       std::to_string(record.number >> 28);
            const std::string name = name_in(by_number_, record.number);
            if (!store.has_payload(record) || record.size > fcs::max_payload) {
                hide(member, "the value of file " + number + " runs past the end", name);
                continue;
            }
            ManifestFile &file = file_with(by_number_, record.number);
            if (file.*value) {
                hide(member, "a second value of file " + number, name);
                continue;
            }
            if (file.skus.empty()) {
                file.number = record.number;
                note(std::string(member) + ": no SKU has file " + number +
                     "; its value is kept in a file of no SKU");
            }
            file.*value = to_content(store.payload(record));
            file.*opaque = record.opaque;
        }
    }

    void describe_afs() {
        if (set_.qfs_image.empty()) {
            return;
        }
        const AfsImage image = read_afs_image(set_.qfs_image);
        std::map<uint32_t, bool> damaged;
        for (const AfsDamage &damage : image.damages) {
            hide("qfs.img", damage.text, damage.file ? name_in(in_afs_, *damage.file) : "");
            if (damage.file) {
                damaged[*damage.file] = true;
            }
        }
        if (!image.has_file_system) {
            if (image.damages.empty()) {
                hide("qfs.img", "no file system");
            }
            return;
        }
        manifest_.afs = afs_layout(image);
        for (const AfsFile &found : image.files) {
            if (found.kind != AfsFile::Kind::zombie && !damaged.contains(found.number)) {
                put_content(file_with(in_afs_, found.number), Store::afs, found.number,
                            found.contents);
            }
        }
    }

    static AfsLayout afs_layout(const AfsImage &image) {
        AfsLayout layout;
        layout.device_size = image.eu_count * afs::eu_size;
        layout.data_eus =
            (image.total_va_size - image.data_va_start) / (afs::data_slots * afs::page_size);
        layout.file_count = image.file_count;
        layout.fs_version = image.fs_version;
        if (afs_geometry_is(layout, image)) {
            return layout;
        }
        layout.total_va_size = image.total_va_size;
        return layout;
    }

    static bool afs_geometry_is(const AfsLayout &layout, const AfsImage &image) {
        try {
            return afs_geometry(layout).total_va_size == image.total_va_size;
        } catch (const AfsBuildError &) {
            return true; // to be told with the manifest
        }
    }

    void describe_efs_image() {
        if (set_.efs_image.empty()) {
            for (EfsSection &section : manifest_.efs) {
                section.has_image = false;
            }
            leave_free_places();
            return;
        }
        if (manifest_.efs.empty()) {
            hide("efs.img", "the file table has no geometry for it");
            return;
        }
        EfsSection &section = section_of_image();
        for (EfsSection &other : manifest_.efs) {
            other.has_image = &other == &section;
        }
        const EfsImage image = read_efs_image(set_.efs_image, layout_of(section));
        for (const EfsDamage &damage : image.damages) {
            hide("efs.img", damage.text, damage.file ? name_in(in_efs_, *damage.file) : "");
        }
        for (const EfsFile &found : image.files) {
            if (found.kind == EfsFile::Kind::contents) {
                put_content(efs_file(section, found.place.number), Store::efs, found.place.number,
                            found.contents);
            }
        }
        leave_free_places();
    }

    // Of several files with the id, one with the place by which the content was read.
    ManifestFile &efs_file(const EfsSection &section, uint32_t id) {
        const auto listed = std::find_if(
            manifest_.files.begin(), manifest_.files.end(),
            [&](const ManifestFile &file) { return file.id == id && section.lists(file); });
        return listed == manifest_.files.end() ? file_with(in_efs_, id) : *listed;
    }

    static EfsLayout layout_of(const EfsSection &section) {
        EfsLayout layout{section.geometry.bm_num,
                         section.geometry.valid_blocks,
                         section.geometry.spare_blocks,
                         section.geometry.layout_id,
                         {}};
        for (const EfsSlot &slot : section.places) {
            layout.files.push_back(
                {slot.id, slot.placement.block, slot.placement.offset, slot.placement.max_size});
        }
        return layout;
    }

    // The section by which the image can be read; that of the default SKU if it makes no odds.
    EfsSection &section_of_image() {
        EfsSection *chosen = nullptr;
        for (EfsSection &section : manifest_.efs) {
            const bool is_first = chosen == nullptr || section.has_sku(manifest_.default_sku);
            const EfsImage image = read_efs_image(set_.efs_image, layout_of(section));
            if (is_first && image.bm_in_force) {
                chosen = &section;
            }
        }
        return chosen != nullptr ? *chosen : manifest_.efs.front();
    }

    // Those that files have go with the files.
    void leave_free_places() {
        for (EfsSection &section : manifest_.efs) {
            std::map<uint16_t, bool> held;
            for (const ManifestFile &file : manifest_.files) {
                if (section.lists(file)) {
                    held[file.id] = true;
                }
            }
            std::erase_if(section.places,
                          [&](const EfsSlot &slot) { return held.contains(slot.id); });
        }
    }

    static void put_content(ManifestFile &file, Store store, uint32_t id,
                            std::span<const uint8_t> bytes) {
        if (file.skus.empty()) {
            file.store = store;
            file.id = static_cast<uint16_t>(id);
        }
        const size_t length = trailer_length(file.attributes);
        const auto value = bytes.first(bytes.size() - std::min(length, bytes.size()));
        const auto trailer = bytes.subspan(value.size());
        file.flash = to_content(value);
        if (trailer.size() != length || std::any_of(trailer.begin(), trailer.end(), [](uint8_t b) {
                return b != trailer_filler;
            })) {
            file.trailer = to_content(trailer);
        }
    }

    // What keeps the library from a table, if the reasons found so far do not tell it.
    void check_refusals() {
        const bool is_told = !description_.hidden.empty();
        for (const uint32_t sku : manifest_.skus) {
            const std::pair<const char *, std::optional<Refusal>> refusals[] = {
                {"ftbl.bin", why_ftbl_refused(set_.ftbl, sku)},
                {"orvel.cfg", why_orvel_refused(set_.orvel_cfg, set_.ftbl, sku)},
                {"vync.cfg", set_.vync_cfg.empty()
                                 ? std::nullopt
                                 : why_vync_refused(set_.vync_cfg, set_.ftbl, sku)}};
            for (const auto &[member, refusal] : refusals) {
                if (refusal && !is_told) {
                    hide(member, refusal->text);
                }
            }
        }
    }

    const SetFiles &set_;
    const FileTable table_;
    SetDescription description_;
    Manifest &manifest_;
    std::map<uint32_t, size_t> by_number_;
    std::map<uint32_t, size_t> in_afs_;
    std::map<uint32_t, size_t> in_efs_;
};

} // namespace

SetDescription describe_set(const SetFiles &set) {
    return Describer(set).describe();
}

std::vector<Problem> prepare_for_build(Manifest &manifest) {
    for (size_t i = 0; i < manifest.files.size(); ++i) {
        manifest.files[i].place = "/files/" + std::to_string(i);
    }
    for (size_t i = 0; i < manifest.efs.size(); ++i) {
        manifest.efs[i].place = manifest.efs.size() == 1 ? "/efs" : "/efs/" + std::to_string(i);
    }
    Problems refused(Problems::Doubts::pass);
    check_manifest(manifest, refused);
    Problems doubted;
    check_manifest(manifest, doubted);
    manifest.as_found = !doubted.empty();
    return refused.list("manifest.json", [](const std::string &) { return ""; });
}

} // namespace dolm
