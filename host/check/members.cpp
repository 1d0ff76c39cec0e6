// The members of a set as they lie in its folder, and what each of them looks like.
#include <algorithm>

#include "host/check/set_view.h"
#include "host/errors.h"
#include "image/afs_records.h"
#include "image/efs_records.h"

namespace dolm {

namespace {

namespace fs = std::filesystem;

enum class Kind : uint8_t { base_store, override_store, file_table, afs_image, efs_image };

struct KindOfMember {
    const char *file;
    Kind kind;
    const char *content;
};

constexpr KindOfMember kinds[] = {
    {orvel_cfg, Kind::base_store, "a store of base values"},
    {vync_cfg, Kind::override_store, "a store of overriding values"},
    {ftbl_bin, Kind::file_table, "a file table"},
    {qfs_img, Kind::afs_image, "an AFS image"},
    {efs_img, Kind::efs_image, "an EFS image"},
};

const KindOfMember &kind_of_member(const std::string &file) {
    return *std::find_if(std::begin(kinds), std::end(kinds),
                         [&](const KindOfMember &kind) { return kind.file == file; });
}

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

bool is_of_kind(const Bytes &bytes, Kind kind) {
    switch (kind) {
    case Kind::base_store:
        return is_written_store(bytes);
    case Kind::override_store:
        return is_override_store(bytes);
    case Kind::file_table:
        return is_file_table(bytes);
    case Kind::afs_image:
        return is_afs_image(bytes);
    case Kind::efs_image:
        return is_efs_image(bytes);
    }
    return false;
}

// What the bytes look like; null if they are like nothing known.
const KindOfMember *recognise(const Bytes &bytes) {
    const auto *found =
        std::find_if(std::begin(kinds), std::end(kinds),
                     [&](const KindOfMember &known) { return is_of_kind(bytes, known.kind); });
    return found == std::end(kinds) ? nullptr : found;
}

// What lies behind the head of "vync.cfg", as long as the head says or the file is.
std::span<const uint8_t> override_store(const Bytes &file) {
    if (file.size() < fcs::vync_head_size) {
        return {};
    }
    const auto rest = std::span(file).subspan(fcs::vync_head_size);
    return rest.first(std::min<size_t>(rest.size(), get_le32(file, fcs::vync_length_offset)));
}

class Loader {
  public:
    Loader(const SetFolder &folder, SetView &view, Findings &findings)
        : folder_(folder), view_(view), findings_(findings) {}

    void run() {
        load_settings();
        for (const SetMember &member : set_members) {
            load(member);
        }
    }

  private:
    void error(const std::string &file, std::string text, std::string advice) {
        findings_.error({file, "", std::move(text)}).advice = std::move(advice);
    }

    // The finding names the file already.
    std::string without_path(const std::string &text, const char *name) const {
        const std::string path = (folder_.path() / name).string() + ": ";
        return text.starts_with(path) ? text.substr(path.size()) : text;
    }

    void load_settings() {
        try {
            const auto settings = folder_.settings();
            if (!settings) {
                findings_.note({settings_name, "",
                                "is missing: commands need --sku, and a member that was lost "
                                "cannot be missed"});
                return;
            }
            view_.files.sku = settings->sku;
            view_.files.members = settings->members;
        } catch (const Failure &failure) {
            error(settings_name, without_path(failure.what(), settings_name),
                  "write {\"sku\": NUMBER} into it, or name the SKU with --sku");
        }
    }

    void load(const SetMember &member) {
        const fs::path path = folder_.path() / member.name;
        std::error_code unknown;
        if (!fs::exists(path, unknown)) {
            tell_missing(member);
            return;
        }
        Bytes bytes;
        try {
            bytes = read_file(path, member.max_size);
        } catch (const Failure &failure) {
            error(member.name, without_path(failure.what(), member.name), "");
            return;
        }
        if (bytes.empty()) {
            error(member.name, "has no bytes", restore_advice);
            return;
        }
        const KindOfMember &due = kind_of_member(member.name);
        const KindOfMember *seen = is_of_kind(bytes, due.kind) ? &due : recognise(bytes);
        if (seen != nullptr && seen->kind != due.kind) {
            error(member.name,
                  std::string("holds ") + seen->content + ", which belongs into " + seen->file,
                  "look whether members were given each other's names");
            return;
        }
        view_.files.*member.content = std::move(bytes);
    }

    void tell_missing(const SetMember &member) {
        const auto &named = view_.files.members;
        if (member.mandatory) {
            error(member.name, "is missing; no set is without it", restore_advice);
        } else if (std::find(named.begin(), named.end(), member.name) != named.end()) {
            error(member.name, "is missing, and set.json counts it among the members of the set",
                  restore_advice);
        }
    }

    static constexpr const char *restore_advice =
        "bring the file back from where the set came from";

    const SetFolder &folder_;
    SetView &view_;
    Findings &findings_;
};

} // namespace

void load_members(const fs::path &folder, double lock_timeout, SetView &view, Findings &findings) {
    try {
        Loader(SetFolder(folder, SetFolder::Use::read, lock_timeout), view, findings).run();
    } catch (const Failure &failure) {
        findings.error({"the set", "", failure.what()});
    }
    view.table = read_file_table(view.files.ftbl);
    for (const FtblRow &row : view.table.rows) {
        for (const FtblEntry &entry : row.entries) {
            const std::string name(entry.name);
            view.names.emplace(entry.number, name);
            (entry.is_in_efs() ? view.efs_names : view.afs_names).emplace(entry.id, name);
        }
    }
    view.base = read_fcs_store(view.files.orvel_cfg);
    view.overrides = read_fcs_store(override_store(view.files.vync_cfg));
    if (!view.files.qfs_image.empty()) {
        view.afs = read_afs_image(view.files.qfs_image);
    }
}

} // namespace dolm
