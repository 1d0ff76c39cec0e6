#include "image/efs_image.h"

#include <algorithm>

#include "image/efs_records.h"

namespace dolm {
namespace {

using namespace efs;

class Reader {
  public:
    Reader(std::span<const uint8_t> bytes, const EfsLayout &layout)
        : bytes_(bytes), layout_(layout) {}

    EfsImage read() {
        for (uint32_t i = 0; i < layout_.bm_num; ++i) {
            read_bm(i);
        }
        if (find_mapping()) {
            read_blocks();
            for (const EfsPlace &place : layout_.files) {
                image_.files.push_back(read_file(place));
            }
        }
        return std::move(image_);
    }

  private:
    std::span<const uint8_t> bm(uint32_t index) const {
        return bytes_.subspan(index * block_size, block_size);
    }
    std::span<const uint8_t> block(uint32_t number) const { return bm(layout_.bm_num + number); }
    uint32_t entry_size() const { return layout_.data_blocks() + entry_words_size; }

    std::span<const uint8_t> entry(uint32_t bm_index, uint32_t slot) const {
        return bm(bm_index).subspan(header_size + slot * entry_size(), entry_size());
    }

    using Rule = EfsDamage::Rule;

    void damage(EfsDamage damage) { image_.damages.push_back(std::move(damage)); }

    void read_bm(uint32_t index) {
        const std::span<const uint8_t> header = bm(index).first(header_size);
        EfsBm found;
        if (all(header, 0xFF)) {
            found.state = EfsBmState::erased;
        } else if (all(header, 0)) {
            found.state = EfsBmState::retired;
        } else if (is_sealed(header)) {
            found.state = EfsBmState::good;
            found.sequence = get_le32(header, 4);
            found.layout_id = header[11];
            if (header[8] != layout_.bm_num || header[9] != layout_.valid_blocks ||
                header[10] != layout_.spare_blocks || header[11] != layout_.layout_id) {
                damage({.rule = Rule::geometry,
                        .text = "BM " + std::to_string(index) + " belongs to another geometry",
                        .bm = index});
            }
        }
        while (found.entries < entries_in_bm(layout_.data_blocks()) &&
               !all(entry(index, found.entries), 0xFF)) {
            ++found.entries;
        }
        image_.bms.push_back(found);
    }

    bool find_mapping() {
        uint32_t best = 0;
        for (uint32_t i = 0; i < layout_.bm_num; ++i) {
            const EfsBm &candidate = image_.bms[i];
            if (candidate.state == EfsBmState::good && candidate.sequence > best) {
                best = candidate.sequence;
                image_.bm_in_force = i;
            }
        }
        if (!image_.bm_in_force || !image_.damages.empty()) {
            damage({Rule::mapping, "no BM can be mounted"});
            return false;
        }
        const uint32_t index = *image_.bm_in_force;
        uint32_t slots = image_.bms[index].entries;
        if (slots > 0 && !is_sealed(entry(index, slots - 1))) {
            image_.torn_entry = true;
            --slots;
        }
        if (slots == 0 || !is_sealed(entry(index, slots - 1))) {
            damage({.rule = Rule::mapping,
                    .text = "BM " + std::to_string(index) + " has no good entry at its end",
                    .bm = index,
                    .entry = slots == 0 ? 0 : slots - 1});
            return false;
        }
        image_.entry_in_force = slots - 1;
        check_rest_of_bm(index);
        return read_maps(entry(index, slots - 1));
    }

    void check_rest_of_bm(uint32_t index) {
        const uint32_t used = header_size + image_.bms[index].entries * entry_size();
        if (!all(bm(index).subspan(used), 0xFF)) {
            damage({.rule = Rule::erased,
                    .text = "BM " + std::to_string(index) + " is not erased behind its entries",
                    .bm = index,
                    .entry = image_.bms[index].entries});
        }
    }

    bool read_maps(std::span<const uint8_t> maps) {
        std::vector<bool> seen(layout_.data_blocks());
        image_.blocks.resize(layout_.data_blocks());
        for (uint32_t i = 0; i < layout_.data_blocks(); ++i) {
            const uint32_t number = maps[i];
            if (number >= layout_.data_blocks() || seen[number]) {
                damage({.rule = Rule::entry,
                        .text = "the maps name block " + std::to_string(number) + " wrongly",
                        .bm = image_.bm_in_force,
                        .entry = image_.entry_in_force});
                return false;
            }
            seen[number] = true;
            (i < layout_.valid_blocks ? image_.valid_map : image_.spare_map).push_back(number);
        }
        return true;
    }

    void read_blocks() {
        for (uint32_t i = 0; i < layout_.valid_blocks; ++i) {
            EfsBlock &found = read_block(image_.valid_map[i], i);
            const std::span<const uint8_t> bytes = block(image_.valid_map[i]);
            found.footer_good = is_sealed(bytes.subspan(data_offset));
            if (found.state == EfsBlockState::no_header || !found.footer_good) {
                damage({.rule = Rule::block,
                        .text = "logical block " + std::to_string(i) + " is damaged",
                        .block = image_.valid_map[i],
                        .logical = i});
            }
            found.state = EfsBlockState::live;
        }
        uint32_t without_header = 0;
        for (uint32_t slot = 0; slot < layout_.spare_blocks; ++slot) {
            const EfsBlock &found = read_block(image_.spare_map[slot], slot);
            without_header += found.state == EfsBlockState::no_header ? 1 : 0;
        }
        if (without_header > 1) {
            damage({Rule::block, std::to_string(without_header) + " spares are without a header"});
        }
    }

    EfsBlock &read_block(uint32_t number, uint32_t index) {
        const std::span<const uint8_t> bytes = block(number);
        EfsBlock &found = image_.blocks[number];
        found.index = index;
        if (is_sealed(bytes.first(header_size))) {
            found.erase_count = get_le32(bytes, 0);
            const bool erased = all(bytes.subspan(data_offset), 0xFF);
            found.state = erased ? EfsBlockState::free : EfsBlockState::dirty;
        }
        return found;
    }

    // The payload of a record, empty if it fails its checksum.
    std::optional<std::span<const uint8_t>> read_record(uint32_t logical, uint32_t offset,
                                                        uint32_t payload) {
        if (logical >= layout_.valid_blocks || offset + payload > record_room) {
            return std::nullopt;
        }
        const std::span<const uint8_t> record =
            block(image_.valid_map[logical]).subspan(data_offset + offset);
        if (!record_is_good(record, logical, payload)) {
            return std::nullopt;
        }
        return record.subspan(record_head_size, payload);
    }

    EfsFile read_file(const EfsPlace &place) {
        EfsFile file;
        file.place = place;
        if (place.block >= layout_.valid_blocks || place.offset > record_room) {
            return file;
        }
        const std::span<const uint8_t> first =
            block(image_.valid_map[place.block]).subspan(data_offset + place.offset);
        const uint32_t size = get_le16(first, 0);
        const uint32_t length = size == no_file ? 0 : size;
        uint32_t offset = place.offset;
        for (uint32_t logical = place.block;
             logical == place.block || file.contents.size() < length; ++logical) {
            const auto left = length - static_cast<uint32_t>(file.contents.size());
            const auto part = read_record(logical, offset, std::min(left, record_room - offset));
            if (!part) {
                damage_file(place, logical < layout_.valid_blocks ? Rule::record : Rule::place,
                            " is damaged", logical);
                return file;
            }
            file.contents.insert(file.contents.end(), part->begin(), part->end());
            offset = 0;
        }
        file.kind = size == no_file ? EfsFile::Kind::absent : EfsFile::Kind::contents;
        if (length > place.max_size) {
            damage_file(place, Rule::limit, " is longer than it may be", place.block);
            file.kind = EfsFile::Kind::damaged;
        }
        return file;
    }

    void damage_file(const EfsPlace &place, Rule rule, const char *text, uint32_t logical) {
        damage({.rule = rule,
                .text = "file " + std::to_string(place.number) + text,
                .logical = logical,
                .file = place.number});
    }

    std::span<const uint8_t> bytes_;
    const EfsLayout &layout_;
    EfsImage image_;
};

} // namespace

EfsImage read_efs_image(std::span<const uint8_t> bytes, const EfsLayout &layout) {
    if (bytes.size() < layout.image_size()) {
        EfsImage image;
        image.damages.push_back({EfsDamage::Rule::size, "the image is shorter than its layout"});
        return image;
    }
    return Reader(bytes, layout).read();
}

std::vector<std::string> efs_damages(const EfsImage &image) {
    std::vector<std::string> texts;
    for (const EfsDamage &damage : image.damages) {
        texts.push_back(damage.text);
    }
    return texts;
}

} // namespace dolm
