// The data blocks, and the files that lie in one that is damaged.
#include <algorithm>

#include "host/check/efs_check.h"
#include "image/efs_records.h"

namespace dolm {

// Each live block once: the header, or the place in its data area that a file's record tells.
void EfsCheck::tell_blocks() {
    for (const EfsTrace &trace : traces_) {
        if (trace.kind == EfsTrace::Kind::zeros) {
            Finding &cause = error(at_offset(trace.at, trace.what), trace.text,
                                   "block " + std::to_string(block_of(trace.at)));
            follow_with_files(cause, logical_of(block_of(trace.at)));
        }
    }
    for (const EfsDamage &damage : view_.efs.damages) {
        if (damage.rule == Rule::block && damage.block) {
            tell_block(*damage.block, *damage.logical);
        } else if (damage.rule == Rule::block) {
            tell_spares(damage.text);
        }
    }
}

uint32_t EfsCheck::block_of(size_t at) const {
    return static_cast<uint32_t>(at / efs::block_size) - view_.layout->bm_num;
}

std::optional<uint32_t> EfsCheck::logical_of(uint32_t block) const {
    const auto &map = view_.efs.valid_map;
    const auto found = std::find(map.begin(), map.end(), block);
    return found == map.end() ? std::nullopt
                              : std::optional(static_cast<uint32_t>(found - map.begin()));
}

void EfsCheck::tell_block(uint32_t block, uint32_t logical) {
    const auto bytes = std::span(bytes_).subspan(block_at(block), efs::block_size);
    const std::string name =
        "block " + std::to_string(block) + " (logical " + std::to_string(logical) + ")";
    const std::string subject = "block " + std::to_string(block);
    size_t offset = 0;
    std::string what = "header";
    std::string text = "fails its checksum";
    std::string nvar;
    if (const auto header = bytes.first(efs::header_size); !efs::is_sealed(header)) {
        const auto wrong = efs::wrong_byte(header);
        offset = wrong ? wrong->at : 0;
    } else if (const EfsDamage *record = damaged_record(logical)) {
        const EfsPlace &place = place_of_file(*record->file);
        offset = efs::data_offset + (place.block == logical ? place.offset : 0);
        offset = wrong_byte_of(bytes).value_or(offset);
        what = "record of file " + std::to_string(*record->file);
        text = "fails its checksum, and so does the data area";
        nvar = name_in(view_.efs_names, *record->file);
    } else {
        offset = wrong_byte_of(bytes).value_or(efs::footer_offset);
        what = offset < efs::footer_offset ? "data area" : "checksum of the data area";
        text = "does not match; the records of all files in it are good";
    }
    Finding &cause = error(at_offset(block_at(block) + offset, name + ", " + what),
                           name + ": the " + what + " " + text, subject);
    if (cause.consequences.empty()) {
        cause.cause.nvar = nvar;
    }
    follow_with_files(cause, logical);
}

std::optional<size_t> EfsCheck::wrong_byte_of(std::span<const uint8_t> block) {
    const auto found = efs::wrong_byte(block.subspan(efs::data_offset));
    return found ? std::optional(found->at + efs::data_offset) : std::nullopt;
}

const EfsDamage *EfsCheck::damaged_record(uint32_t logical) const {
    for (const EfsDamage &damage : view_.efs.damages) {
        if (damage.rule == Rule::record && damage.logical == logical) {
            return &damage;
        }
    }
    return nullptr;
}

const EfsPlace &EfsCheck::place_of_file(uint32_t file) const {
    return std::find_if(view_.efs.files.begin(), view_.efs.files.end(),
                        [=](const EfsFile &known) { return known.place.number == file; })
        ->place;
}

void EfsCheck::follow_with_files(Finding &cause, std::optional<uint32_t> logical) {
    std::vector<std::string> lost;
    std::vector<std::string> held;
    for (const EfsFile &file : view_.efs.files) {
        const uint32_t first = file.place.block;
        const size_t size = file.contents.size() + file.place.offset;
        const uint32_t last =
            first + static_cast<uint32_t>(size == 0 ? 0 : (size - 1) / efs::record_room);
        if (!logical || *logical < first || *logical > last) {
            continue;
        }
        (file.kind == EfsFile::Kind::damaged ? lost : held).push_back(file_name(file.place.number));
    }
    if (!lost.empty()) {
        follow(cause, counted(lost.size(), "file") + " cannot be read: " + listed(lost));
    }
    if (!held.empty()) {
        follow(cause,
               counted(held.size(), "file") + " can be read and not changed: " + listed(held));
    }
}

void EfsCheck::tell_spares(const std::string &text) {
    for (uint32_t block = 0; block < view_.efs.blocks.size(); ++block) {
        if (view_.efs.blocks[block].state == EfsBlockState::no_header) {
            error(at_offset(block_at(block), "block " + std::to_string(block) + ", header"),
                  text + ", and a cut of power leaves one at most: no file can be changed",
                  "spares");
        }
    }
}

} // namespace dolm
