#include "image/afs_image.h"

#include <algorithm>
#include <array>
#include <map>

#include "image/afs_records.h"

namespace dolm {
namespace {

using namespace afs;

std::string number(uint64_t value) {
    return std::to_string(value);
}

class Reader {
  public:
    explicit Reader(std::span<const uint8_t> bytes) : bytes_(bytes) {}

    AfsImage run() {
        if (!count_eus()) {
            return std::move(image_);
        }
        read_headers();
        settle_roles();
        repair_erase_count();
        // Until the header in page 0 is known, any page of the device may be in the log.
        replay_log(static_cast<uint32_t>(bytes_.size() / page_size), true);
        if (read_fs_header()) {
            std::erase_if(image_.damages,
                          [](const AfsDamage &found) { return found.rule == Rule::log_entry; });
            replay_log(image_.data_va_start / page_size, false);
            find_data_eus();
            read_allocation_table();
            read_files();
            count_data_slots();
            count_log_slots();
        }
        return std::move(image_);
    }

  private:
    using Rule = AfsDamage::Rule;

    void damage(AfsDamage damage) { image_.damages.push_back(std::move(damage)); }

    const uint8_t *at(size_t offset) const { return bytes_.data() + offset; }

    uint16_t log_entry(uint32_t eu, uint32_t index) const {
        return le16(at(log_entry_at(eu, index)));
    }

    bool count_eus() {
        const size_t count = bytes_.size() / eu_size;
        if (count == 0 || count > max_eu_count) {
            damage({Rule::size, "the image has " + number(count) + " EUs; a store has 1 to 255"});
            return false;
        }
        image_.eu_count = static_cast<uint32_t>(count);
        image_.eus.resize(count);
        image_.sequence = image_.eu_count - 1; // a format leaves no lower one
        return true;
    }

    // Fills in the rows and notes the EUs whose part is not plain from the header alone.
    void read_headers() {
        for (uint32_t i = 0; i < image_.eu_count; ++i) {
            const uint8_t *header = at(header_at(i));
            const Header judged = judge_header(header);
            AfsEu &eu = image_.eus[i];
            eu.erase_count = le32(header + 8);
            eu.erase_count_known = judged.erase_count_known;
            if (judged.state == HeaderState::invalid) {
                invalid_.push_back(i);
                continue;
            }
            eu.sequence = le32(header + 4);
            eu.next_spare = le16(header + 12);
            eu.va_base = le16(header + 14);
            if (judged.state == HeaderState::pending) {
                eu.pending = true;
                pending_.push_back(i);
                continue;
            }
            eu.role = eu.va_base == 0 ? AfsRole::log : AfsRole::data;
            if (eu.sequence >= image_.sequence) {
                image_.sequence = eu.sequence;
                newest_ = i;
            }
        }
    }

    // A reclaim erases the spare, fills it, writes its header, gives the source up and commits the
    // header. So at most one EU has no header and at most one has an uncommitted one.
    void settle_roles() {
        if (invalid_.size() > 1 || pending_.size() > 1) {
            damage({Rule::headers, number(invalid_.size()) + " EUs without a valid header and " +
                                       number(pending_.size()) +
                                       " with an uncommitted one; at most one of each can be"});
            return;
        }
        if (pending_.empty()) {
            if (invalid_.empty()) {
                damage({Rule::spare, "no EU is the spare"});
                return;
            }
            make_spare(invalid_.front());
            if (!newest_) {
                damage({Rule::spare, "no header is as new as a format leaves them"});
            } else if (image_.eus[*newest_].next_spare != *image_.spare) {
                damage({.rule = Rule::spare,
                        .text = "the newest header names EU " +
                                number(image_.eus[*newest_].next_spare) + " as the spare, but EU " +
                                number(*image_.spare) + " is",
                        .eu = newest_});
            }
            return;
        }
        const uint32_t target = pending_.front();
        if (invalid_.empty()) {
            image_.interruption = AfsInterruption::rolled_back;
            make_spare(target);
            return;
        }
        image_.interruption = AfsInterruption::rolled_forward;
        make_spare(invalid_.front());
        AfsEu &eu = image_.eus[target];
        eu.role = eu.va_base == 0 ? AfsRole::log : AfsRole::data;
        image_.sequence = eu.sequence; // the newest, unless an old header lost its state byte
        for (const AfsEu &other : image_.eus) {
            image_.sequence = std::max(image_.sequence, other.sequence);
        }
        if (eu.next_spare != *image_.spare) {
            damage({.rule = Rule::spare,
                    .text = "the uncommitted header of EU " + number(target) + " names EU " +
                            number(eu.next_spare) + " as the spare, but EU " +
                            number(*image_.spare) + " is",
                    .eu = target});
        }
    }

    void make_spare(uint32_t eu) {
        image_.spare = eu;
        image_.eus[eu].role = AfsRole::spare;
        image_.eus[eu].va_base = 0;
    }

    void repair_erase_count() {
        if (!image_.spare || image_.eus[*image_.spare].erase_count_known || image_.eu_count < 2) {
            return;
        }
        uint64_t sum = 0;
        for (uint32_t i = 0; i < image_.eu_count; ++i) {
            sum += i == *image_.spare ? 0 : image_.eus[i].erase_count;
        }
        image_.eus[*image_.spare].erase_count = static_cast<uint32_t>(sum / (image_.eu_count - 1));
    }

    // The log is the log EUs in the order of their headers, each read from its first slot on. The
    // head is the newest EU that it can go on in; of blank EUs, the oldest.
    void replay_log(uint32_t page_count, bool provisional) {
        image_.pages.assign(page_count, std::nullopt);
        image_.head.reset();
        image_.head_slot = 0;
        std::vector<uint32_t> order;
        for (uint32_t i = 0; i < image_.eu_count; ++i) {
            if (image_.eus[i].role == AfsRole::log) {
                order.push_back(i);
            }
        }
        std::stable_sort(order.begin(), order.end(), [this](uint32_t a, uint32_t b) {
            return image_.eus[a].sequence < image_.eus[b].sequence;
        });
        const auto blank =
            std::ranges::find_if(order, [this](uint32_t eu) { return is_blank(eu); });
        const bool any_blank = blank != order.end();
        for (const uint32_t eu : order) {
            image_.eus[eu].pages.assign(log_slots, std::nullopt);
            if (is_blank(eu)) {
                continue;
            }
            const LogEnd end = replay_eu(eu, provisional);
            if (!end.closed || end.has_pages || !any_blank) {
                image_.head = eu;
                image_.head_slot = end.closed ? log_slots : end.slot;
            }
        }
        if (!image_.head && any_blank) {
            image_.head = *blank;
        }
    }

    bool is_blank(uint32_t eu) const { return is_erased_from(eu, 0); }

    bool is_erased_from(uint32_t eu, uint32_t slot) const {
        for (uint32_t i = slot; i <= log_slots; ++i) {
            if (log_entry(eu, i) != entry_empty) {
                return false;
            }
        }
        return true;
    }

    struct LogEnd {
        bool has_pages = false;
        bool closed = false; // the EU takes no further pages
        uint32_t slot = 0;   // of the next page
    };

    // A run of entries can land in part. What it leaves behind a gap would commit pages that are
    // written there later, so such an EU is closed.
    LogEnd replay_eu(uint32_t eu, bool provisional) {
        LogEnd end;
        if (log_entry(eu, 0) == entry_empty) {
            end.closed = true;
            return end;
        }
        uint16_t last = 0;
        bool behind_cut = false;
        uint32_t gap_end = 0; // slot behind two that were given up
        uint32_t slot = 0;
        while (slot < log_slots) {
            const uint16_t entry = log_entry(eu, slot);
            const uint16_t next = log_entry(eu, slot + 1);
            if ((next & entry_uncommitted_bit) == 0) {
                const auto page = static_cast<uint16_t>(link_of(last) ^ entry);
                const bool astray = (behind_cut && page >= image_.pages.size()) ||
                                    (slot == gap_end && is_left_of_a_run(eu, slot, entry, page));
                if ((entry & entry_page_mask) != entry || astray) {
                    end.closed = true;
                    return end;
                }
                last = page;
                enter_page(last, eu, slot);
                end.has_pages = true;
                end.slot = ++slot;
                // Links lead back into a range that is too wide before they leave it.
                behind_cut = behind_cut && provisional;
                if (next == entry_commit_mark) {
                    end.closed = !is_erased_from(eu, slot + 1);
                    return end;
                }
            } else if (entry == entry_empty) {
                behind_cut = false;
                ++slot;
            } else {
                // The write of this slot was cut; the slot after it goes with it.
                slot = std::min(slot + 2, log_slots);
                end.slot = gap_end = slot;
                behind_cut = true;
            }
        }
        return end;
    }

    // Behind a gap that no commit mark follows, an entry can be chained to one that did not land.
    // Then its slot holds another page, one that some link makes of it.
    bool is_left_of_a_run(uint32_t eu, uint32_t slot, uint16_t entry, uint32_t page) const {
        const uint8_t *record = at(log_record_at(eu, slot));
        bool is_left = slot > 0 && !page_is_good(record, page);
        for (uint32_t i = slot; is_left && i <= log_slots; ++i) {
            is_left = log_entry(eu, i) != entry_commit_mark;
        }
        for (uint32_t link = 0; is_left && link < image_.pages.size(); ++link) {
            const uint32_t other = link_of(static_cast<uint16_t>(link)) ^ entry;
            if (other < image_.pages.size() && page_is_good(record, other)) {
                return true;
            }
        }
        return false;
    }

    void enter_page(uint32_t page, uint32_t eu, uint32_t slot) {
        if (page >= image_.pages.size()) {
            damage({.rule = Rule::log_entry,
                    .text = "EU " + number(eu) + ": the entry of slot " + number(slot) +
                            " decodes to page " + number(page) + ", which the store does not have",
                    .eu = eu,
                    .slot = slot,
                    .page = page});
            return;
        }
        image_.pages[page] = AfsPagePlace{eu, slot};
        image_.eus[eu].pages[slot] = static_cast<uint16_t>(page);
    }

    // The bytes of a metadata page; a page without a copy reads as zeros.
    std::array<uint8_t, page_size> metadata_page(uint32_t page) {
        std::array<uint8_t, page_size> data{};
        if (const auto &place = image_.pages[page]) {
            const uint8_t *record = at(log_record_at(place->eu, place->slot));
            if (!page_is_good(record, page)) {
                damage({.rule = Rule::page,
                        .text = "metadata page " + number(page) + " in EU " + number(place->eu) +
                                ", slot " + number(place->slot) + " fails its checksum",
                        .eu = place->eu,
                        .slot = place->slot,
                        .page = page});
            }
            std::copy_n(record, page_size, data.begin());
        }
        return data;
    }

    void damage_header(std::string text) {
        AfsDamage found{Rule::file_system, std::move(text)};
        if (const auto &place = image_.pages[0]) {
            found.eu = place->eu;
            found.slot = place->slot;
        }
        damage(std::move(found));
    }

    bool read_fs_header() {
        const auto page = metadata_page(0);
        table_.assign(page.begin(), page.end());
        if (le32(page.data()) != fs_magic) {
            damage_header("no file-system header in page 0");
            return false;
        }
        image_.fs_version = le32(page.data() + 4);
        image_.total_va_size = le32(page.data() + 8);
        image_.file_count = le16(page.data() + 12);
        const uint64_t slots_end = 2 * uint64_t{image_.file_count} + fs_header_size;
        if (image_.file_count < min_file_count || image_.total_va_size < slots_end) {
            damage_header("the file-system header has " + number(image_.file_count) + " files in " +
                          number(image_.total_va_size) + " bytes, which cannot be");
            return false;
        }
        const uint64_t chunks = (image_.total_va_size - slots_end) / record_size;
        const uint64_t table_end = slots_end + 2 * chunks;
        const uint64_t data_start = (table_end + page_size - 1) / page_size * page_size;
        if (chunks > 0xFFFF || data_start > image_.total_va_size ||
            data_start / page_size > image_.pages.size()) {
            damage_header("the file-system header has " + number(image_.total_va_size) +
                          " bytes, which is no size for this device");
            return false;
        }
        image_.chunk_count = static_cast<uint32_t>(chunks);
        image_.data_va_start = static_cast<uint32_t>(data_start);
        image_.has_file_system = true;
        return true;
    }

    void find_data_eus() {
        const uint32_t first_page = image_.data_va_start / page_size;
        const uint32_t wanted = (image_.chunk_count + data_slots - 1) / data_slots;
        data_eus_.resize(wanted);
        for (uint32_t i = 0; i < image_.eu_count; ++i) {
            const AfsEu &eu = image_.eus[i];
            if (eu.role != AfsRole::data) {
                continue;
            }
            const uint32_t row = (eu.va_base - first_page) / data_slots;
            if (eu.va_base < first_page || (eu.va_base - first_page) % data_slots != 0 ||
                row >= wanted) {
                damage({.rule = Rule::data_eu,
                        .text = "EU " + number(i) + " starts at page " + number(eu.va_base) +
                                ", where no data EU starts",
                        .eu = i});
            } else if (data_eus_[row]) {
                damage({.rule = Rule::data_eu,
                        .text = "EU " + number(*data_eus_[row]) + " and EU " + number(i) +
                                " hold the same pages",
                        .eu = i});
            } else {
                data_eus_[row] = i;
            }
        }
        // A store that was formatted without data EUs has chunk numbers and no place for them.
        const bool any = std::any_of(data_eus_.begin(), data_eus_.end(),
                                     [](const auto &eu) { return eu.has_value(); });
        for (uint32_t row = 0; any && row < wanted; ++row) {
            if (!data_eus_[row]) {
                damage({.rule = Rule::data_eu,
                        .text = "no EU holds the chunks from " + number(row * data_slots) + " on",
                        .chunk = row * data_slots});
            }
        }
    }

    void read_allocation_table() {
        table_.reserve(image_.data_va_start);
        for (uint32_t page = 1; page < image_.pages.size(); ++page) {
            const auto data = metadata_page(page);
            table_.insert(table_.end(), data.begin(), data.end());
        }
        owners_.resize(image_.chunk_count);
    }

    uint16_t table_entry(uint32_t id) const { return le16(&table_[fs_header_size + 2 * id]); }

    bool is_chunk_id(uint32_t id) const {
        return id >= image_.file_count && id < image_.file_count + image_.chunk_count;
    }

    void read_files() {
        for (uint32_t f = 0; f < image_.file_count; ++f) {
            const uint16_t slot = table_entry(f);
            if (slot == 0) {
                continue;
            }
            AfsFile file;
            file.number = f;
            if (slot == slot_zombie) {
                file.kind = AfsFile::Kind::zombie;
            } else if (slot == slot_empty_file) {
                file.kind = AfsFile::Kind::empty;
            } else {
                read_chain(file, slot);
            }
            image_.files.push_back(std::move(file));
        }
    }

    void read_chain(AfsFile &file, uint32_t id) {
        uint32_t from = file.number; // whose entry led to id
        while (is_chunk_id(id)) {
            const uint32_t chunk = id - image_.file_count;
            if (owners_[chunk]) {
                damage_chain(file, from,
                             "chunk " + number(chunk) + " already belongs to file " +
                                 number(*owners_[chunk]));
                return;
            }
            owners_[chunk] = file.number;
            file.chunks.push_back(chunk);
            from = id;
            id = table_entry(id);
            const uint32_t bytes = std::min(id, page_size);
            if (const uint8_t *data = chunk_data(file, chunk)) {
                file.contents.insert(file.contents.end(), data, data + bytes);
            }
        }
        if (id > page_size || file.chunks.empty()) {
            damage_chain(file, from, "its chain leads to " + number(id) + ", which is no chunk");
        }
    }

    void damage_chain(const AfsFile &file, uint32_t from, const std::string &text) {
        damage({.rule = Rule::chain,
                .text = "file " + number(file.number) + ": " + text,
                .page = (fs_header_size + 2 * from) / page_size,
                .file = file.number});
    }

    // Checks the page of a chunk that belongs to a file.
    const uint8_t *chunk_data(const AfsFile &file, uint32_t chunk) {
        const auto &eu = data_eus_[chunk / data_slots];
        const uint32_t slot = chunk % data_slots;
        const auto damage_chunk = [&](const char *text) {
            damage({.rule = Rule::chunk,
                    .text = "file " + number(file.number) + ": chunk " + number(chunk) + text,
                    .eu = eu,
                    .slot = slot,
                    .file = file.number,
                    .chunk = chunk});
        };
        if (!eu) {
            damage_chunk(" lies in no EU");
            return nullptr;
        }
        if (*at(status_at(*eu, slot)) != status_complete) {
            damage_chunk(" was not written to its end");
        }
        const uint8_t *record = at(data_record_at(*eu, slot));
        if (!page_is_good(record, image_.data_va_start / page_size + chunk)) {
            damage_chunk(" fails its checksum");
        }
        return record;
    }

    static void add_slot(AfsEu &eu, AfsSlot slot) {
        eu.slots.push_back(slot);
        eu.live += slot == AfsSlot::live;
        eu.dead += slot == AfsSlot::dead;
        eu.free += slot == AfsSlot::free;
    }

    void count_data_slots() {
        for (uint32_t row = 0; row < data_eus_.size(); ++row) {
            if (!data_eus_[row]) {
                continue;
            }
            AfsEu &eu = image_.eus[*data_eus_[row]];
            for (uint32_t slot = 0; slot < data_slots; ++slot) {
                const uint32_t chunk = row * data_slots + slot;
                const uint8_t status = *at(status_at(*data_eus_[row], slot));
                if (chunk >= image_.chunk_count) {
                    add_slot(eu, AfsSlot::outside);
                } else if (owners_[chunk]) {
                    add_slot(eu, AfsSlot::live);
                } else {
                    add_slot(eu, status == status_free ? AfsSlot::free : AfsSlot::dead);
                }
            }
            image_.used_chunks += eu.live;
            image_.free_chunks += eu.free;
        }
    }

    // A whole page of chain entries none of whose chunks is in use is not carried along by a
    // reclaim, even where the log still has a copy of it.
    bool page_is_stale(uint32_t page) const {
        const uint32_t chains_start = fs_header_size + 2 * image_.file_count;
        const uint32_t va = page * page_size;
        if (va < chains_start || va + page_size >= image_.data_va_start) {
            return false;
        }
        const auto first = owners_.begin() + (va - chains_start) / 2;
        return std::none_of(first, first + page_size / 2,
                            [](const auto &owner) { return owner.has_value(); });
    }

    void count_log_slots() {
        for (uint32_t i = 0; i < image_.eu_count; ++i) {
            AfsEu &eu = image_.eus[i];
            if (eu.role != AfsRole::log) {
                continue;
            }
            const uint32_t end = is_blank(i) ? 0 : i == image_.head ? image_.head_slot : log_slots;
            eu.slots.assign(log_slots, AfsSlot::free);
            std::fill_n(eu.slots.begin(), end, AfsSlot::dead);
            eu.dead = end;
            eu.free = log_slots - end;
        }
        for (uint32_t page = 0; page < image_.pages.size(); ++page) {
            if (const auto &place = image_.pages[page]; place && !page_is_stale(page)) {
                AfsEu &eu = image_.eus[place->eu];
                eu.slots[place->slot] = AfsSlot::live;
                ++eu.live;
                --eu.dead;
            }
        }
    }

    std::span<const uint8_t> bytes_;
    AfsImage image_;
    std::vector<uint32_t> invalid_;                 // EUs without a valid header
    std::vector<uint32_t> pending_;                 // EUs with an uncommitted header
    std::optional<uint32_t> newest_;                // EU with the newest committed header
    std::vector<std::optional<uint32_t>> data_eus_; // by first chunk / 122
    std::vector<uint8_t> table_;                    // all metadata bytes
    std::vector<std::optional<uint32_t>> owners_;   // file that each chunk belongs to
};

// What holds across the EUs of an image that was read.
class OrderCheck {
  public:
    explicit OrderCheck(AfsImage &image) : image_(image) {}

    void run() {
        if (image_.interruption == AfsInterruption::rolled_back &&
            image_.eus[*image_.spare].sequence != image_.sequence + 1) {
            damage("the uncommitted header of EU " + number(*image_.spare) +
                       " does not follow the newest one",
                   *image_.spare);
        }
        if (image_.eu_count != 0 && !image_.head) {
            image_.damages.push_back({AfsDamage::Rule::order, "no EU holds the log"});
        }
        check_sequences();
        check_log_order();
    }

  private:
    void damage(std::string text, uint32_t eu) {
        image_.damages.push_back(
            {.rule = AfsDamage::Rule::order, .text = std::move(text), .eu = eu});
    }

    void check_sequences() {
        std::map<uint32_t, uint32_t> seen;
        for (uint32_t i = 0; i < image_.eu_count; ++i) {
            const AfsEu &eu = image_.eus[i];
            if (eu.role != AfsRole::log && eu.role != AfsRole::data) {
                continue;
            }
            const auto [other, is_new] = seen.emplace(eu.sequence, i);
            if (!is_new) {
                damage("EU " + number(other->second) + " and EU " + number(i) +
                           " have the same sequence " + number(eu.sequence),
                       i);
            }
        }
    }

    // The log is only in order if its blank EUs come after all the written ones: a page that goes
    // into a blank EU must count as newer than every copy before it.
    void check_log_order() {
        if (!image_.head || !image_.has_file_system) {
            return;
        }
        const AfsEu &head = image_.eus[*image_.head];
        for (uint32_t i = 0; i < image_.eu_count; ++i) {
            const AfsEu &eu = image_.eus[i];
            if (eu.role == AfsRole::log && eu.free == log_slots && eu.sequence < head.sequence) {
                damage("blank log EU " + number(i) + " is older than the head of the log", i);
            }
        }
    }

    AfsImage &image_;
};

} // namespace

AfsImage read_afs_image(std::span<const uint8_t> bytes) {
    AfsImage image = Reader(bytes).run();
    OrderCheck(image).run();
    return image;
}

AfsWear afs_wear(const AfsImage &image) {
    AfsWear wear;
    bool any = false;
    for (const AfsEu &eu : image.eus) {
        if (!eu.erase_count_known) {
            continue;
        }
        wear.lowest = any ? std::min(wear.lowest, eu.erase_count) : eu.erase_count;
        wear.highest = std::max(wear.highest, eu.erase_count);
        any = true;
    }
    return wear;
}

std::vector<std::string> check_invariants(const AfsImage &image) {
    std::vector<std::string> broken;
    for (const AfsDamage &damage : image.damages) {
        broken.push_back(damage.text);
    }
    return broken;
}

std::vector<std::string> check_invariants(std::span<const uint8_t> bytes) {
    return check_invariants(read_afs_image(bytes));
}

} // namespace dolm
