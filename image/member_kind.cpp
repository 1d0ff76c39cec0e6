#include "image/member_kind.h"

#include <algorithm>

#include "image/afs_records.h"
#include "image/efs_records.h"
#include "image/fcs_store.h"
#include "image/file_table.h"

namespace dolm {

namespace {

// Packed as the library writes it; one that is not may be no store at all.
bool is_written_store(std::span<const uint8_t> bytes) {
    const FcsStore store = read_fcs_store(bytes);
    uint64_t end = store.payloads_at();
    for (const FcsRecord &record : store.records) {
        if (record.offset != end) {
            return false;
        }
        end = record.end();
    }
    return store.has_all_records() && end == bytes.size();
}

bool is_override_store(const Bytes &bytes) {
    return bytes.size() >= fcs::vync_head_size + fcs::head_size &&
           get_le32(bytes, fcs::vync_length_offset) == bytes.size() - fcs::vync_head_size &&
           is_written_store(std::span(bytes).subspan(fcs::vync_head_size));
}

bool is_file_table(const Bytes &bytes) {
    return bytes.size() >= 4 && get_le32(bytes, 0) == ftbl::magic;
}

bool is_afs_image(const Bytes &bytes) {
    for (size_t at = 0; at + afs::eu_size <= bytes.size(); at += afs::eu_size) {
        if (afs::judge_header(std::span(bytes).subspan(at)).erase_count_known) {
            return true;
        }
    }
    return false;
}

bool is_efs_image(const Bytes &bytes) {
    for (size_t at = 0; at + efs::block_size <= bytes.size(); at += efs::block_size) {
        const auto header = std::span(bytes).subspan(at, efs::header_size);
        const size_t blocks = size_t{header[8]} + header[9] + header[10];
        if (!efs::all(header, 0) && efs::is_sealed(header) && header[8] > at / efs::block_size &&
            blocks * efs::block_size <= bytes.size()) {
            return true;
        }
    }
    return false;
}

} // namespace

bool is_of_kind(const Bytes &bytes, MemberKind kind) {
    switch (kind) {
    case MemberKind::base_store:
        return is_written_store(bytes);
    case MemberKind::override_store:
        return is_override_store(bytes);
    case MemberKind::file_table:
        return is_file_table(bytes);
    case MemberKind::afs_image:
        return is_afs_image(bytes);
    case MemberKind::efs_image:
        return is_efs_image(bytes);
    }
    return false;
}

std::optional<MemberKind> recognise(const Bytes &bytes) {
    for (const MemberKind kind :
         {MemberKind::base_store, MemberKind::override_store, MemberKind::file_table,
          MemberKind::afs_image, MemberKind::efs_image}) {
        if (is_of_kind(bytes, kind)) {
            return kind;
        }
    }
    return std::nullopt;
}

std::span<const uint8_t> override_store(const Bytes &file) {
    if (file.size() < fcs::vync_head_size) {
        return {};
    }
    const auto rest = std::span(file).subspan(fcs::vync_head_size);
    return rest.first(std::min<size_t>(rest.size(), get_le32(file, fcs::vync_length_offset)));
}

} // namespace dolm
