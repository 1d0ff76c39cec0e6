#include "host/salvage_tables.h"

#include <algorithm>

#include "host/checksums.h"
#include "host/tables.h"
#include "image/efs_records.h"
#include "image/fcs_mend.h"
#include "image/file_table.h"
#include "image/table_mend.h"

namespace dolm {

namespace {

class Mender {
  public:
    explicit Mender(const SetFiles &set) : set_(set) {}

    MendedTables mend() {
        mended_.files.sku = set_.sku;
        mended_.files.members = set_.members;
        mend_table();
        const Table orvel = as_recorded("orvel.cfg", set_.orvel_cfg);
        mended_.files.orvel_cfg =
            mend_values("orvel.cfg", orvel, orvel.bytes, has_checksums(), mended_.base);
        if (!set_.vync_cfg.empty()) {
            const Table vync = as_recorded("vync.cfg", set_.vync_cfg);
            const auto [bytes, has_sure_end] = override_bytes(vync.bytes);
            mended_.files.vync_cfg = with_vync_head(
                mend_values("vync.cfg", vync, bytes, has_sure_end, mended_.overrides));
        }
        return std::move(mended_);
    }

  private:
    void damage(const char *member, std::string text) {
        mended_.damages.push_back({member, "", "", std::move(text)});
    }

    // A table, and the ranges of it that are not what they were.
    struct Table {
        Bytes bytes;
        std::vector<std::pair<size_t, size_t>> changed;

        bool is_changed(size_t begin, size_t end) const {
            return std::any_of(changed.begin(), changed.end(), [&](const auto &range) {
                return range.first < end && begin < range.second;
            });
        }
    };

    // Only a set that has some can show that a table is not what it was.
    bool has_checksums() const { return !set_.changed_tables.empty(); }
    bool is_unchanged(const char *member) const {
        return has_checksums() && !set_.changed_tables.contains(member);
    }

    // A block with one wrong byte is what it was when its checksum says so again.
    Table mend_bytes(const char *member, const Bytes &bytes) {
        Table table{bytes, {}};
        const auto found = set_.changed_tables.find(member);
        if (found == set_.changed_tables.end() || bytes.empty()) {
            return table;
        }
        damage(member, "is not what set.json has checksums of");
        const Checksums &recorded = found->second.recorded;
        for (const size_t index : changed_blocks(bytes, recorded)) {
            const size_t begin = index * recorded.block;
            const auto held = block_of(bytes, recorded, index);
            Bytes block(held.begin(), held.end());
            const size_t size = block.size();
            block.resize(size + 4);
            put_le(block, size, recorded.crc32s[index], 4);
            const auto wrong = efs::wrong_byte(block);
            if (wrong && wrong->at < size && is_whole_block(recorded, index, size)) {
                table.bytes[begin + wrong->at] ^= wrong->bits;
            } else {
                table.changed.emplace_back(begin, begin + recorded.block);
            }
        }
        return table;
    }

    // A store without what was put behind it, and with zeros, which are known to be none of it, for
    // what is gone.
    Table as_recorded(const char *member, Bytes bytes) {
        const auto changed = set_.changed_tables.find(member);
        if (changed != set_.changed_tables.end() && !bytes.empty()) {
            const uint64_t size = changed->second.recorded.size;
            bytes.resize(static_cast<size_t>(std::min(size, max_table_size)));
        }
        return mend_bytes(member, bytes);
    }

    static bool is_whole_block(const Checksums &recorded, size_t index, size_t size) {
        return std::min<uint64_t>(recorded.block, recorded.size - index * recorded.block) == size;
    }

    void mend_table() {
        Table given = mend_bytes("ftbl.bin", set_.ftbl);
        MendedTable table = mend_file_table(std::move(given.bytes), set_.sku, set_.efs_image);
        has_sure_names_ = has_checksums() && given.changed.empty();
        const bool has_all_names = has_sure_names_ || (!has_checksums() && is_whole(table));
        for (std::string &text : table.mended) {
            damage("ftbl.bin", std::move(text));
        }
        mended_.files.ftbl = std::move(table.bytes);
        mended_.doubted_numbers = std::move(table.doubted_numbers);
        const FileTable mended = read_file_table(mended_.files.ftbl);
        for (const EfstRow &row : mended.efst_rows) {
            for (const EfstRecord &record : row.records) {
                if (table.has_moved && !has_sure_names_) {
                    mended_.efs_doubts[record.file_index] =
                        "the file table has lost bytes or has more than it had";
                }
                const size_t at = record.at - table.shift;
                if (record.at >= table.shift && given.is_changed(at, at + ftbl::efst_record_size)) {
                    mended_.efs_doubts[record.file_index] = "its place in EFS is not what it was";
                }
            }
        }
        for (const uint32_t id : table.counted_ids) {
            mended_.efs_doubts[id] = "its number in the store was lost with the file table";
        }
        for (const FtblRow &row : mended.rows) {
            for (const FtblEntry &entry : row.entries) {
                if (names_.emplace(entry.number, entry.name).second) {
                    numbers_.push_back(entry.number);
                }
                const size_t at = entry.at - table.shift;
                if (given.is_changed(at, at + ftbl::entry_size)) {
                    mended_.doubted_numbers.insert(entry.number);
                }
            }
        }
        if (!has_all_names) {
            numbers_.clear();
        }
    }

    // Nothing shows that an entry is not what it was.
    static bool is_whole(const MendedTable &table) {
        const FileTable read = read_file_table(table.bytes);
        return table.mended.empty() && table.doubted_numbers.empty() &&
               std::all_of(read.rows.begin(), read.rows.end(), [&](const FtblRow &row) {
                   return std::all_of(
                       row.entries.begin(), row.entries.end(), [&](const FtblEntry &entry) {
                           return is_plausible_entry(
                               std::span(table.bytes).subspan(entry.at, ftbl::entry_size));
                       });
               });
    }

    struct StoreBytes {
        std::span<const uint8_t> bytes;
        bool has_sure_end = false;
    };

    // The head tells the length; if it does not fit, the store goes as far as the file.
    StoreBytes override_bytes(const Bytes &file) {
        if (file.size() < fcs::vync_head_size) {
            damage("vync.cfg", "is shorter than its head");
            return {};
        }
        const auto rest = std::span(file).subspan(fcs::vync_head_size);
        const uint32_t length = get_le32(file, fcs::vync_length_offset);
        if (length == rest.size()) {
            return {rest, true};
        }
        if (length < rest.size() && is_filler(rest.subspan(length))) {
            return {rest.first(length), true};
        }
        damage("vync.cfg", "its head has a wrong length");
        return {rest, has_checksums()};
    }

    static bool is_filler(std::span<const uint8_t> bytes) {
        return (bytes[0] == 0 || bytes[0] == 0xFF) &&
               std::all_of(bytes.begin(), bytes.end(),
                           [&](uint8_t byte) { return byte == bytes[0]; });
    }

    // bytes are those of a store in the table.
    Bytes mend_values(const char *member, const Table &table, std::span<const uint8_t> bytes,
                      bool has_sure_end, MendedValues &values) {
        if (bytes.size() < fcs::head_size) {
            damage(member, bytes.empty() ? "is missing or empty" : "is too short for a store");
            values.missing = std::string(member) + " is too short for a store";
            return Bytes(fcs::head_size);
        }
        const auto name_of = [this](uint32_t number) {
            const auto found = names_.find(number);
            return found == names_.end() ? std::string() : found->second;
        };
        const StoreEvidence evidence{is_unchanged(member), has_sure_end, has_sure_names_};
        auto [records, is_packed, has_all_records] = mend_store(bytes, name_of, numbers_, evidence);
        if (!has_all_records) {
            values.missing = std::string(member) + " has lost records";
        }
        for (size_t i = 0; i < records.size(); ++i) {
            judge(table, bytes, i, is_packed, records[i]);
            const MendedRecord &record = records[i];
            if (!record.is_number_sure) {
                values.missing =
                    std::string(member) + " has records that may be those of other files";
            }
            if (!record.doubt.empty()) {
                (record.payload ? values.doubts : values.lost)[record.number] = record.doubt;
                damage(member, "record of file " + std::to_string(record.number & 0x0FFFFFFF) +
                                   ": " + record.doubt);
            }
        }
        return write_store(records);
    }

    // A value is lost whose bytes may have changed, or whose record may and has no neighbour that
    // tells its place too; a record that may have is not sure to be its.
    static void judge(const Table &table, std::span<const uint8_t> bytes, size_t index,
                      bool is_packed, MendedRecord &record) {
        const auto store_at = static_cast<size_t>(bytes.data() - table.bytes.data());
        const size_t record_at = store_at + fcs::head_size + index * fcs::record_size;
        const bool is_changed = table.is_changed(record_at, record_at + fcs::record_size);
        record.is_number_sure = record.is_number_sure && !is_changed;
        if (record.payload && !record.payload->empty()) {
            const auto at = static_cast<size_t>(record.payload->data() - table.bytes.data());
            if (table.is_changed(at, at + record.payload->size())) {
                record.payload.reset();
                record.doubt = "its value is not what it was";
                return;
            }
        }
        if (is_changed && !is_packed) {
            record.payload.reset();
        }
        if (record.doubt.empty() && is_changed) {
            record.doubt = "its record is not what it was";
        }
    }

    const SetFiles &set_;
    MendedTables mended_;
    std::map<uint32_t, std::string> names_;
    std::vector<uint32_t> numbers_; // none if the table may have lost some
    bool has_sure_names_ = false;
};

} // namespace

MendedTables mend_tables(const SetFiles &set) {
    return Mender(set).mend();
}

} // namespace dolm
