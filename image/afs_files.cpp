#include "image/afs_reader.h"

#include <algorithm>
#include <array>

#include "image/afs_records.h"

namespace dolm::afs {

namespace {

// The bytes of a metadata page; a page without a copy reads as zeros.
std::array<uint8_t, page_size> metadata_page(std::span<const uint8_t> bytes, AfsImage &image,
                                             uint32_t page) {
    std::array<uint8_t, page_size> data{};
    if (const auto &place = image.pages[page]) {
        const PageRecord record = page_record(bytes, log_record_at(place->eu, place->slot));
        if (!page_is_good(record, page)) {
            image.damages.push_back({.rule = AfsDamage::Rule::page,
                                     .text = "metadata page " + std::to_string(page) + " in EU " +
                                             std::to_string(place->eu) + ", slot " +
                                             std::to_string(place->slot) + " fails its checksum",
                                     .eu = place->eu,
                                     .slot = place->slot,
                                     .page = page});
        }
        std::copy_n(record.begin(), page_size, data.begin());
    }
    return data;
}

void damage_header(AfsImage &image, std::string text) {
    AfsDamage found{AfsDamage::Rule::file_system, std::move(text)};
    if (const auto &place = image.pages[0]) {
        found.eu = place->eu;
        found.slot = place->slot;
    }
    image.damages.push_back(std::move(found));
}

bool judge_fs_header(std::span<const uint8_t, page_size> page, AfsImage &image) {
    if (get_le32(page, 0) != fs_magic) {
        damage_header(image, "no file-system header in page 0");
        return false;
    }
    image.fs_version = get_le32(page, 4);
    image.total_va_size = get_le32(page, 8);
    image.file_count = get_le16(page, 12);
    const uint64_t slots_end = 2 * uint64_t{image.file_count} + fs_header_size;
    if (image.file_count < min_file_count || image.total_va_size < slots_end) {
        damage_header(image, "the file-system header has " + std::to_string(image.file_count) +
                                 " files in " + std::to_string(image.total_va_size) +
                                 " bytes, which cannot be");
        return false;
    }
    const uint64_t chunks = (image.total_va_size - slots_end) / record_size;
    const uint64_t table_end = slots_end + 2 * chunks;
    const uint64_t data_start = (table_end + page_size - 1) / page_size * page_size;
    if (chunks > 0xFFFF || data_start > image.total_va_size ||
        data_start / page_size > image.pages.size()) {
        damage_header(image, "the file-system header has " + std::to_string(image.total_va_size) +
                                 " bytes, which is no size for this device");
        return false;
    }
    image.chunk_count = static_cast<uint32_t>(chunks);
    image.data_va_start = static_cast<uint32_t>(data_start);
    return true;
}

class Files {
  public:
    Files(std::span<const uint8_t> bytes, AfsImage &image, std::vector<uint8_t> header_page)
        : bytes_(bytes), image_(image), table_(std::move(header_page)) {}

    DataArea read() {
        find_data_eus();
        read_allocation_table();
        read_files();
        return std::move(area_);
    }

  private:
    using Rule = AfsDamage::Rule;

    void damage(AfsDamage damage) { image_.damages.push_back(std::move(damage)); }

    void find_data_eus() {
        const uint32_t first_page = image_.data_va_start / page_size;
        const uint32_t wanted = (image_.chunk_count + data_slots - 1) / data_slots;
        area_.eus.resize(wanted);
        for (uint32_t i = 0; i < image_.eu_count; ++i) {
            const AfsEu &eu = image_.eus[i];
            if (eu.role != AfsRole::data) {
                continue;
            }
            const uint32_t row = (eu.va_base - first_page) / data_slots;
            if (eu.va_base < first_page || (eu.va_base - first_page) % data_slots != 0 ||
                row >= wanted) {
                damage({.rule = Rule::data_eu,
                        .text = "EU " + std::to_string(i) + " starts at page " +
                                std::to_string(eu.va_base) + ", where no data EU starts",
                        .eu = i});
            } else if (area_.eus[row]) {
                damage({.rule = Rule::data_eu,
                        .text = "EU " + std::to_string(*area_.eus[row]) + " and EU " +
                                std::to_string(i) + " hold the same pages",
                        .eu = i});
            } else {
                area_.eus[row] = i;
            }
        }
        // A store that was formatted without data EUs has chunk numbers and no place for them.
        const bool any = std::any_of(area_.eus.begin(), area_.eus.end(),
                                     [](const auto &eu) { return eu.has_value(); });
        for (uint32_t row = 0; any && row < wanted; ++row) {
            if (!area_.eus[row]) {
                damage({.rule = Rule::data_eu,
                        .text = "no EU holds the chunks from " + std::to_string(row * data_slots) +
                                " on",
                        .chunk = row * data_slots});
            }
        }
    }

    void read_allocation_table() {
        table_.reserve(image_.data_va_start);
        for (uint32_t page = 1; page < image_.pages.size(); ++page) {
            const auto data = metadata_page(bytes_, image_, page);
            table_.insert(table_.end(), data.begin(), data.end());
        }
        area_.owners.resize(image_.chunk_count);
    }

    uint16_t table_entry(uint32_t id) const { return get_le16(table_, fs_header_size + 2 * id); }

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
            if (area_.owners[chunk]) {
                damage_chain(file, from,
                             "chunk " + std::to_string(chunk) + " already belongs to file " +
                                 std::to_string(*area_.owners[chunk]));
                return;
            }
            area_.owners[chunk] = file.number;
            file.chunks.push_back(chunk);
            from = id;
            id = table_entry(id);
            const uint32_t bytes = std::min(id, page_size);
            if (const auto data = chunk_data(file, chunk)) {
                file.contents.insert(file.contents.end(), data->begin(), data->begin() + bytes);
            }
        }
        if (id > page_size || file.chunks.empty()) {
            damage_chain(file, from,
                         "its chain leads to " + std::to_string(id) + ", which is no chunk");
        }
    }

    void damage_chain(const AfsFile &file, uint32_t from, const std::string &text) {
        damage({.rule = Rule::chain,
                .text = "file " + std::to_string(file.number) + ": " + text,
                .page = (fs_header_size + 2 * from) / page_size,
                .file = file.number});
    }

    // Checks the page of a chunk that belongs to a file.
    std::optional<PageRecord> chunk_data(const AfsFile &file, uint32_t chunk) {
        const auto &eu = area_.eus[chunk / data_slots];
        const uint32_t slot = chunk % data_slots;
        const auto damage_chunk = [&](const char *text) {
            damage({.rule = Rule::chunk,
                    .text = "file " + std::to_string(file.number) + ": chunk " +
                            std::to_string(chunk) + text,
                    .eu = eu,
                    .slot = slot,
                    .file = file.number,
                    .chunk = chunk});
        };
        if (!eu) {
            damage_chunk(" lies in no EU");
            return std::nullopt;
        }
        if (bytes_[status_at(*eu, slot)] != status_complete) {
            damage_chunk(" was not written to its end");
        }
        const PageRecord record = page_record(bytes_, data_record_at(*eu, slot));
        if (!page_is_good(record, image_.data_va_start / page_size + chunk)) {
            damage_chunk(" fails its checksum");
        }
        return record;
    }

    std::span<const uint8_t> bytes_;
    AfsImage &image_;
    std::vector<uint8_t> table_; // all metadata bytes
    DataArea area_;
};

} // namespace

std::vector<uint8_t> read_fs_header(std::span<const uint8_t> bytes, AfsImage &image) {
    const auto page = metadata_page(bytes, image, 0);
    image.has_file_system = judge_fs_header(page, image);
    return {page.begin(), page.end()};
}

DataArea read_files(std::span<const uint8_t> bytes, AfsImage &image,
                    std::vector<uint8_t> header_page) {
    return Files(bytes, image, std::move(header_page)).read();
}

} // namespace dolm::afs
