#include "image/efs_survey.h"

#include <algorithm>
#include <bit>

#include "image/efs_records.h"

namespace dolm {

namespace {

using namespace efs;

class Survey {
  public:
    Survey(std::span<const uint8_t> bytes, const EfsLayout &layout, const EfsImage &image)
        : bytes_(bytes), layout_(layout), image_(image) {}

    std::vector<EfsTrace> run() {
        for (uint32_t bm = 0; bm < image_.bms.size(); ++bm) {
            look_at_bm(bm);
        }
        for (uint32_t number = 0; number < image_.blocks.size(); ++number) {
            look_at_block(number);
        }
        if (bytes_.size() > layout_.image_size() &&
            !all(bytes_.subspan(layout_.image_size()), 0xFF)) {
            tell(Kind::rot, layout_.image_size(), "end of the image",
                 std::to_string(bytes_.size() - layout_.image_size()) +
                     " bytes behind the last block, which nothing uses");
        }
        return std::move(found_);
    }

  private:
    using Kind = EfsTrace::Kind;

    void tell(Kind kind, size_t at, std::string what, std::string text) {
        found_.push_back({kind, at, std::move(what), std::move(text)});
    }

    uint32_t entry_size() const { return layout_.data_blocks() + entry_words_size; }
    size_t entry_at(uint32_t bm, uint32_t entry) const {
        return size_t{bm} * block_size + header_size + size_t{entry} * entry_size();
    }
    std::span<const uint8_t> entry(uint32_t bm, uint32_t slot) const {
        return bytes_.subspan(entry_at(bm, slot), entry_size());
    }

    size_t first_written(size_t begin, size_t end) const {
        const auto range = bytes_.subspan(begin, end - begin);
        const auto found =
            std::find_if(range.begin(), range.end(), [](uint8_t byte) { return byte != 0xFF; });
        return begin + static_cast<size_t>(found - range.begin());
    }

    void look_at_bm(uint32_t index) {
        const EfsBm &bm = image_.bms[index];
        const std::string name = "BM " + std::to_string(index);
        const size_t at = size_t{index} * block_size;
        if (index == image_.bm_in_force) {
            look_at_entries(index);
        } else if (bm.state == EfsBmState::broken) {
            tell(Kind::interrupted, at, name + ", header",
                 "the header does not count: the BM was being written or erased");
        } else if (bm.state == EfsBmState::erased && bm.entries != 0) {
            tell(Kind::interrupted, entry_at(index, 0), name + ", entry 0",
                 "a map in a BM without a header never came into force");
        } else if (bm.state == EfsBmState::erased && !all(bytes_.subspan(at, block_size), 0xFF)) {
            tell(Kind::interrupted, first_written(at, at + block_size), name,
                 "the BM is erased but for some bytes; it is erased again before it is used");
        }
    }

    void look_at_entries(uint32_t bm) {
        const std::string name = "BM " + std::to_string(bm) + ", entry ";
        for (uint32_t slot = 0; slot < image_.entry_in_force; ++slot) {
            if (!is_sealed(entry(bm, slot))) {
                tell(Kind::rot, entry_at(bm, slot), name + std::to_string(slot),
                     "an old map, which is no longer in force, fails its checksum");
            }
        }
        if (image_.torn_entry) {
            const uint32_t slot = image_.entry_in_force + 1;
            const bool is_whole = !is_torn(entry(bm, slot));
            tell(is_whole ? Kind::lost_map : Kind::interrupted, entry_at(bm, slot),
                 name + std::to_string(slot),
                 is_whole ? "the newest map is damaged: the change that it stands for is lost, and "
                            "the map before it counts"
                          : "the write of a map was cut, and the map before it counts");
        }
    }

    // Whether an entry that fails its checksum never was whole: one end of it is still erased, or
    // bits all over it. A single wrong byte elsewhere, or a single wrong bit, says that it was.
    bool is_torn(std::span<const uint8_t> entry) const {
        if (const auto wrong = wrong_byte(entry)) {
            const bool is_end = wrong->at == 0 || wrong->at == entry.size() - 1;
            const bool is_unwritten = (entry[wrong->at] & wrong->bits) == wrong->bits;
            return is_end && is_unwritten && std::popcount(wrong->bits) > 1;
        }
        const auto maps = entry.first(layout_.data_blocks());
        const auto impossible = std::count_if(maps.begin(), maps.end(), [&](uint8_t number) {
            return number >= layout_.data_blocks();
        });
        return entry.front() == 0xFF || entry.back() == 0xFF ||
               static_cast<size_t>(impossible) * 2 >= maps.size();
    }

    void look_at_block(uint32_t number) {
        const EfsBlock &block = image_.blocks[number];
        const size_t at = size_t{layout_.bm_num + number} * block_size;
        const auto bytes = bytes_.subspan(at, block_size);
        const std::string name = "block " + std::to_string(number);
        const bool is_live = block.state == EfsBlockState::live;
        if (all(bytes.first(header_size), 0)) {
            tell(Kind::zeros, at, name + ", header",
                 "a header of zeros is never written, although its checksum matches");
        } else if (is_live && all(bytes.subspan(data_offset), 0)) {
            tell(Kind::zeros, at + data_offset, name + ", data area",
                 "a data area of zeros is never written, although its checksum matches");
        } else if (block.state == EfsBlockState::no_header) {
            tell(Kind::interrupted, at, name + ", header",
                 "a spare block has no good header; the next change erases it");
        } else if (block.state == EfsBlockState::dirty && !is_sealed(bytes.subspan(data_offset))) {
            tell(Kind::interrupted, at + data_offset, name + ", data area",
                 "a spare block holds a write that was cut; it is erased before it is used");
        }
    }

    std::span<const uint8_t> bytes_;
    const EfsLayout &layout_;
    const EfsImage &image_;
    std::vector<EfsTrace> found_;
};

} // namespace

std::vector<EfsTrace> survey_efs_image(std::span<const uint8_t> bytes, const EfsLayout &layout,
                                       const EfsImage &image) {
    return Survey(bytes, layout, image).run();
}

std::optional<EfsOwnGeometry> own_geometry(std::span<const uint8_t> bytes) {
    std::optional<EfsOwnGeometry> best;
    uint32_t best_sequence = 0;
    for (size_t at = 0; at + block_size <= bytes.size(); at += block_size) {
        const auto header = bytes.subspan(at, header_size);
        const uint32_t sequence = get_le32(header, 4);
        const EfsLayout layout{header[8], header[9], header[10], header[11], {}};
        if (!all(header, 0) && is_sealed(header) && layout.bm_num > at / block_size &&
            layout.data_blocks() >= 2 && sequence > best_sequence) {
            best = {layout, get_le16(header, 2), at};
            best_sequence = sequence;
        }
    }
    return best;
}

bool is_good_record(std::span<const uint8_t> bytes, const EfsLayout &layout, const EfsImage &image,
                    const EfsPlace &place) {
    if (place.block >= image.valid_map.size() || place.offset > record_room) {
        return false;
    }
    const size_t block = size_t{layout.bm_num + image.valid_map[place.block]} * block_size;
    const auto record = bytes.subspan(block + data_offset + place.offset, data_size - place.offset);
    const uint32_t size = get_le16(record, 0);
    if (size != no_file && size > place.max_size) {
        return false;
    }
    const uint32_t payload = size == no_file ? 0 : std::min(size, record_room - place.offset);
    return record_is_good(record, place.block, payload);
}

} // namespace dolm
