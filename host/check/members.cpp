// The members of a set as they lie in its folder, and what each of them looks like.
#include <algorithm>

#include "host/check/set_view.h"
#include "host/errors.h"
#include "image/member_kind.h"

namespace dolm {

namespace {

namespace fs = std::filesystem;

struct KindOfMember {
    const char *file;
    MemberKind kind;
    const char *content;
};

constexpr KindOfMember kinds[] = {
    {orvel_cfg, MemberKind::base_store, "a store of base values"},
    {vync_cfg, MemberKind::override_store, "a store of overriding values"},
    {ftbl_bin, MemberKind::file_table, "a file table"},
    {qfs_img, MemberKind::afs_image, "an AFS image"},
    {efs_img, MemberKind::efs_image, "an EFS image"},
};

const KindOfMember &kind_of_member(const std::string &file) {
    return *std::find_if(std::begin(kinds), std::end(kinds),
                         [&](const KindOfMember &kind) { return kind.file == file; });
}

// What the bytes look like; null if they are like nothing known.
const KindOfMember *seen_in(const Bytes &bytes) {
    const auto seen = recognise(bytes);
    const auto *found = std::find_if(std::begin(kinds), std::end(kinds),
                                     [&](const KindOfMember &known) { return known.kind == seen; });
    return found == std::end(kinds) ? nullptr : found;
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
            view_.checksums = settings->checksums;
            tell_unknown(*settings);
        } catch (const Failure &failure) {
            error(settings_name, without_path(failure.what(), settings_name),
                  "write {\"sku\": NUMBER} into it, or name the SKU with --sku");
        }
    }

    void tell_unknown(const SetSettings &settings) {
        for (const std::string &field : settings.unknown) {
            findings_.note({settings_name, field, "is no field that this dolm knows"});
        }
        std::set<std::string> named(settings.members.begin(), settings.members.end());
        for (const auto &[name, checksums] : settings.checksums) {
            named.insert(name);
        }
        for (const std::string &name : named) {
            if (!is_member_name(name)) {
                error(settings_name, "counts on " + name + ", which is no file of a set", "");
            }
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
        const KindOfMember *seen = is_of_kind(bytes, due.kind) ? &due : seen_in(bytes);
        if (seen != nullptr && seen->kind != due.kind) {
            error(member.name,
                  std::string("holds ") + seen->content + ", which belongs into " + seen->file,
                  "look whether members were given each other's names");
            return;
        }
        view_.files.*member.content = std::move(bytes);
        const auto &named = view_.files.members;
        if (!named.empty() && std::find(named.begin(), named.end(), member.name) == named.end()) {
            findings_.note({member.name, "",
                            "is there, and set.json does not count it among the members of the "
                            "set"});
        }
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

void load_members(const SetFolder &folder, SetView &view, Findings &findings) {
    Loader(folder, view, findings).run();
    read_members(view);
}

void read_members(SetView &view) {
    view.table = read_file_table(view.files.ftbl);
    view.names.clear();
    view.afs_names.clear();
    view.efs_names.clear();
    for (const FtblRow &row : view.table.rows) {
        for (const FtblEntry &entry : row.entries) {
            const std::string name(entry.name);
            view.names.emplace(entry.number, name);
            (entry.is_in_efs() ? view.efs_names : view.afs_names).emplace(entry.id, name);
        }
    }
    view.base = read_fcs_store(view.files.orvel_cfg);
    view.overrides = read_fcs_store(override_store(view.files.vync_cfg));
    view.afs = view.files.qfs_image.empty() ? AfsImage{} : read_afs_image(view.files.qfs_image);
}

} // namespace dolm
