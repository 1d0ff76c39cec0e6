#include "image/afs_image.h"

#include <algorithm>
#include <array>
#include <map>

namespace dolm {
namespace {

constexpr uint32_t eu_size = 8192;
constexpr uint32_t max_eu_count = 255;
constexpr uint32_t page_size = 64;
constexpr uint32_t record_size = 66; // a page and its checksum

// EU header: magic, sequence, erase count, next spare, first page, checksum of these, state.
constexpr uint32_t header_size = 18;
constexpr uint32_t header_checked_size = 16;
constexpr uint32_t magic_written = 0xAA557887;
constexpr uint32_t magic_alternative = 0x82416801; // on the way from magic_written to zero
constexpr uint32_t magic_partial = 0xAA050887;     // the same
constexpr uint8_t state_uncommitted = 0xFF;

// Log EU: 121 entries of 16 bits, then 120 page records.
constexpr uint32_t log_slots = 120;
constexpr uint32_t log_records_offset = 260;
constexpr uint16_t entry_empty = 0xFFFF;
constexpr uint16_t entry_commit_mark = 0x7FFF;
constexpr uint16_t entry_uncommitted_bit = 0x8000;

// Data EU: 122 status bytes, then 122 page records.
constexpr uint32_t data_slots = 122;
constexpr uint32_t data_records_offset = 140;
constexpr uint8_t status_free = 0xFF;
constexpr uint8_t status_complete = 0;

// File system: header in page 0, then one 16-bit entry for each file and each chunk.
constexpr uint32_t fs_magic = 0x724F6201;
constexpr uint32_t fs_header_size = 14;
constexpr uint32_t min_file_count = 65; // chunk ids start above the byte counts 1 to 64
constexpr uint16_t slot_zombie = 0xFFFE;
constexpr uint16_t slot_empty_file = 0xFFFF;

uint16_t le16(const uint8_t *bytes) {
    return static_cast<uint16_t>(bytes[0] | bytes[1] << 8);
}

uint32_t le32(const uint8_t *bytes) {
    return le16(bytes) | static_cast<uint32_t>(le16(bytes + 2)) << 16;
}

template <typename T, T polynomial>
constexpr std::array<T, 256> make_crc_table() {
    constexpr unsigned top_bit = sizeof(T) * 8 - 1;
    std::array<T, 256> table{};
    for (unsigned i = 0; i < 256; ++i) {
        unsigned reg = i << (top_bit - 7);
        for (int bit = 0; bit < 8; ++bit) {
            reg = (reg << 1) ^ ((reg >> top_bit & 1) != 0 ? polynomial : 0U);
        }
        table[i] = static_cast<T>(reg);
    }
    return table;
}

constexpr auto crc8_table = make_crc_table<uint8_t, 0x07>();
constexpr auto crc16_table = make_crc_table<uint16_t, 0x1021>();

uint8_t header_crc(std::span<const uint8_t> data) {
    uint8_t crc = 1;
    for (const uint8_t byte : data) {
        crc = crc8_table[crc ^ byte];
    }
    return crc;
}

uint16_t crc16_step(uint16_t crc, uint8_t byte) {
    return static_cast<uint16_t>(crc << 8 ^ crc16_table[(crc >> 8 ^ byte) & 0xFF]);
}

// Links an entry of a log to the page number of the entry before it.
uint16_t link_of(uint16_t page) {
    uint16_t reg = 0x3FFF;
    reg = crc16_step(reg, static_cast<uint8_t>(page)) & 0x3FFF;
    return crc16_step(reg, static_cast<uint8_t>(page >> 8)) & 0x3FFF;
}

// Every page carries its own number in its checksum, so that one in the wrong place fails.
bool page_is_good(const uint8_t *record, uint32_t page) {
    uint16_t crc = 0xFFFF;
    for (uint32_t i = 0; i < page_size; ++i) {
        crc = crc16_step(crc, record[i]);
    }
    crc = crc16_step(crc, static_cast<uint8_t>(page));
    crc = crc16_step(crc, static_cast<uint8_t>(page >> 8));
    return crc == le16(record + page_size);
}

enum class HeaderState { invalid, pending, committed };

struct Header {
    HeaderState state = HeaderState::invalid;
    bool erase_count_known = false;
};

bool crc_matches_with(const uint8_t *header, uint32_t magic) {
    std::array<uint8_t, header_checked_size> copy{};
    std::copy_n(header, copy.size(), copy.begin());
    for (unsigned i = 0; i < 4; ++i) {
        copy[i] = static_cast<uint8_t>(magic >> (8 * i));
    }
    return header_crc(copy) == header[header_checked_size];
}

bool magic_and_crc_are_good(const uint8_t *header) {
    switch (le32(header)) {
    case magic_written:
        return crc_matches_with(header, magic_written);
    case magic_alternative:
        return crc_matches_with(header, magic_alternative) ||
               crc_matches_with(header, magic_written);
    case magic_partial:
        return crc_matches_with(header, magic_written);
    default:
        return false;
    }
}

Header judge_header(const uint8_t *header) {
    const uint32_t sequence = le32(header + 4);
    const uint32_t erase_count = le32(header + 8);
    if (sequence != 0 && erase_count != 0 && magic_and_crc_are_good(header)) {
        const bool pending = header[header_size - 1] == state_uncommitted;
        return {pending ? HeaderState::pending : HeaderState::committed, true};
    }
    const bool given_up = le32(header) == 0 && (crc_matches_with(header, magic_written) ||
                                                crc_matches_with(header, magic_alternative));
    return {HeaderState::invalid, given_up};
}

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
        replay_log();
        if (read_fs_header() && check_page_numbers()) {
            find_data_eus();
            read_allocation_table();
            read_files();
            count_data_slots();
            count_log_slots();
        }
        return std::move(image_);
    }

  private:
    void damage(std::string text) { image_.damages.push_back(std::move(text)); }

    const uint8_t *eu_bytes(uint32_t eu) const { return bytes_.data() + size_t{eu} * eu_size; }

    uint16_t log_entry(uint32_t eu, uint32_t index) const {
        return le16(eu_bytes(eu) + header_size + 2 * index);
    }

    const uint8_t *log_record(const AfsPagePlace &place) const {
        return eu_bytes(place.eu) + log_records_offset + place.slot * record_size;
    }

    bool count_eus() {
        const size_t count = bytes_.size() / eu_size;
        if (count == 0 || count > max_eu_count) {
            damage("the image has " + number(count) + " EUs; a store has 1 to 255");
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
            const uint8_t *header = eu_bytes(i);
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
            damage(number(invalid_.size()) + " EUs without a valid header and " +
                   number(pending_.size()) +
                   " with an uncommitted one; at most one of each can be");
            return;
        }
        if (pending_.empty()) {
            if (invalid_.empty()) {
                damage("no EU is the spare");
                return;
            }
            make_spare(invalid_.front());
            if (!newest_) {
                damage("no header is as new as a format leaves them");
            } else if (image_.eus[*newest_].next_spare != *image_.spare) {
                damage("the newest header names EU " + number(image_.eus[*newest_].next_spare) +
                       " as the spare, but EU " + number(*image_.spare) + " is");
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
        image_.sequence = eu.sequence;
        if (eu.next_spare != *image_.spare) {
            damage("the uncommitted header of EU " + number(target) + " names EU " +
                   number(eu.next_spare) + " as the spare, but EU " + number(*image_.spare) +
                   " is");
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

    // The log is the log EUs in the order of their headers, each read from its first slot on.
    void replay_log() {
        // Until the file system's header is known, any page of the device may be in the log.
        image_.pages.resize(bytes_.size() / page_size);
        std::vector<uint32_t> order;
        for (uint32_t i = 0; i < image_.eu_count; ++i) {
            if (image_.eus[i].role == AfsRole::log) {
                order.push_back(i);
            }
        }
        std::stable_sort(order.begin(), order.end(), [this](uint32_t a, uint32_t b) {
            return image_.eus[a].sequence < image_.eus[b].sequence;
        });
        for (const uint32_t eu : order) {
            if (log_entry(eu, 0) != entry_empty) {
                image_.head = eu;
                image_.head_slot = replay_eu(eu);
            }
        }
        if (!image_.head && !order.empty()) {
            image_.head = order.front();
        }
    }

    // Returns the first slot behind the log of this EU.
    uint32_t replay_eu(uint32_t eu) {
        uint16_t last = 0;
        uint32_t slot = 0;
        uint32_t end = 0;
        while (slot < log_slots) {
            const uint16_t next = log_entry(eu, slot + 1);
            if ((next & entry_uncommitted_bit) == 0) {
                if (end != slot) {
                    damage("EU " + number(eu) + ": entry " + number(slot) +
                           " stands behind the end of the log");
                }
                last = static_cast<uint16_t>(link_of(last) ^ log_entry(eu, slot));
                enter_page(last, eu, slot);
                end = ++slot;
                if (next == entry_commit_mark) {
                    return is_erased_behind(eu, slot) ? slot : log_slots;
                }
            } else if (log_entry(eu, slot) == entry_empty) {
                ++slot;
            } else {
                // The write of this slot was cut; the slot after it goes with it.
                slot = std::min(slot + 2, log_slots);
                end = slot;
            }
        }
        return end;
    }

    // Entries behind the mark, left by a cut run of them, would commit what is written before them;
    // such a log is full.
    bool is_erased_behind(uint32_t eu, uint32_t slot) const {
        for (uint32_t i = slot + 1; i <= log_slots; ++i) {
            if (log_entry(eu, i) != entry_empty) {
                return false;
            }
        }
        return true;
    }

    void enter_page(uint32_t page, uint32_t eu, uint32_t slot) {
        if (page >= image_.pages.size()) {
            damage("EU " + number(eu) + ": the entry of slot " + number(slot) +
                   " decodes to page " + number(page) + ", which the store does not have");
            return;
        }
        image_.pages[page] = AfsPagePlace{eu, slot};
    }

    // The bytes of a metadata page; a page without a copy reads as zeros.
    std::array<uint8_t, page_size> metadata_page(uint32_t page) {
        std::array<uint8_t, page_size> data{};
        if (const auto &place = image_.pages[page]) {
            const uint8_t *record = log_record(*place);
            if (!page_is_good(record, page)) {
                damage("metadata page " + number(page) + " in EU " + number(place->eu) + ", slot " +
                       number(place->slot) + " fails its checksum");
            }
            std::copy_n(record, page_size, data.begin());
        }
        return data;
    }

    bool read_fs_header() {
        const auto page = metadata_page(0);
        if (le32(page.data()) != fs_magic) {
            damage("no file-system header in page 0");
            return false;
        }
        image_.fs_version = le32(page.data() + 4);
        image_.total_va_size = le32(page.data() + 8);
        image_.file_count = le16(page.data() + 12);
        const uint64_t slots_end = 2 * uint64_t{image_.file_count} + fs_header_size;
        if (image_.file_count < min_file_count || image_.total_va_size < slots_end) {
            damage("the file-system header has " + number(image_.file_count) + " files in " +
                   number(image_.total_va_size) + " bytes, which cannot be");
            return false;
        }
        const uint64_t chunks = (image_.total_va_size - slots_end) / record_size;
        const uint64_t table_end = slots_end + 2 * chunks;
        const uint64_t data_start = (table_end + page_size - 1) / page_size * page_size;
        if (chunks > 0xFFFF || data_start > image_.total_va_size ||
            data_start / page_size > image_.pages.size()) {
            damage("the file-system header has " + number(image_.total_va_size) +
                   " bytes, which is no size for this device");
            return false;
        }
        image_.chunk_count = static_cast<uint32_t>(chunks);
        image_.data_va_start = static_cast<uint32_t>(data_start);
        image_.has_file_system = true;
        return true;
    }

    bool check_page_numbers() {
        const uint32_t page_count = image_.data_va_start / page_size;
        for (uint32_t page = page_count; page < image_.pages.size(); ++page) {
            if (image_.pages[page]) {
                damage("the log holds page " + number(page) + " of " + number(page_count));
                return false;
            }
        }
        image_.pages.resize(page_count);
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
                damage("EU " + number(i) + " starts at page " + number(eu.va_base) +
                       ", where no data EU starts");
            } else if (data_eus_[row]) {
                damage("EU " + number(*data_eus_[row]) + " and EU " + number(i) +
                       " hold the same pages");
            } else {
                data_eus_[row] = i;
            }
        }
        // A store that was formatted without data EUs has chunk numbers and no place for them.
        const bool any = std::any_of(data_eus_.begin(), data_eus_.end(),
                                     [](const auto &eu) { return eu.has_value(); });
        for (uint32_t row = 0; any && row < wanted; ++row) {
            if (!data_eus_[row]) {
                damage("no EU holds the chunks from " + number(row * data_slots) + " on");
            }
        }
    }

    void read_allocation_table() {
        table_.reserve(image_.data_va_start);
        for (uint32_t page = 0; page < image_.pages.size(); ++page) {
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
        const std::string name = "file " + number(file.number);
        while (is_chunk_id(id)) {
            const uint32_t chunk = id - image_.file_count;
            if (owners_[chunk]) {
                damage(name + ": chunk " + number(chunk) + " already belongs to file " +
                       number(*owners_[chunk]));
                return;
            }
            owners_[chunk] = file.number;
            file.chunks.push_back(chunk);
            id = table_entry(id);
            const uint32_t bytes = std::min(id, page_size);
            if (const uint8_t *data = chunk_data(chunk, name)) {
                file.contents.insert(file.contents.end(), data, data + bytes);
            }
        }
        if (id > page_size || file.chunks.empty()) {
            damage(name + ": its chain leads to " + number(id) + ", which is no chunk");
        }
    }

    // Checks the page of a chunk that belongs to a file.
    const uint8_t *chunk_data(uint32_t chunk, const std::string &name) {
        const auto &eu = data_eus_[chunk / data_slots];
        if (!eu) {
            damage(name + ": chunk " + number(chunk) + " lies in no EU");
            return nullptr;
        }
        const uint32_t slot = chunk % data_slots;
        if (eu_bytes(*eu)[header_size + slot] != status_complete) {
            damage(name + ": chunk " + number(chunk) + " was not written to its end");
        }
        const uint8_t *record = eu_bytes(*eu) + data_records_offset + slot * record_size;
        if (!page_is_good(record, image_.data_va_start / page_size + chunk)) {
            damage(name + ": chunk " + number(chunk) + " fails its checksum");
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
                const uint8_t status = eu_bytes(*data_eus_[row])[header_size + slot];
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
            const bool blank = log_entry(i, 0) == entry_empty;
            const uint32_t end = blank ? 0 : i == image_.head ? image_.head_slot : log_slots;
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

void check_sequences(const AfsImage &image, std::vector<std::string> &broken) {
    std::map<uint32_t, uint32_t> seen;
    for (uint32_t i = 0; i < image.eu_count; ++i) {
        const AfsEu &eu = image.eus[i];
        if (eu.role != AfsRole::log && eu.role != AfsRole::data) {
            continue;
        }
        const auto [other, is_new] = seen.emplace(eu.sequence, i);
        if (!is_new) {
            broken.push_back("EU " + number(other->second) + " and EU " + number(i) +
                             " have the same sequence " + number(eu.sequence));
        }
    }
}

// The log is only in order if its blank EUs come after all the written ones: a page that goes into
// a blank EU must count as newer than every copy before it.
void check_log_order(const AfsImage &image, std::vector<std::string> &broken) {
    if (!image.head || !image.has_file_system) {
        return;
    }
    const AfsEu &head = image.eus[*image.head];
    for (uint32_t i = 0; i < image.eu_count; ++i) {
        const AfsEu &eu = image.eus[i];
        if (eu.role == AfsRole::log && eu.free == log_slots && eu.sequence < head.sequence) {
            broken.push_back("blank log EU " + number(i) + " is older than the head of the log");
        }
    }
}

} // namespace

AfsImage read_afs_image(std::span<const uint8_t> bytes) {
    return Reader(bytes).run();
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
    std::vector<std::string> broken = image.damages;
    if (image.interruption == AfsInterruption::rolled_back &&
        image.eus[*image.spare].sequence != image.sequence + 1) {
        broken.push_back("the uncommitted header of EU " + number(*image.spare) +
                         " does not follow the newest one");
    }
    if (image.eu_count != 0 && !image.head) {
        broken.push_back("no EU holds the log");
    }
    check_sequences(image, broken);
    check_log_order(image, broken);
    return broken;
}

std::vector<std::string> check_invariants(std::span<const uint8_t> bytes) {
    return check_invariants(read_afs_image(bytes));
}

} // namespace dolm
