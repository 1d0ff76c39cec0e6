#include "image/table_mend.h"

#include <algorithm>
#include <map>

#include "image/efs_layout.h"
#include "image/efs_list.h"
#include "image/efs_survey.h"
#include "image/file_table.h"

namespace dolm {

namespace {

using namespace ftbl;

class Mender {
  public:
    Mender(Bytes bytes, std::optional<uint32_t> sku, std::span<const uint8_t> efs_image)
        : sku_(sku), own_(own_geometry(efs_image)), efs_image_(efs_image) {
        mended_.bytes = std::move(bytes);
    }

    MendedTable mend() {
        if (size() >= head_size + row_size) {
            put_if_other(0, magic, "its magic was wrong");
            mend_row_count();
            mend_rows();
            mend_section();
        }
        if (own_ && !has_list()) {
            find_list();
        }
        mend_skus();
        compare_entries();
        return std::move(mended_);
    }

  private:
    size_t size() const { return mended_.bytes.size(); }
    bool has(uint64_t at, uint64_t length) const { return at + length <= size(); }
    uint32_t word(size_t at) const { return get_le32(mended_.bytes, at); }

    void put_if_other(size_t at, uint32_t value, const std::string &text) {
        if (word(at) != value) {
            put_le(mended_.bytes, at, value, 4);
            mended_.mended.push_back(text);
        }
    }

    uint32_t row_count() const { return word(row_count_offset); }
    static size_t row_at(uint32_t row) { return head_size + size_t{row} * row_size; }

    bool is_entry(uint64_t at) const {
        return has(at, entry_size) &&
               is_plausible_entry(
                   std::span(mended_.bytes).subspan(static_cast<size_t>(at), entry_size));
    }

    uint32_t number_at(uint64_t entry) const {
        return word(static_cast<size_t>(entry) + entry_number_offset);
    }

    // More than half of a row's entries can be ones, the first among them.
    bool is_row(size_t at) const {
        const uint32_t entries_at = word(at + 4);
        const uint32_t count = word(at + 8);
        if (!has(entries_at, uint64_t{count} * entry_size) || count == 0) {
            return false;
        }
        uint32_t good = 0;
        for (uint32_t i = 0; i < count; ++i) {
            good += is_entry(entries_at + uint64_t{i} * entry_size) ? 1 : 0;
        }
        return 2 * good > count;
    }

    // The section of EFS follows the rows, and otherwise entries do.
    void mend_row_count() {
        const auto section_follows = [&](uint32_t count) {
            return has(row_at(count), head_size) && word(row_at(count)) == efst_magic;
        };
        const uint32_t told = row_count();
        if (told != 0 && told <= max_rows && section_follows(told)) {
            return;
        }
        for (uint32_t count = 1; count <= max_rows; ++count) {
            if (section_follows(count)) {
                put_if_other(row_count_offset, count, "its number of rows was wrong");
                return;
            }
        }
        uint32_t rows = 0;
        while (rows < max_rows && has(row_at(rows), row_size) && is_row(row_at(rows))) {
            ++rows;
        }
        if (rows != 0 && (told == 0 || told > max_rows)) {
            put_if_other(row_count_offset, rows, "its number of rows was wrong");
        }
    }

    // A row that leads astray has the entries that no other row has.
    void mend_rows() {
        std::vector<std::pair<uint64_t, uint64_t>> claimed;
        std::vector<size_t> astray;
        for (uint32_t row = 0; row < std::min(row_count(), max_rows); ++row) {
            const size_t at = row_at(row);
            if (!has(at, row_size)) {
                break;
            }
            if (is_row(at)) {
                claimed.emplace_back(word(at + 4),
                                     word(at + 4) + uint64_t{word(at + 8)} * entry_size);
            } else if (word(at + 8) != 0 || word(at + 4) < row_at(row_count())) {
                astray.push_back(at);
            }
        }
        if (astray.empty()) {
            return;
        }
        mended_.has_moved = claimed.empty();
        const auto runs = unclaimed_runs(claimed);
        for (size_t i = 0; i < astray.size(); ++i) {
            if (!give_entries(astray[i], runs, astray.size() == 1) &&
                runs.size() == astray.size()) {
                give_run(astray[i], runs[i]); // rows and entries mostly stand in one order
            }
        }
    }

    using Runs = std::vector<std::pair<uint64_t, uint32_t>>; // offset and number of entries

    Runs unclaimed_runs(std::vector<std::pair<uint64_t, uint64_t>> claimed) const {
        std::sort(claimed.begin(), claimed.end());
        Runs runs;
        uint64_t at = row_at(std::min(row_count(), max_rows));
        while (has(at, entry_size)) {
            const auto in_the_way =
                std::find_if(claimed.begin(), claimed.end(), [&](const auto &range) {
                    return range.first < at + entry_size && at < range.second;
                });
            if (in_the_way != claimed.end()) {
                at = in_the_way->second;
            } else if (is_entry(at)) {
                uint32_t count = 0;
                std::set<uint32_t> numbers; // a row has each once
                const auto next = std::find_if(claimed.begin(), claimed.end(),
                                               [&](const auto &range) { return range.first > at; });
                const uint64_t limit = next == claimed.end() ? size() : next->first;
                while (at + uint64_t{count + 1} * entry_size <= limit &&
                       is_entry(at + uint64_t{count} * entry_size) &&
                       numbers.insert(number_at(at + uint64_t{count} * entry_size)).second) {
                    ++count;
                }
                runs.emplace_back(at, count);
                at += std::max<uint64_t>(1, uint64_t{count} * entry_size);
            } else {
                ++at;
            }
        }
        return runs;
    }

    bool give_entries(size_t at, const Runs &runs, bool is_only_one) {
        const std::string sku = std::to_string(word(at));
        for (const auto &[entries_at, count] : runs) {
            if (word(at + 4) == entries_at) {
                put_if_other(at + 8, count, "the number of entries of SKU " + sku + " was wrong");
                return true;
            }
        }
        for (const auto &[entries_at, count] : runs) {
            if (word(at + 8) == count || (is_only_one && runs.size() == 1)) {
                give_run(at, {entries_at, count});
                return true;
            }
        }
        return false;
    }

    void give_run(size_t at, const Runs::value_type &run) {
        const std::string sku = std::to_string(word(at));
        put_if_other(at + 4, static_cast<uint32_t>(run.first),
                     "the place of the entries of SKU " + sku + " was wrong");
        put_if_other(at + 8, run.second, "the number of entries of SKU " + sku + " was wrong");
    }

    // The geometry of the image counts, which has a checksum.
    void mend_section() {
        const size_t section = row_at(row_count());
        if (row_count() == 0 || row_count() > max_rows || !has(section, head_size)) {
            return;
        }
        if (word(section) != efst_magic) {
            const size_t row = section + head_size;
            const bool is_section = own_ && has(row, efst_row_size) && fits_own(row);
            if (!is_section) {
                return;
            }
            put_if_other(section, efst_magic, "the magic of its EFS section was wrong");
        }
        const uint32_t rows = word(section + row_count_offset);
        if (rows == 0 || rows > max_rows) {
            put_if_other(section + row_count_offset, row_count(),
                         "the number of rows of its EFS section was wrong");
        }
        mend_geometry(section);
        mend_records(section);
    }

    static constexpr size_t geometry_offset = 16;
    static constexpr size_t layout_offset = 36;
    static constexpr uint32_t usual_files_num = 16;
    static constexpr uint32_t usual_wear_threshold = 100;

    bool fits_own(size_t row) const {
        const EfsLayout &layout = own_->layout;
        return word(row + geometry_offset) == layout.bm_num &&
               word(row + geometry_offset + 4) == layout.valid_blocks &&
               word(row + geometry_offset + 8) == layout.spare_blocks;
    }

    uint32_t efst_rows(size_t section) const {
        const uint32_t rows = std::min(word(section + row_count_offset), max_rows);
        const size_t room = (size() - section - head_size) / efst_row_size;
        return static_cast<uint32_t>(std::min<size_t>(rows, room));
    }

    void mend_geometry(size_t section) {
        for (uint32_t i = 0; own_ && i < efst_rows(section); ++i) {
            const size_t row = section + head_size + size_t{i} * efst_row_size;
            const EfsLayout &layout = own_->layout;
            const std::string text =
                "the geometry of EFS for SKU " + std::to_string(word(row)) + " was wrong";
            put_if_other(row + geometry_offset, layout.bm_num, text);
            put_if_other(row + geometry_offset + 4, layout.valid_blocks, text);
            put_if_other(row + geometry_offset + 8, layout.spare_blocks, text);
            if ((word(row + layout_offset) & 0xFF) != layout.layout_id) {
                put_if_other(row + layout_offset, layout.layout_id, text);
            }
        }
    }

    // All SKUs mostly have one list; a row that leads astray gets that of another.
    void mend_records(size_t section) {
        std::optional<size_t> sound;
        std::vector<size_t> astray;
        for (uint32_t i = 0; i < efst_rows(section); ++i) {
            const size_t row = section + head_size + size_t{i} * efst_row_size;
            if (leads_to_records(row)) {
                sound = sound ? sound : row;
            } else {
                astray.push_back(row);
            }
        }
        for (const size_t row : astray) {
            for (size_t field = 4; sound && field <= 12; field += 4) {
                put_if_other(row + field, word(*sound + field),
                             "the list of EFS for SKU " + std::to_string(word(row)) +
                                 " was astray");
            }
            if (sound) {
                put_if_other(row + 28, word(*sound + 28),
                             "the file slots of EFS for SKU " + std::to_string(word(row)) +
                                 " were wrong");
            }
        }
    }

    bool leads_to_records(size_t row) const {
        const uint32_t at = word(row + 4);
        const uint32_t count = word(row + 8);
        const uint32_t files_num = word(row + 28);
        if (!has(at, uint64_t{count} * efst_record_size) ||
            word(row + 12) > uint64_t{count} * efst_record_size) {
            return false;
        }
        uint32_t good = 0;
        for (uint32_t i = 0; i < count; ++i) {
            good += get_le16(mended_.bytes, at + size_t{i} * efst_record_size) < files_num ? 1 : 0;
        }
        return good == count;
    }

    // Whether the files of EFS have the places that they need.
    bool has_list() const {
        const FileTable table = read_file_table(mended_.bytes);
        const EfstRow *row = first_with_list(table);
        return row != nullptr &&
               std::all_of(table.rows.begin(), table.rows.end(), [&](const FtblRow &files) {
                   return std::all_of(files.entries.begin(), files.entries.end(),
                                      [&](const FtblEntry &entry) {
                                          return !entry.is_in_efs() || lists(*row, entry.id);
                                      });
               });
    }

    const EfstRow *first_with_list(const FileTable &table) const {
        const auto found =
            std::find_if(table.efst_rows.begin(), table.efst_rows.end(), [&](const EfstRow &row) {
                return row.records_count != 0 && leads_to_records(row.at);
            });
        return found == table.efst_rows.end() ? nullptr : &*found;
    }

    static bool lists(const EfstRow &row, uint32_t id) {
        return std::any_of(row.records.begin(), row.records.end(),
                           [=](const EfstRecord &record) { return record.file_index == id; });
    }

    // The list of EFS stands in the table still, without a way to it, or is told by the image.
    void find_list() {
        Bytes image(efs_image_.begin(), efs_image_.end());
        image.resize(std::max<size_t>(image.size(), own_->layout.image_size()), 0xFF);
        const FileTable table = read_file_table(mended_.bytes);
        const EfstRow *row = first_with_list(table);
        std::vector<EfsPlace> list = row == nullptr
                                         ? find_listed_places(mended_.bytes, image, own_->layout)
                                         : efs_layout_of(*row).files;
        std::set<std::pair<uint32_t, uint32_t>> begins;
        uint32_t number = usual_files_num; // not one that the file table may have had
        for (const EfsPlace &place : list) {
            begins.emplace(place.block, place.offset);
            number = std::max(number, place.number + 1);
        }
        for (const FtblRow &files : table.rows) {
            for (const FtblEntry &entry : files.entries) {
                number = entry.is_in_efs() ? std::max<uint32_t>(number, entry.id + 1) : number;
            }
        }
        for (EfsPlace &place : find_places_in_image(image, own_->layout, number)) {
            if (!begins.contains({place.block, place.offset})) {
                mended_.counted_ids.insert(place.number);
                list.push_back(place);
            }
        }
        if (row == nullptr ? !list.empty() : !mended_.counted_ids.empty()) {
            put_in_front(table, list);
        }
    }

    // Of a head of which nothing is left, the longest run of entries.
    std::vector<FtblRow> rows_left(const FileTable &table) const {
        std::vector<FtblRow> rows;
        for (const FtblRow &row : table.rows) {
            if (row.entries_count == 0 || is_row(row.at)) {
                rows.push_back(row);
            }
        }
        if (!rows.empty()) {
            return rows;
        }
        FtblRow row;
        row.sku = sku_.value_or(own_->sku);
        if (size() < head_size + row_size) {
            return {row};
        }
        for (const auto &[at, count] : unclaimed_runs({})) {
            if (count > row.entries_count) {
                row.entries_at = static_cast<uint32_t>(at);
                row.entries_count = count;
            }
        }
        return {row};
    }

    // A new head with the rows that are left, and a section of EFS with the list; all that there
    // was follows behind.
    void put_in_front(const FileTable &table, const std::vector<EfsPlace> &list) {
        const std::vector<FtblRow> rows = rows_left(table);
        const auto row_total = static_cast<uint32_t>(rows.size());
        const size_t section = row_at(row_total);
        const size_t records = section + head_size + rows.size() * efst_row_size;
        Bytes bytes(std::max<size_t>(records + list.size() * efst_record_size, min_size));
        put_le(bytes, 0, magic, 4);
        put_le(bytes, section, efst_magic, 4);
        for (const size_t head : {size_t{0}, section}) {
            put_le(bytes, head + row_count_offset, row_total, 4);
        }
        for (uint32_t i = 0; i < row_total; ++i) {
            const FtblRow &row = rows[i];
            const auto entries_at = static_cast<uint32_t>(bytes.size() + row.entries_at);
            put_words(bytes, row_at(i), {row.sku, entries_at, row.entries_count});
            put_words(bytes, section + head_size + size_t{i} * efst_row_size,
                      efst_row(row.sku, static_cast<uint32_t>(records), list));
        }
        for (size_t i = 0; i < list.size(); ++i) {
            const size_t at = records + i * efst_record_size;
            put_le(bytes, at, list[i].number, 2);
            put_le(bytes, at + record_block_offset, list[i].block, 1);
            put_le(bytes, at + record_start_offset, list[i].offset, 2);
            put_le(bytes, at + record_max_size_offset, list[i].max_size, 2);
        }
        mended_.shift = bytes.size();
        bytes.insert(bytes.end(), mended_.bytes.begin(), mended_.bytes.end());
        mended_.bytes = std::move(bytes);
        mended_.mended.emplace_back(mended_.counted_ids.empty()
                                        ? "nothing led to its list of EFS"
                                        : "its list of EFS is lost; files are known by their "
                                          "records in the image and counted in that order");
    }

    std::vector<uint32_t> efst_row(uint32_t sku, uint32_t records_at,
                                   const std::vector<EfsPlace> &list) const {
        uint32_t files_num = usual_files_num;
        for (const EfsPlace &place : list) {
            files_num = std::max(files_num, place.number + 1);
        }
        const auto count = static_cast<uint32_t>(list.size());
        const EfsLayout &layout = own_->layout;
        return {sku,
                records_at,
                count,
                count * efst_record_size,
                layout.bm_num,
                layout.valid_blocks,
                layout.spare_blocks,
                files_num,
                usual_wear_threshold,
                layout.layout_id};
    }

    static void put_words(Bytes &bytes, size_t at, const std::vector<uint32_t> &words) {
        for (const uint32_t value : words) {
            put_le(bytes, at, value, 4);
            at += 4;
        }
    }

    // The SKU of the set has a row; the rows of EFS have the same SKUs, in the same order.
    void mend_skus() {
        const FileTable table = read_file_table(mended_.bytes);
        if (sku_ && !table.rows.empty() && table.row_of(*sku_) == nullptr) {
            const FtblRow *stranger = nullptr;
            size_t strangers = 0;
            for (const FtblRow &row : table.rows) {
                if (table.efst_rows.empty() || table.efst_row_of(row.sku) == nullptr) {
                    stranger = &row;
                    ++strangers;
                }
            }
            if (strangers == 1) {
                put_if_other(stranger->at, *sku_, "the SKU of a row was wrong");
            }
        }
        const FileTable again = read_file_table(mended_.bytes);
        if (again.rows.size() != again.efst_rows.size()) {
            return;
        }
        if (sku_ && again.row_of(*sku_) == nullptr && again.efst_row_of(*sku_) != nullptr) {
            for (size_t i = 0; i < again.rows.size(); ++i) {
                put_if_other(again.rows[i].at, again.efst_rows[i].sku, "the SKUs were wrong");
            }
            return;
        }
        size_t others = 0;
        size_t other = 0;
        for (size_t i = 0; i < again.rows.size(); ++i) {
            if (again.rows[i].sku != again.efst_rows[i].sku) {
                ++others;
                other = i;
            }
        }
        if (others == 1) {
            put_if_other(again.efst_rows[other].at, again.rows[other].sku,
                         "the SKU of a row of EFS was wrong");
        }
    }

    // The entries that several SKUs have of a file are the same.
    void compare_entries() {
        const FileTable table = read_file_table(mended_.bytes);
        std::map<uint32_t, const FtblEntry *> by_number;
        std::map<std::string_view, const FtblEntry *> by_name;
        for (const FtblRow &row : table.rows) {
            for (const FtblEntry &entry : row.entries) {
                const auto [same, is_first] = by_number.emplace(entry.number, &entry);
                if (!is_first && !is_same(*same->second, entry)) {
                    mended_.doubted_numbers.insert(entry.number);
                }
                const auto [named, is_new] = by_name.emplace(entry.name, &entry);
                if (!is_new && named->second->number != entry.number) {
                    mended_.doubted_numbers.insert(entry.number);
                    mended_.doubted_numbers.insert(named->second->number);
                }
            }
        }
    }

    static bool is_same(const FtblEntry &a, const FtblEntry &b) {
        return a.name == b.name && a.attributes == b.attributes && a.id == b.id &&
               a.store == b.store && a.max_size == b.max_size;
    }

    MendedTable mended_;
    const std::optional<uint32_t> sku_;
    const std::optional<EfsOwnGeometry> own_;
    const std::span<const uint8_t> efs_image_;
};

} // namespace

bool is_plausible_entry(std::span<const uint8_t> entry) {
    const auto name = entry.first(name_size);
    const auto end = std::find(name.begin(), name.end(), uint8_t{0});
    const bool is_text =
        std::all_of(name.begin(), end, [](uint8_t byte) { return byte >= 0x20 && byte != 0x7F; });
    const bool is_filled = std::all_of(end, name.end(), [](uint8_t byte) { return byte == 0; });
    return name[0] == '/' && is_text && is_filled && get_le32(entry, 48) != 0 && entry[63] <= 2;
}

MendedTable mend_file_table(Bytes bytes, std::optional<uint32_t> sku,
                            std::span<const uint8_t> efs_image) {
    return Mender(std::move(bytes), sku, efs_image).mend();
}

} // namespace dolm
