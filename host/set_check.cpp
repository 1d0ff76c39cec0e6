#include "host/set_check.h"

#include <map>
#include <memory>
#include <set>
#include <utility>

#include "EFS.h"
#include "dfs.h"
#include "efs_tools_utils.h"
#include "host/errors.h"
#include "host/library.h"
#include "host/manifest.h"
#include "host/progress.h"
#include "host/table_entries.h"
#include "host/tables.h"
#include "image/afs_image.h"
#include "image/efs_image.h"
#include "image/efs_layout.h"

namespace dolm {

namespace {

constexpr size_t store_record_size = 12; // begins with the file number
constexpr size_t store_head_size = 4;    // the number of records
constexpr size_t vync_head_size = 16;

std::string bytes(size_t count) {
    return std::to_string(count) + " bytes";
}

// The file numbers of a serialised store, as far as it goes.
std::set<uint32_t> numbers_in_store(const Bytes &file, size_t begin) {
    std::set<uint32_t> numbers;
    if (file.size() < begin + store_head_size) {
        return numbers;
    }
    const uint32_t count = get_le32(file, begin);
    for (size_t i = 0; i < count; ++i) {
        const size_t at = begin + store_head_size + i * store_record_size;
        if (at + store_record_size > file.size()) {
            break;
        }
        numbers.insert(get_le32(file, at));
    }
    return numbers;
}

class SetCheck {
  public:
    SetCheck(const SetFiles &set, uint32_t sku) : set_(set), sku_(sku) {}

    std::vector<Finding> run() {
        read_images();
        read_tables_of_all_skus();
        check_records("orvel.cfg", set_.orvel_cfg, 0);
        check_records("vync.cfg", set_.vync_cfg, vync_head_size);
        check_stray_files();
        if (load_table(sku_)) {
            check_table();
            check_deployed_files();
        }
        try {
            check_running();
        } catch (const Failure &failure) {
            error("the set", failure.what());
        }
        return std::move(findings_);
    }

  private:
    void error(const std::string &where, std::string text) {
        findings_.push_back({Finding::Severity::error, where, std::move(text)});
    }
    void note(const std::string &where, std::string text) {
        findings_.push_back({Finding::Severity::note, where, std::move(text)});
    }

    void read_images() {
        if (!set_.qfs_image.empty()) {
            afs_ = read_afs_image(set_.qfs_image);
            for (const std::string &rule : check_invariants(afs_)) {
                error("qfs.img", rule);
            }
        }
        if (set_.efs_image.empty()) {
            return;
        }
        try {
            layout_ = read_efs_layout(set_.ftbl, sku_);
        } catch (const std::runtime_error &failure) {
            error("efs.img", failure.what());
            return;
        }
        efs_ = read_efs_image(set_.efs_image, *layout_);
        for (const std::string &rule : efs_damages(efs_)) {
            error("efs.img", rule);
        }
    }

    bool load_table(uint32_t sku) const {
        return load_file_table(set_.ftbl.data(), sku, static_cast<uint32_t>(set_.ftbl.size())) == 0;
    }

    // What any SKU knows is no stray, although the SKU at hand may not see it.
    void read_tables_of_all_skus() {
        for (const uint32_t sku : skus_of(set_.ftbl)) {
            if (!load_table(sku)) {
                continue;
            }
            for (const TableEntry &entry : selected_entries()) {
                known_numbers_.insert(entry.number);
                known_files_.insert({entry.store, entry.id});
            }
        }
    }

    void check_records(const char *name, const Bytes &file, size_t store_begin) {
        for (const uint32_t number : numbers_in_store(file, store_begin)) {
            if (!known_numbers_.contains(number)) {
                note(name, "file number " + std::to_string(number) +
                               " is in no file table; its value has no effect");
            }
        }
    }

    void check_running() {
        SetFiles copy = set_;
        std::map<std::string, Bytes> values;
        {
            Library library(copy, sku_);
            read_all_files();
            for (const std::string &name : library.override_only_names()) {
                note(name, "stands in vync.cfg alone and has no effect");
            }
            for (const std::string &name : library.names()) {
                const Nvar nvar = library.nvar(name);
                check_nvar(library, nvar);
                values[name] = nvar.value;
            }
            copy.vync_cfg = with_vync_head(library.terminate());
        }
        check_result(copy, values);
    }

    void check_table() {
        std::set<std::string> names;
        std::set<uint32_t> numbers;
        std::set<std::pair<uint8_t, uint16_t>> ids;
        for (const TableEntry &entry : selected_entries()) {
            if (!names.insert(entry.name).second) {
                error(entry.name, "the name stands twice in the file table");
            }
            if (!numbers.insert(entry.number).second) {
                error(entry.name, "its file number " + std::to_string(entry.number) +
                                      " stands twice in the file table");
            }
            check_place(entry, ids);
        }
    }

    void check_place(const TableEntry &entry, std::set<std::pair<uint8_t, uint16_t>> &ids) {
        if (entry.store > static_cast<uint8_t>(Store::efs)) {
            error(entry.name, "the file table puts it into store " + std::to_string(entry.store) +
                                  ", which does not exist");
        } else if (entry.store != static_cast<uint8_t>(Store::none) &&
                   !ids.insert({entry.store, entry.id}).second) {
            error(entry.name, "its place in flash belongs to another entry of the file table");
        }
        if (entry.store == static_cast<uint8_t>(Store::efs) && layout_ && !efs_lists(entry.id)) {
            error(entry.name, "the EFS file list has no file " + std::to_string(entry.id));
        }
    }

    bool efs_lists(uint32_t id) const {
        for (const EfsPlace &place : layout_->files) {
            if (place.number == id) {
                return true;
            }
        }
        return false;
    }

    // The size of a file where the dispatch by file number would look for it; nothing if it is not
    // there.
    std::optional<size_t> size_in_flash(const TableEntry &entry) const {
        if (entry.store == static_cast<uint8_t>(Store::efs)) {
            for (const EfsFile &file : efs_.files) {
                if (file.place.number == entry.id && file.kind == EfsFile::Kind::contents) {
                    return file.contents.size();
                }
            }
            return std::nullopt;
        }
        const bool reads_as_no_file = entry.id == 0 && entry.number >> 28 == 0;
        for (const AfsFile &file : afs_.files) {
            if (file.number == entry.id && file.kind != AfsFile::Kind::zombie &&
                !reads_as_no_file) {
                return file.contents.size();
            }
        }
        return std::nullopt;
    }

    bool is_deployed(const std::vector<TableEntry> &entries) const {
        for (const TableEntry &entry : entries) {
            if (entry.name == deploy_marker) {
                return !set_.qfs_image.empty() && size_in_flash(entry).value_or(0) != 0;
            }
        }
        return false;
    }

    // In a deployed VFS start-up and termination stand or fall with the files of the NVARs.
    void check_deployed_files() {
        const std::vector<TableEntry> entries = selected_entries();
        if (!is_deployed(entries)) {
            return;
        }
        const std::set<uint32_t> nvars = numbers_in_store(set_.orvel_cfg, 0);
        for (const TableEntry &entry : entries) {
            if (nvars.contains(entry.number)) {
                check_deployed_file(entry);
            }
        }
    }

    void check_deployed_file(const TableEntry &entry) {
        const bool has_trailer = (entry.attributes & attribute_trailer) != 0;
        const bool is_pulled = (entry.attributes & attribute_not_pulled) == 0;
        const uint32_t trailer = trailer_length(entry.attributes);
        const std::optional<size_t> size = size_in_flash(entry);
        if (entry.store == static_cast<uint8_t>(Store::efs) && set_.efs_image.empty()) {
            error(entry.name, "lies in EFS, and the set has no efs.img");
        } else if (!size && has_trailer) {
            note(entry.name, "is not in flash; the value of the tables stands");
        } else if (!size) {
            error(entry.name, "is not in flash and has no trailer: every termination fails");
        } else if (is_pulled && *size < trailer) {
            error(entry.name, "has " + bytes(*size) + " in flash, less than its trailer of " +
                                  bytes(trailer) + ": start-up fails");
        }
    }

    bool is_known(Store store, uint32_t id) const {
        return known_files_.contains({static_cast<uint8_t>(store), static_cast<uint16_t>(id)});
    }

    void check_stray_files() {
        for (const AfsFile &file : afs_.files) {
            if (file.kind != AfsFile::Kind::zombie && !is_known(Store::afs, file.number) &&
                !is_known(Store::none, file.number)) {
                note("qfs.img", "file " + std::to_string(file.number) + ", " +
                                    bytes(file.contents.size()) + ", is in no file table");
            }
        }
        for (const EfsFile &file : efs_.files) {
            if (file.kind == EfsFile::Kind::contents && !is_known(Store::efs, file.place.number)) {
                note("efs.img", "file " + std::to_string(file.place.number) + ", " +
                                    bytes(file.contents.size()) + ", is in no file table");
            }
        }
    }

    // Every file through the library, held against what the image says by itself.
    void read_all_files() {
        Progress progress("reading files", afs_.files.size() + efs_.files.size());
        for (const AfsFile &file : afs_.files) {
            progress.step();
            if (file.kind != AfsFile::Kind::zombie) {
                compare("qfs.img", file.number, file.contents, read_afs_file(file.number));
            }
        }
        for (const EfsFile &file : efs_.files) {
            progress.step();
            if (file.kind == EfsFile::Kind::contents) {
                compare("efs.img", file.place.number, file.contents,
                        read_efs_file(file.place.number));
            }
        }
    }

    static std::optional<Bytes> read_afs_file(uint32_t number) {
        uint32_t size = 0;
        if (dfs_getsize(number, &size) != DFS_OK) {
            return std::nullopt;
        }
        Bytes contents(size);
        if (size != 0 && dfs_read(number, 0, &size, contents.data()) != DFS_OK) {
            return std::nullopt;
        }
        contents.resize(size);
        return contents;
    }

    static std::optional<Bytes> read_efs_file(uint32_t number) {
        uint32_t size = 0;
        if (EFS_get_file_size(number, &size) != EFS_OK) {
            return std::nullopt;
        }
        Bytes contents(size);
        if (size != 0 && EFS_read(number, 0, &size, contents.data()) != EFS_OK) {
            return std::nullopt;
        }
        contents.resize(size);
        return contents;
    }

    void compare(const char *image, uint32_t number, const std::vector<uint8_t> &on_image,
                 const std::optional<Bytes> &read) {
        const std::string file = "file " + std::to_string(number);
        if (!read) {
            error(image, file + " cannot be read");
        } else if (*read != on_image) {
            error(image, file + " reads as other bytes than lie on the image");
        }
    }

    void check_nvar(const Library &library, const Nvar &nvar) {
        if (nvar.value.size() > nvar.entry.max_size) {
            error(nvar.name, "its value has " + bytes(nvar.value.size()) + ", over the limit of " +
                                 bytes(nvar.entry.max_size) + ": every termination fails");
        }
        if (nvar.origin != Origin::flash) {
            return;
        }
        const bool overridden = qoqfsCheckNvarExists(nvar.name.c_str(), FCS_FILE_VYN_CFG);
        const FcsFileName table = overridden ? FCS_FILE_VYN_CFG : FCS_FILE_ORVEL_CFG;
        if (library.value(nvar.name, table) != nvar.value) {
            note(nvar.name, std::string("its value in flash is not the one in ") +
                                (overridden ? "vync.cfg" : "orvel.cfg"));
        }
    }

    // What a termination left has to start up with the same values, on sound images.
    void check_result(SetFiles &result, const std::map<std::string, Bytes> &values) {
        const char *where = "the set after a trial termination";
        if (!set_.qfs_image.empty()) {
            for (const std::string &rule : check_invariants(result.qfs_image)) {
                error(where, "qfs.img: " + rule);
            }
        }
        if (layout_) {
            for (const std::string &rule :
                 efs_damages(read_efs_image(result.efs_image, *layout_))) {
                error(where, "efs.img: " + rule);
            }
        }
        const Library library(result, sku_);
        for (const auto &[name, value] : values) {
            if (library.value(name, FCS_FILE_CURRENT_VALUES) != value) {
                error(where, name + " has another value than before");
            }
        }
    }

    const SetFiles &set_;
    const uint32_t sku_;
    AfsImage afs_; // of an absent image: without files
    EfsImage efs_;
    std::optional<EfsLayout> layout_;
    std::set<uint32_t> known_numbers_;                   // by any SKU
    std::set<std::pair<uint8_t, uint16_t>> known_files_; // store and id, by any SKU
    std::vector<Finding> findings_;
};

} // namespace

std::vector<Finding> check_files(const SetFiles &set, uint32_t sku) {
    return SetCheck(set, sku).run();
}

} // namespace dolm
