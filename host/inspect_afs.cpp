// What lies on an AFS image, as text and as JSON.
#include <algorithm>
#include <iomanip>
#include <ostream>

#include "host/inspect.h"
#include "host/utf8.h"
#include "image/afs_image.h"
#include "image/afs_records.h"

namespace dolm {

namespace {

constexpr size_t slots_per_sign = 4;

const char *interruption_name(AfsInterruption interruption) {
    switch (interruption) {
    case AfsInterruption::rolled_back:
        return "rolled back";
    case AfsInterruption::rolled_forward:
        return "rolled forward";
    case AfsInterruption::none:
        break;
    }
    return "none";
}

const char *kind_name(AfsFile::Kind kind) {
    switch (kind) {
    case AfsFile::Kind::contents:
        return "contents";
    case AfsFile::Kind::empty:
        return "empty";
    case AfsFile::Kind::zombie:
        break;
    }
    return "zombie";
}

// One sign for a few slots.
char sign_of(size_t live, size_t dead, size_t free) {
    if (live != 0) {
        return dead + free == 0 ? '#' : '+';
    }
    if (dead != 0) {
        return free == 0 ? 'x' : '-';
    }
    return free != 0 ? '.' : ' ';
}

std::string draw_slots(const AfsEu &eu) {
    std::string map;
    for (size_t i = 0; i < eu.slots.size(); i += slots_per_sign) {
        const auto begin = eu.slots.begin() + static_cast<std::ptrdiff_t>(i);
        const auto end = eu.slots.begin() +
                         static_cast<std::ptrdiff_t>(std::min(i + slots_per_sign, eu.slots.size()));
        const auto count = [&](AfsSlot slot) {
            return static_cast<size_t>(std::count(begin, end, slot));
        };
        map += sign_of(count(AfsSlot::live), count(AfsSlot::dead), count(AfsSlot::free));
    }
    return map;
}

size_t count_role(const AfsImage &image, AfsRole role) {
    return static_cast<size_t>(std::count_if(image.eus.begin(), image.eus.end(),
                                             [role](const AfsEu &eu) { return eu.role == role; }));
}

void print_summary(std::ostream &out, const AfsImage &image, size_t size) {
    const AfsWear wear = afs_wear(image);
    out << "AFS image of " << size << " bytes: " << image.eu_count << " EUs of " << afs::eu_size
        << " bytes, " << count_role(image, AfsRole::data) << " data, "
        << count_role(image, AfsRole::log) << " log, " << count_role(image, AfsRole::spare)
        << " spare\n";
    if (image.has_file_system) {
        out << "File system: " << image.file_count << " file slots, " << image.files.size()
            << " used; " << image.chunk_count << " chunks of 64 bytes, " << image.used_chunks
            << " used, " << image.free_chunks << " erased; data from VA " << image.data_va_start
            << " to " << image.total_va_size << '\n';
    }
    if (image.head) {
        out << "Log: goes on in EU " << *image.head << " at slot " << image.head_slot << '\n';
    }
    out << "Wear: " << wear.lowest << " to " << wear.highest << " erases, spread "
        << wear.highest - wear.lowest << '\n';
    if (image.interruption != AfsInterruption::none) {
        out << "Interrupted reclaim: " << interruption_name(image.interruption)
            << " by the next mount\n";
    }
}

void print_eus(std::ostream &out, const AfsImage &image) {
    out << "\n EU  ROLE     SEQUENCE  ERASES  LIVE  DEAD  FREE  MAP\n";
    for (size_t i = 0; i < image.eus.size(); ++i) {
        const AfsEu &eu = image.eus[i];
        out << std::setw(3) << i << "  " << std::left << std::setw(7) << to_string(eu.role)
            << std::right << std::setw(10) << eu.sequence << std::setw(7) << eu.erase_count
            << (eu.erase_count_known ? ' ' : '?') << std::setw(6) << eu.live << std::setw(6)
            << eu.dead << std::setw(6) << eu.free << "  " << draw_slots(eu)
            << (eu.pending ? " (not committed)" : "") << '\n';
    }
    out << "Map, 4 pages a sign: # live, x dead, . free, + live and others, - dead and "
           "free\n";
}

void print_files(std::ostream &out, const AfsImage &image, const FileNames &names) {
    out << "\nFILE    SIZE  CHUNKS  KIND      NAME\n";
    for (const AfsFile &file : image.files) {
        out << std::setw(4) << file.number << std::setw(8) << file.contents.size() << std::setw(8)
            << file.chunks.size() << "  " << std::left << std::setw(8) << kind_name(file.kind)
            << std::right << "  " << escape(name_of(names, file.number)) << '\n';
    }
}

} // namespace

const char *to_string(AfsRole role) {
    switch (role) {
    case AfsRole::log:
        return "log";
    case AfsRole::data:
        return "data";
    case AfsRole::spare:
        return "spare";
    case AfsRole::damaged:
        break;
    }
    return "damaged";
}

Json afs_to_json(const AfsImage &image, const FileNames &names) {
    const AfsWear wear = afs_wear(image);
    Json json{{"kind", "afs"},
              {"eu_count", image.eu_count},
              {"sequence", image.sequence},
              {"interruption", interruption_name(image.interruption)},
              {"spare", image.spare ? Json(*image.spare) : Json()},
              {"head", image.head ? Json(*image.head) : Json()},
              {"head_slot", image.head_slot},
              {"wear", {{"lowest", wear.lowest}, {"highest", wear.highest}}},
              {"file_system", image.has_file_system},
              {"fs_version", image.fs_version},
              {"total_va_size", image.total_va_size},
              {"data_va_start", image.data_va_start},
              {"file_count", image.file_count},
              {"chunk_count", image.chunk_count},
              {"used_chunks", image.used_chunks},
              {"free_chunks", image.free_chunks}};
    json["eus"] = Json::array();
    for (const AfsEu &eu : image.eus) {
        json["eus"].push_back({{"role", to_string(eu.role)},
                               {"pending", eu.pending},
                               {"sequence", eu.sequence},
                               {"erase_count", eu.erase_count},
                               {"erase_count_known", eu.erase_count_known},
                               {"next_spare", eu.next_spare},
                               {"va_base", eu.va_base},
                               {"live", eu.live},
                               {"dead", eu.dead},
                               {"free", eu.free},
                               {"map", draw_slots(eu)}});
    }
    json["files"] = Json::array();
    for (const AfsFile &file : image.files) {
        json["files"].push_back({{"number", file.number},
                                 {"name", name_of(names, file.number)},
                                 {"kind", kind_name(file.kind)},
                                 {"size", file.contents.size()},
                                 {"chunks", file.chunks}});
    }
    return json;
}

void print_afs(std::ostream &out, const AfsImage &image, size_t size, const FileNames &names) {
    print_summary(out, image, size);
    print_eus(out, image);
    print_files(out, image, names);
}

} // namespace dolm
