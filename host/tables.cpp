#include "host/tables.h"

#include <algorithm>

#include "image/fcs_store.h"
#include "image/file_table.h"

namespace dolm {

namespace {

using namespace ftbl;

using FileList = std::vector<const ManifestFile *>;

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

void put_efs_record(Bytes &ftbl, size_t at, const EfsSlot &slot) {
    put_le(ftbl, at, slot.id, 2);
    put_le(ftbl, at + record_block_offset, slot.placement.block, 2);
    put_le(ftbl, at + record_start_offset, slot.placement.offset, 2);
    put_le(ftbl, at + record_max_size_offset, slot.placement.max_size, 2);
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

// The file list of a section, in the order of the manifest.
std::vector<EfsSlot> efs_list(const Manifest &manifest, const EfsSection &section) {
    std::vector<EfsSlot> list;
    for (const ManifestFile &file : manifest.files) {
        if (section.lists(file)) {
            list.push_back({file.id, *file.efs});
        }
    }
    list.insert(list.end(), section.places.begin(), section.places.end());
    return list;
}

// A geometry row and the list that it refers to.
struct EfsRow {
    uint32_t sku;
    const EfsSection *section;
};

// In the order of the SKUs, as far as they have EFS.
std::vector<EfsRow> efs_rows(const Manifest &manifest) {
    std::vector<EfsRow> rows;
    for (const uint32_t sku : manifest.skus) {
        for (const EfsSection &section : manifest.efs) {
            if (section.has_sku(sku)) {
                rows.push_back({sku, &section});
                break;
            }
        }
    }
    return rows;
}

// Appends the EFST section: head and rows, and the lists of file records behind them.
void append_efst(Bytes &ftbl, const Manifest &manifest) {
    const std::vector<EfsRow> rows = efs_rows(manifest);
    const size_t at = ftbl.size();
    ftbl.resize(at + head_size + rows.size() * efst_row_size);
    put_le(ftbl, at, efst_magic, 4);
    put_le(ftbl, at + row_count_offset, static_cast<uint32_t>(rows.size()), 4);
    for (const EfsSection &section : manifest.efs) {
        const std::vector<EfsSlot> list = efs_list(manifest, section);
        const size_t list_at = ftbl.size();
        ftbl.resize(list_at + list.size() * efst_record_size);
        for (size_t i = 0; i < list.size(); ++i) {
            put_efs_record(ftbl, list_at + i * efst_record_size, list[i]);
        }
        for (size_t i = 0; i < rows.size(); ++i) {
            if (rows[i].section == &section) {
                put_efs_row(ftbl, at + head_size + i * efst_row_size, rows[i].sku, section.geometry,
                            list_at, list.size());
            }
        }
    }
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

void append_entries(Bytes &ftbl, size_t row_index, uint32_t sku, const FileList &files) {
    const size_t entries_at = ftbl.size();
    ftbl.resize(entries_at + files.size() * entry_size);
    const size_t row_at = head_size + row_size * row_index;
    put_le(ftbl, row_at, sku, 4);
    put_le(ftbl, row_at + row_entries_offset, static_cast<uint32_t>(entries_at), 4);
    put_le(ftbl, row_at + row_entry_count_offset, static_cast<uint32_t>(files.size()), 4);
    for (size_t i = 0; i < files.size(); ++i) {
        put_entry(ftbl, entries_at + i * entry_size, *files[i]);
    }
}

// A serialised store: the number of records, the records by name, the values in the same order.
Bytes make_store(const Manifest &manifest, std::optional<Content> ManifestFile::*value,
                 uint16_t ManifestFile::*opaque) {
    FileList files =
        files_where(manifest, [&](const ManifestFile &file) { return (file.*value).has_value(); });
    std::stable_sort(files.begin(), files.end(), [](const ManifestFile *a, const ManifestFile *b) {
        return a->name < b->name;
    });
    Bytes store(fcs::head_size + files.size() * fcs::record_size);
    put_le(store, 0, static_cast<uint32_t>(files.size()), 4);
    size_t at = fcs::head_size;
    for (const ManifestFile *file : files) {
        const Bytes content = (file->*value)->bytes();
        put_le(store, at, file->number, 4);
        put_le(store, at + fcs::record_offset_offset, static_cast<uint32_t>(store.size()), 4);
        put_le(store, at + fcs::record_size_offset, static_cast<uint32_t>(content.size()), 2);
        put_le(store, at + fcs::record_opaque_offset, file->*opaque, 2);
        store.insert(store.end(), content.begin(), content.end());
        at += fcs::record_size;
    }
    return store;
}

} // namespace

Bytes make_ftbl(const Manifest &manifest) {
    Bytes ftbl(head_size + row_size * manifest.skus.size());
    put_le(ftbl, 0, magic, 4);
    put_le(ftbl, row_count_offset, static_cast<uint32_t>(manifest.skus.size()), 4);
    if (!manifest.efs.empty()) {
        append_efst(ftbl, manifest);
    }
    for (size_t i = 0; i < manifest.skus.size(); ++i) {
        const uint32_t sku = manifest.skus[i];
        append_entries(ftbl, i, sku, files_where(manifest, [sku](const ManifestFile &file) {
                           return file.has_sku(sku);
                       }));
    }
    ftbl.resize(std::max<size_t>(ftbl.size(), min_size));
    return ftbl;
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
    return make_store(manifest, &ManifestFile::base, &ManifestFile::base_opaque);
}

Bytes make_vync_cfg(const Manifest &manifest) {
    return with_vync_head(
        make_store(manifest, &ManifestFile::override_value, &ManifestFile::override_opaque));
}

Bytes with_vync_head(const Bytes &store) {
    Bytes bytes(fcs::vync_head_size + store.size());
    put_le(bytes, fcs::vync_length_offset, static_cast<uint32_t>(store.size()), 4);
    std::copy(store.begin(), store.end(), bytes.begin() + fcs::vync_head_size);
    return bytes;
}

} // namespace dolm
