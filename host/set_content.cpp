#include "host/set_content.h"

#include "host/errors.h"
#include "host/tables.h"
#include "image/afs_image.h"
#include "image/efs_image.h"
#include "image/efs_layout.h"
#include "image/file_table.h"

namespace dolm {

namespace {

class ContentReader {
  public:
    ContentReader(SetFiles &set, uint32_t sku) : set_(set), sku_(sku) {}

    SetContent read() {
        content_.sku = sku_;
        const std::vector<TableEntry> entries = read_nvars();
        for (const TableEntry &entry : entries) {
            add_entry(entry);
        }
        content_.geometry["skus"] = skus_of(set_.ftbl);
        if (!set_.qfs_image.empty()) {
            read_afs();
        }
        if (!set_.efs_image.empty()) {
            read_efs();
        }
        return std::move(content_);
    }

  private:
    // Gives the entries of the file table.
    std::vector<TableEntry> read_nvars() {
        const Library library(set_, sku_);
        content_.vfs_deployed = qoQfsIsVfsDeployed();
        for (const std::string &name : library.names()) {
            content_.nvars[name] = library.nvar(name);
        }
        return selected_entries();
    }

    // The first of a name and the first of a place count, as in the library. What is in no store is
    // looked for in AFS.
    void add_entry(const TableEntry &entry) {
        const std::string store = store_name(entry.store);
        const StoredFile file{entry.name, store, entry.id, entry, std::nullopt};
        const bool is_first = content_.files.emplace(entry.name, file).second;
        if (is_first) {
            const bool is_in_efs = entry.store == static_cast<uint8_t>(Store::efs);
            names_.try_emplace({is_in_efs ? "efs" : "afs", entry.id}, entry.name);
        }
    }

    void add_content(const std::string &store, uint32_t id, const std::vector<uint8_t> &bytes) {
        const auto name = names_.find({store, id});
        if (name != names_.end()) {
            content_.files[name->second].content = bytes;
            return;
        }
        const std::string key = store + " " + std::to_string(id);
        content_.files[key] = {"", store, id, std::nullopt, bytes};
    }

    void read_afs() {
        const AfsImage image = read_afs_image(set_.qfs_image);
        require_sound("qfs.img", check_invariants(image));
        content_.geometry["afs.size"] = set_.qfs_image.size();
        content_.geometry["afs.file_count"] = image.file_count;
        content_.geometry["afs.chunk_count"] = image.chunk_count;
        content_.geometry["afs.total_va_size"] = image.total_va_size;
        for (const AfsFile &file : image.files) {
            if (file.kind != AfsFile::Kind::zombie) {
                add_content("afs", file.number, file.contents);
            }
        }
    }

    void read_efs() {
        const EfsLayout layout = read_efs_layout(set_.ftbl, sku_);
        const EfsImage image = read_efs_image(set_.efs_image, layout);
        require_sound("efs.img", efs_damages(image));
        content_.geometry["efs.size"] = set_.efs_image.size();
        content_.geometry["efs.bm_num"] = layout.bm_num;
        content_.geometry["efs.valid_blocks"] = layout.valid_blocks;
        content_.geometry["efs.spare_blocks"] = layout.spare_blocks;
        content_.geometry["efs.layout_id"] = layout.layout_id;
        const FileTable table = read_file_table(set_.ftbl);
        if (const EfstRow *row = table.efst_row_of(sku_)) {
            content_.geometry["efs.wear_threshold"] = row->wear_threshold;
        }
        for (const EfsPlace &place : layout.files) {
            content_.geometry["efs.place " + std::to_string(place.number)] = {
                {"block", place.block}, {"offset", place.offset}, {"max_size", place.max_size}};
        }
        for (const EfsFile &file : image.files) {
            if (file.kind == EfsFile::Kind::contents) {
                add_content("efs", file.place.number, file.contents);
            }
        }
    }

    static void require_sound(const std::string &member, const std::vector<std::string> &damages) {
        if (!damages.empty()) {
            throw Failure(member + " breaks its format: " + damages.front());
        }
    }

    SetFiles &set_;
    const uint32_t sku_;
    SetContent content_;
    std::map<std::pair<std::string, uint32_t>, std::string> names_; // by store and id
};

} // namespace

SetContent read_set_content(SetFiles set, uint32_t sku) {
    return ContentReader(set, sku).read();
}

} // namespace dolm
