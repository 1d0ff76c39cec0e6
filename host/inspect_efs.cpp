// What lies on an EFS image, as text and as JSON.
#include <algorithm>
#include <iomanip>
#include <ostream>

#include "host/inspect.h"
#include "host/utf8.h"
#include "image/efs_image.h"
#include "image/efs_records.h"

namespace dolm {

namespace {

constexpr uint32_t bytes_per_sign = 128;

const char *kind_name(EfsFile::Kind kind) {
    switch (kind) {
    case EfsFile::Kind::absent:
        return "absent";
    case EfsFile::Kind::contents:
        return "contents";
    case EfsFile::Kind::damaged:
        break;
    }
    return "damaged";
}

// Marks the records that `size` bytes of a file take, across blocks.
void mark_records(const EfsPlace &place, size_t size, char sign, std::vector<std::string> &areas) {
    uint32_t offset = std::min(place.offset, efs::record_room);
    uint32_t logical = place.block;
    do {
        if (logical >= areas.size()) {
            return;
        }
        const size_t payload = std::min<size_t>(size, efs::record_room - offset);
        std::string &area = areas[logical];
        const size_t last = (offset + efs::record_head_size + payload - 1) / bytes_per_sign;
        for (size_t i = offset / bytes_per_sign; i <= last; ++i) {
            area[i] = area[i] == '#' ? '#' : sign;
        }
        size -= payload;
        offset = 0;
        ++logical;
    } while (size > 0);
}

void print_bms(std::ostream &out, const EfsImage &image) {
    out << "\nBM  STATE     SEQUENCE  ENTRIES\n";
    for (size_t i = 0; i < image.bms.size(); ++i) {
        const EfsBm &bm = image.bms[i];
        out << std::setw(2) << i << "  " << std::left << std::setw(8) << to_string(bm.state)
            << std::right << std::setw(10) << bm.sequence << std::setw(9) << bm.entries
            << (image.bm_in_force == i ? "  in force" : "") << '\n';
    }
    if (image.bm_in_force) {
        out << "Mapping in force: entry " << image.entry_in_force << " of BM " << *image.bm_in_force
            << (image.torn_entry ? "; the one behind it is torn" : "") << '\n';
    }
}

void print_blocks(std::ostream &out, const EfsImage &image) {
    const std::vector<std::string> areas = draw_areas(image);
    out << "\nBLOCK  ROLE        STATE      ERASES  MAP\n";
    for (size_t i = 0; i < image.blocks.size(); ++i) {
        const EfsBlock &block = image.blocks[i];
        const bool live = block.state == EfsBlockState::live;
        out << std::setw(5) << i << (live ? "  logical " : "  spare   ") << std::left
            << std::setw(4) << block.index << std::setw(9) << to_string(block.state) << std::right
            << std::setw(8) << block.erase_count << (live ? "  " + areas.at(block.index) : "")
            << (live && !block.footer_good ? " (fails its checksum)" : "") << '\n';
    }
    out << "Map, 128 bytes a sign: # file, - kept free for a file, . not used\n";
}

void print_files(std::ostream &out, const EfsImage &image, const FileNames &names) {
    out << "\nFILE  BLOCK  OFFSET   SIZE  LIMIT  STATE     NAME\n";
    for (const EfsFile &file : image.files) {
        out << std::setw(4) << file.place.number << std::setw(7) << file.place.block << std::setw(8)
            << file.place.offset << std::setw(7) << file.contents.size() << std::setw(7)
            << file.place.max_size << "  " << std::left << std::setw(8) << kind_name(file.kind)
            << std::right << "  " << escape(name_of(names, file.place.number)) << '\n';
    }
}

} // namespace

const char *to_string(EfsBmState state) {
    switch (state) {
    case EfsBmState::erased:
        return "erased";
    case EfsBmState::retired:
        return "retired";
    case EfsBmState::broken:
        return "broken";
    case EfsBmState::good:
        break;
    }
    return "good";
}

const char *to_string(EfsBlockState state) {
    switch (state) {
    case EfsBlockState::live:
        return "live";
    case EfsBlockState::free:
        return "free";
    case EfsBlockState::dirty:
        return "dirty";
    case EfsBlockState::no_header:
        break;
    }
    return "no header";
}

std::vector<std::string> draw_areas(const EfsImage &image) {
    std::vector<std::string> areas(image.valid_map.size(),
                                   std::string(efs::data_size / bytes_per_sign + 1, '.'));
    for (const EfsFile &file : image.files) {
        if (file.kind == EfsFile::Kind::contents) {
            mark_records(file.place, file.contents.size(), '#', areas);
        }
        mark_records(file.place, file.place.max_size, '-', areas);
    }
    return areas;
}

Json efs_to_json(const EfsImage &image, const EfsLayout &layout, const FileNames &names) {
    Json json{{"kind", "efs"},
              {"bm_num", layout.bm_num},
              {"valid_blocks", layout.valid_blocks},
              {"spare_blocks", layout.spare_blocks},
              {"layout_id", layout.layout_id},
              {"bm_in_force", image.bm_in_force ? Json(*image.bm_in_force) : Json()},
              {"entry_in_force", image.entry_in_force},
              {"torn_entry", image.torn_entry},
              {"valid_map", image.valid_map},
              {"spare_map", image.spare_map}};
    json["bms"] = Json::array();
    for (const EfsBm &bm : image.bms) {
        json["bms"].push_back(
            {{"state", to_string(bm.state)}, {"sequence", bm.sequence}, {"entries", bm.entries}});
    }
    json["blocks"] = Json::array();
    for (const EfsBlock &block : image.blocks) {
        json["blocks"].push_back({{"state", to_string(block.state)},
                                  {"index", block.index},
                                  {"erase_count", block.erase_count}});
    }
    json["files"] = Json::array();
    for (const EfsFile &file : image.files) {
        json["files"].push_back({{"number", file.place.number},
                                 {"name", name_of(names, file.place.number)},
                                 {"block", file.place.block},
                                 {"offset", file.place.offset},
                                 {"max_size", file.place.max_size},
                                 {"state", kind_name(file.kind)},
                                 {"size", file.contents.size()}});
    }
    return json;
}

void print_efs(std::ostream &out, const EfsImage &image, const EfsLayout &layout,
               const FileNames &names) {
    out << "EFS image of " << layout.image_size() << " bytes: " << layout.bm_num << " BMs, "
        << layout.valid_blocks << " logical and " << layout.spare_blocks
        << " spare blocks of 4096 bytes, layout " << layout.layout_id << '\n';
    print_bms(out, image);
    if (!image.blocks.empty()) {
        print_blocks(out, image);
        print_files(out, image, names);
    }
}

} // namespace dolm
