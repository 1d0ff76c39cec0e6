// One block of an EFS image with its fields.
#include "host/errors.h"
#include "host/inspect.h"
#include "image/efs_records.h"

namespace dolm {

namespace {

using namespace efs;

std::string text(uint64_t value) {
    return std::to_string(value);
}

const char *seal_text(std::span<const uint8_t> bytes) {
    return is_sealed(bytes) ? "good" : "not good";
}

void add(InspectedPart &part, size_t offset, size_t size, std::string name, std::string value) {
    part.fields.push_back({part.at + offset, size, std::move(name), std::move(value)});
}

std::string list(std::span<const uint8_t> numbers) {
    std::string words;
    for (const uint8_t number : numbers) {
        words += (words.empty() ? "" : " ") + text(number);
    }
    return words;
}

void add_block_map(InspectedPart &part, const EfsLayout &layout) {
    add(part, 0, 2, "bm_version", text(get_le16(part.bytes, 0)));
    add(part, 2, 2, "sku_id", text(get_le16(part.bytes, 2)));
    add(part, 4, 4, "sequence", text(get_le32(part.bytes, 4)));
    add(part, 8, 1, "bm_num", text(part.bytes[8]));
    add(part, 9, 1, "valid_block_num", text(part.bytes[9]));
    add(part, 10, 1, "non_valid_block_num", text(part.bytes[10]));
    add(part, 11, 1, "layout_id", text(part.bytes[11]));
    add(part, 12, 4, "crc32", seal_text(part.bytes.first(header_size)));
    const uint32_t entry_size = layout.data_blocks() + entry_words_size;
    for (uint32_t at = header_size; at + entry_size <= entry_limit; at += entry_size) {
        const auto entry = part.bytes.subspan(at, entry_size);
        if (!all(entry, 0xFF)) {
            add(part, at, entry_size, "entry " + text((at - header_size) / entry_size),
                "valid " + list(entry.first(layout.valid_blocks)) + ", spare " +
                    list(entry.subspan(layout.valid_blocks, layout.spare_blocks)) + ", checksum " +
                    seal_text(entry));
        }
    }
}

// The files whose first record lies in the block, if it stands behind a logical one.
void add_data_block(InspectedPart &part, const EfsLayout &layout, std::optional<uint32_t> logical) {
    add(part, 0, 4, "erase_count", text(get_le32(part.bytes, 0)));
    add(part, 12, 4, "crc32", seal_text(part.bytes.first(header_size)));
    for (const EfsPlace &place : layout.files) {
        if (place.block != logical || place.offset > record_room) {
            continue;
        }
        const auto record = part.bytes.subspan(data_offset + place.offset);
        const uint32_t size = get_le16(record, 0);
        const uint32_t payload = size == no_file ? 0 : std::min(size, record_room - place.offset);
        add(part, data_offset + place.offset, record_head_size + payload,
            "file " + text(place.number),
            (size == no_file ? "absent" : text(size) + " bytes") + ", checksum " +
                (record_is_good(record, *logical, payload) ? "good" : "not good"));
    }
    add(part, footer_offset, 4, "footer", seal_text(part.bytes.subspan(data_offset)));
}

InspectedPart part_of(std::span<const uint8_t> bytes, std::string name, uint32_t unit) {
    const size_t at = size_t{unit} * block_size;
    return {std::move(name), at, bytes.subspan(at, block_size), {}};
}

void require_below(const std::string &what, uint32_t number, uint32_t count) {
    if (number >= count) {
        throw UsageError("there is no " + what + " " + text(number) + "; the image has 0 to " +
                         text(count - 1));
    }
}

} // namespace

InspectedPart efs_block(std::span<const uint8_t> bytes, const EfsLayout &layout, uint32_t block) {
    require_below("block", block, layout.data_blocks());
    const EfsImage image = read_efs_image(bytes, layout);
    std::optional<uint32_t> logical;
    if (block < image.blocks.size() && image.blocks[block].state == EfsBlockState::live) {
        logical = image.blocks[block].index;
    }
    InspectedPart part =
        part_of(bytes, "block " + text(block) + (logical ? ", logical " + text(*logical) : ""),
                layout.bm_num + block);
    add_data_block(part, layout, logical);
    return part;
}

InspectedPart efs_unit(std::span<const uint8_t> bytes, const EfsLayout &layout, uint32_t unit) {
    require_below("unit", unit, layout.bm_num + layout.data_blocks());
    if (unit >= layout.bm_num) {
        return efs_block(bytes, layout, unit - layout.bm_num);
    }
    InspectedPart part = part_of(bytes, "BM " + text(unit), unit);
    add_block_map(part, layout);
    return part;
}

} // namespace dolm
