// One erase unit or page of an AFS image with its fields.
#include <array>

#include "host/errors.h"
#include "host/inspect.h"
#include "host/value_text.h"
#include "image/afs_records.h"

namespace dolm {

namespace {

using namespace afs;

std::string text(uint64_t value) {
    return std::to_string(value);
}

class Part {
  public:
    Part(std::span<const uint8_t> bytes, const AfsImage &image, std::string name, size_t at,
         size_t size)
        : bytes_(bytes), image_(image), part_{std::move(name), at, bytes.subspan(at, size), {}} {}

    InspectedPart take() { return std::move(part_); }

    void add_header(uint32_t eu) {
        const size_t at = header_at(eu);
        const Header judged = judge_header(bytes_.subspan(at, header_size));
        const bool is_valid = judged.state != HeaderState::invalid;
        add(at, 4, "magic",
            "0x" + hex_digits(get_le32(bytes_, at), 8) + (judged.given_up ? ", given up" : ""));
        add(at + 4, 4, "sequence", text(get_le32(bytes_, at + 4)));
        add(at + 8, 4, "erase_count", text(get_le32(bytes_, at + 8)));
        add(at + 12, 2, "next_spare", "EU " + text(get_le16(bytes_, at + 12)));
        const uint16_t va_base = get_le16(bytes_, at + 14);
        add(at + 14, 2, "va_base", va_base == 0 ? "0, a log EU" : "page " + text(va_base));
        add(at + 16, 1, "eu_crc",
            "0x" + hex_digits(bytes_[at + 16], 2) +
                (is_valid || judged.given_up ? ", good" : ", not good"));
        add(at + state_offset, 1, "eu_state",
            "0x" + hex_digits(bytes_[at + state_offset], 2) +
                (bytes_[at + state_offset] == state_uncommitted ? ", not committed"
                                                                : ", committed"));
    }

    void add_log(uint32_t eu) {
        const AfsEu &unit = image_.eus[eu];
        for (uint32_t i = 0; i <= log_slots; ++i) {
            const uint16_t entry = get_le16(bytes_, log_entry_at(eu, i));
            if (entry != entry_empty) {
                add(log_entry_at(eu, i), 2, "E[" + text(i) + "]", entry_text(unit, i, entry));
            }
        }
        for (uint32_t slot = 0; slot < log_slots && slot < unit.pages.size(); ++slot) {
            if (const auto page = unit.pages[slot]) {
                add_slot(log_record_at(eu, slot), slot, *page, is_live(unit, slot));
            }
        }
    }

    void add_data(uint32_t eu) {
        const AfsEu &unit = image_.eus[eu];
        for (uint32_t slot = 0; slot < data_slots; ++slot) {
            const uint8_t status = bytes_[status_at(eu, slot)];
            if (status != status_free) {
                add(status_at(eu, slot), 1, "status[" + text(slot) + "]", status_text(status));
            }
        }
        for (uint32_t slot = 0; slot < data_slots; ++slot) {
            if (bytes_[status_at(eu, slot)] != status_free) {
                add_slot(data_record_at(eu, slot), slot, unit.va_base + slot, is_live(unit, slot));
            }
        }
    }

    void add_page(size_t at, uint32_t page) {
        if (page == 0) {
            add(at, 4, "magic", "0x" + hex_digits(get_le32(bytes_, at), 8));
            add(at + 4, 4, "fs_version", "0x" + hex_digits(get_le32(bytes_, at + 4), 8));
            add(at + 8, 4, "total_va_size", text(get_le32(bytes_, at + 8)));
            add(at + 12, 2, "file_count", text(get_le16(bytes_, at + 12)));
        }
        if (page < image_.data_va_start / page_size) {
            add_fat(at, page);
        } else {
            add(at, page_size, "data", "chunk " + text(page - image_.data_va_start / page_size));
        }
        add(at + page_size, 2, "crc16", checksum_text(at, page));
    }

    void add(size_t at, size_t size, std::string name, std::string value) {
        part_.fields.push_back({at, size, std::move(name), std::move(value)});
    }

  private:
    static bool is_live(const AfsEu &unit, uint32_t slot) {
        return slot < unit.slots.size() && unit.slots[slot] == AfsSlot::live;
    }

    static std::string entry_text(const AfsEu &unit, uint32_t index, uint16_t entry) {
        const std::string word = "0x" + hex_digits(entry, 4);
        if (index < unit.pages.size() && unit.pages[index]) {
            return word + ", page " + text(*unit.pages[index]);
        }
        return word + (entry == entry_commit_mark ? ", commit mark" : ", no page counts");
    }

    static std::string status_text(uint8_t status) {
        return "0x" + hex_digits(status, 2) +
               (status == status_complete  ? ", complete"
                : status == status_writing ? ", being written"
                                           : ", torn");
    }

    std::string checksum_text(size_t at, uint32_t page) const {
        return "0x" + hex_digits(get_le16(bytes_, at + page_size), 4) +
               (page_is_good(page_record(bytes_, at), page) ? ", good" : ", not good");
    }

    void add_slot(size_t at, uint32_t slot, uint32_t page, bool is_live) {
        add(at, record_size, "slot " + text(slot),
            "page " + text(page) + (is_live ? ", live, " : ", dead, ") + checksum_text(at, page));
    }

    // The entries of the FAT in the page that are not 0.
    void add_fat(size_t at, uint32_t page) {
        const uint32_t cids = image_.file_count + image_.chunk_count;
        const uint32_t skipped = page == 0 ? fs_header_size : 0;
        for (uint32_t i = skipped; i < page_size; i += 2) {
            const uint32_t cid = (page * page_size + i - fs_header_size) / 2;
            const uint16_t entry = get_le16(bytes_, at + i);
            if (cid < cids && entry != 0) {
                const bool is_file = cid < image_.file_count;
                add(at + i, 2,
                    is_file ? "file " + text(cid) : "chunk " + text(cid - image_.file_count),
                    fat_text(entry, is_file));
            }
        }
    }

    std::string fat_text(uint16_t entry, bool is_file) const {
        if (entry >= image_.file_count && entry < image_.file_count + image_.chunk_count) {
            return "chunk " + text(entry - image_.file_count);
        }
        if (is_file && entry >= slot_zombie) {
            return entry == slot_zombie ? "zombie" : "empty";
        }
        return !is_file && entry <= page_size ? "last, " + text(entry) + " bytes"
                                              : "0x" + hex_digits(entry, 4) + ", invalid";
    }

    std::span<const uint8_t> bytes_;
    const AfsImage &image_;
    InspectedPart part_;
};

[[noreturn]] void refuse(const std::string &what, uint32_t number, uint32_t count) {
    throw UsageError("there is no " + what + " " + text(number) + "; the image has " +
                     (count == 0 ? "none" : "0 to " + text(count - 1)));
}

} // namespace

InspectedPart afs_unit(std::span<const uint8_t> bytes, const AfsImage &image, uint32_t unit) {
    if (unit >= image.eu_count) {
        refuse("EU", unit, image.eu_count);
    }
    Part part(bytes, image, "EU " + text(unit), header_at(unit), eu_size);
    part.add_header(unit);
    if (image.eus[unit].role == AfsRole::data) {
        part.add_data(unit);
    } else if (image.eus[unit].role == AfsRole::log) {
        part.add_log(unit);
    }
    return part.take();
}

InspectedPart afs_page(std::span<const uint8_t> bytes, const AfsImage &image, uint32_t page) {
    const uint32_t count = image.total_va_size / page_size;
    if (!image.has_file_system || page >= count) {
        refuse("page", page, image.has_file_system ? count : 0);
    }
    const auto show = [&](uint32_t eu, uint32_t slot, size_t at) {
        Part part(bytes, image,
                  "page " + text(page) + " in EU " + text(eu) + ", slot " + text(slot), at,
                  record_size);
        part.add_page(at, page);
        return part.take();
    };
    if (page < image.pages.size()) {
        if (const auto &place = image.pages[page]) {
            return show(place->eu, place->slot, log_record_at(place->eu, place->slot));
        }
        throw UsageError("page " + text(page) + " has no copy: it reads as zeros");
    }
    for (uint32_t eu = 0; eu < image.eu_count; ++eu) {
        const AfsEu &unit = image.eus[eu];
        if (unit.role == AfsRole::data && page >= unit.va_base &&
            page < unit.va_base + data_slots) {
            return show(eu, page - unit.va_base, data_record_at(eu, page - unit.va_base));
        }
    }
    throw UsageError("page " + text(page) + " lies in no EU");
}

} // namespace dolm
