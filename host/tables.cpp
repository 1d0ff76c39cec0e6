#include "host/tables.h"

#include <algorithm>
#include <string>

#include "FCS.h"
#include "efs_tools_utils.h"
#include "host/errors.h"
#include "image/fcs_store.h"
#include "image/file_table.h"

namespace dolm {

namespace {

using namespace ftbl;

using FileList = std::vector<const ManifestFile *>;

// One SKU and the files that it has.
struct Row {
    uint32_t sku;
    FileList files;
};

void put_text(Bytes &bytes, size_t offset, std::string_view text) {
    std::copy(text.begin(), text.end(), bytes.begin() + static_cast<std::ptrdiff_t>(offset));
}

void put_entry(Bytes &ftbl, size_t at, const ManifestFile &file) {
    put_text(ftbl, at, file.name);
    put_le(ftbl, at + entry_number_offset, file.number, 4);
    put_le(ftbl, at + entry_attributes_offset, file.attributes, 2);
    put_le(ftbl, at + entry_id_offset, file.id, 2);
    put_le(ftbl, at + entry_store_offset, static_cast<uint32_t>(file.store), 1);
    put_le(ftbl, at + entry_max_size_offset, file.max_size, 4);
}

void put_efs_record(Bytes &ftbl, size_t at, const ManifestFile &file) {
    put_le(ftbl, at, file.id, 2);
    put_le(ftbl, at + record_block_offset, file.efs.block, 2);
    put_le(ftbl, at + record_start_offset, file.efs.offset, 2);
    put_le(ftbl, at + record_max_size_offset, file.efs.max_size, 2);
}

void put_efs_row(Bytes &ftbl, size_t at, uint32_t sku, const EfsGeometry &efs, size_t records_at,
                 size_t records) {
    const uint32_t fields[] = {sku,
                               static_cast<uint32_t>(records_at),
                               static_cast<uint32_t>(records),
                               static_cast<uint32_t>(records * efst_record_size),
                               efs.bm_num,
                               efs.valid_blocks,
                               efs.spare_blocks,
                               efs.files_num,
                               efs.wear_threshold,
                               efs.layout_id};
    static_assert(sizeof(fields) == efst_row_size);
    for (const uint32_t field : fields) {
        put_le(ftbl, at, field, 4);
        at += 4;
    }
}

// Appends the EFST section and the file records behind it.
void append_efst(Bytes &ftbl, const std::vector<Row> &rows, const EfsGeometry &efs,
                 const FileList &efs_files) {
    const size_t section = ftbl.size();
    const size_t records_at = section + head_size + rows.size() * efst_row_size;
    ftbl.resize(records_at + efs_files.size() * efst_record_size);
    put_le(ftbl, section, efst_magic, 4);
    put_le(ftbl, section + row_count_offset, static_cast<uint32_t>(rows.size()), 4);
    for (size_t i = 0; i < rows.size(); ++i) {
        put_efs_row(ftbl, section + head_size + i * efst_row_size, rows[i].sku, efs, records_at,
                    efs_files.size());
    }
    for (size_t i = 0; i < efs_files.size(); ++i) {
        put_efs_record(ftbl, records_at + i * efst_record_size, *efs_files[i]);
    }
}

void append_entries(Bytes &ftbl, size_t row_index, const Row &row) {
    const size_t entries_at = ftbl.size();
    ftbl.resize(entries_at + row.files.size() * entry_size);
    const size_t row_at = head_size + row_size * row_index;
    put_le(ftbl, row_at, row.sku, 4);
    put_le(ftbl, row_at + row_entries_offset, static_cast<uint32_t>(entries_at), 4);
    put_le(ftbl, row_at + row_entry_count_offset, static_cast<uint32_t>(row.files.size()), 4);
    for (size_t i = 0; i < row.files.size(); ++i) {
        put_entry(ftbl, entries_at + i * entry_size, *row.files[i]);
    }
}

Bytes make_ftbl(const std::vector<Row> &rows, const std::optional<EfsGeometry> &efs,
                const FileList &efs_files) {
    Bytes ftbl(head_size + row_size * rows.size());
    put_le(ftbl, 0, magic, 4);
    put_le(ftbl, row_count_offset, static_cast<uint32_t>(rows.size()), 4);
    if (efs) {
        append_efst(ftbl, rows, *efs, efs_files);
    }
    for (size_t i = 0; i < rows.size(); ++i) {
        append_entries(ftbl, i, rows[i]);
    }
    ftbl.resize(std::max<size_t>(ftbl.size(), min_size));
    return ftbl;
}

FileList files_where(const Manifest &manifest, auto &&wanted) {
    FileList files;
    for (const ManifestFile &file : manifest.files) {
        if (wanted(file)) {
            files.push_back(&file);
        }
    }
    return files;
}

// A store under construction.
class StoreHandle {
  public:
    StoreHandle() { require_done(createHandle(&handle_), "createHandle"); }
    ~StoreHandle() { closeHandle(&handle_); }
    StoreHandle(const StoreHandle &) = delete;
    StoreHandle &operator=(const StoreHandle &) = delete;

    void add(const ManifestFile &file, const Bytes &value) {
        Bytes block(fcs::record_size);
        put_le(block, 0, file.number, 4);
        block.insert(block.end(), value.begin(), value.end());
        require_done(addNewFile(handle_, "", file.name.c_str(), block.data(),
                                static_cast<uint16_t>(block.size()), true),
                     "addNewFile");
    }

    Bytes bytes() {
        uint32_t length = 0;
        const uint32_t sizing = flush(handle_, nullptr, &length);
        if (sizing != FCS_BUFFER_TOO_SMALL) {
            require_done(sizing, "flush");
        }
        Bytes store(length);
        require_done(flush(handle_, store.data(), &length), "flush");
        return store;
    }

  private:
    void *handle_ = nullptr;
};

// Makes the library know every file of the manifest at once, whatever its SKU: a store takes a
// file only if the selected table has its number.
void load_table_of_all_files(const Manifest &manifest) {
    // The library keeps pointers into the table for as long as it is selected.
    static Bytes table;
    const Row all{0, files_where(manifest, [](const ManifestFile &) { return true; })};
    Bytes fresh = make_ftbl({all}, std::nullopt, {});
    require_done(load_file_table(fresh.data(), all.sku, static_cast<uint32_t>(fresh.size())),
                 "load_file_table");
    table = std::move(fresh); // which moves no bytes
}

Bytes make_store(const Manifest &manifest, std::optional<Content> ManifestFile::*value) {
    load_table_of_all_files(manifest);
    StoreHandle store;
    for (const ManifestFile &file : manifest.files) {
        if (file.*value) {
            store.add(file, (file.*value)->bytes());
        }
    }
    return store.bytes();
}

} // namespace

Bytes make_ftbl(const Manifest &manifest) {
    std::vector<Row> rows;
    for (const uint32_t sku : manifest.skus) {
        rows.push_back({sku, files_where(manifest, [sku](const ManifestFile &file) {
                            return std::find(file.skus.begin(), file.skus.end(), sku) !=
                                   file.skus.end();
                        })});
    }
    return make_ftbl(rows, manifest.efs, files_where(manifest, [](const ManifestFile &file) {
                         return file.store == Store::efs;
                     }));
}

std::vector<uint32_t> skus_of(const Bytes &ftbl) {
    const FileTable table = read_file_table(ftbl);
    std::vector<uint32_t> skus;
    for (const FtblRow &row : table.rows) {
        if (table.has_magic && ftbl.size() >= min_size) {
            skus.push_back(row.sku);
        }
    }
    return skus;
}

Bytes make_orvel_cfg(const Manifest &manifest) {
    return make_store(manifest, &ManifestFile::base);
}

Bytes make_vync_cfg(const Manifest &manifest) {
    return with_vync_head(make_store(manifest, &ManifestFile::override_value));
}

Bytes with_vync_head(const Bytes &store) {
    Bytes bytes(fcs::vync_head_size + store.size());
    put_le(bytes, fcs::vync_length_offset, static_cast<uint32_t>(store.size()), 4);
    std::copy(store.begin(), store.end(), bytes.begin() + fcs::vync_head_size);
    return bytes;
}

} // namespace dolm
