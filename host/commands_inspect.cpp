#include <algorithm>
#include <sstream>

#include "host/commands.h"
#include "host/errors.h"
#include "host/image_table.h"
#include "host/inspect.h"
#include "host/output.h"
#include "host/set_files.h"
#include "image/member_kind.h"

namespace dolm {

namespace {

namespace fs = std::filesystem;

struct Member {
    std::string name; // of its file
    Bytes bytes;
    MemberKind kind;
};

// What one member comes to.
struct Shown {
    std::string text;
    Json json;
    std::vector<std::string> broken; // rules of its format
};

// A file that is like nothing known is what its name says; without such a name, an EFS image whose
// geometry the table has, or a configuration store, which has no mark of its own.
MemberKind kind_of(const std::string &name, const Bytes &bytes, const ImageTable &table) {
    if (const auto kind = recognise(bytes)) {
        return *kind;
    }
    constexpr std::pair<const char *, MemberKind> kinds[] = {
        {"orvel.cfg", MemberKind::base_store}, {"vync.cfg", MemberKind::override_store},
        {"ftbl.bin", MemberKind::file_table},  {"qfs.img", MemberKind::afs_image},
        {"efs.img", MemberKind::efs_image},
    };
    for (const auto &[member, kind] : kinds) {
        if (name == member) {
            return kind;
        }
    }
    if (table.ftbl.empty() || !table.sku) {
        throw UsageError(name + " is like no member of a set; for an EFS image give its file table "
                                "with --ftbl and --sku");
    }
    return MemberKind::efs_image;
}

void refuse_parts(const InspectOptions &options, const std::string &name) {
    if (options.page || options.unit || options.block) {
        throw UsageError(name + " has no pages, units or blocks");
    }
}

Shown show_part(const InspectedPart &part) {
    std::ostringstream text;
    print_part(text, part);
    return {text.str(), part_to_json(part), {}};
}

Shown show_afs(const InspectOptions &options, const Member &member, const ImageTable &table) {
    const AfsImage image = read_afs_image(member.bytes);
    if (options.block) {
        throw UsageError(member.name + " is an AFS image; it has units and pages");
    }
    if (options.unit) {
        return show_part(afs_unit(member.bytes, image, *options.unit));
    }
    if (options.page) {
        return show_part(afs_page(member.bytes, image, *options.page));
    }
    const FileNames names = table.names_in(Store::afs);
    std::ostringstream text;
    print_afs(text, image, member.bytes.size(), names);
    return {text.str(), afs_to_json(image, names), check_invariants(image)};
}

Shown show_efs(const InspectOptions &options, const Member &member, const ImageTable &table) {
    const EfsLayout layout = table.efs_layout(member.name);
    if (options.page) {
        throw UsageError(member.name + " is an EFS image; it has units and blocks");
    }
    if ((options.unit || options.block) && member.bytes.size() < layout.image_size()) {
        throw Failure(member.name + " is shorter than its layout");
    }
    if (options.unit) {
        return show_part(efs_unit(member.bytes, layout, *options.unit));
    }
    if (options.block) {
        return show_part(efs_block(member.bytes, layout, *options.block));
    }
    const EfsImage image = read_efs_image(member.bytes, layout);
    const FileNames names = table.names_in(Store::efs);
    std::ostringstream text;
    print_efs(text, image, layout, names);
    return {text.str(), efs_to_json(image, layout, names), efs_damages(image)};
}

Shown show_file_table(const Member &member) {
    const FileTable table = read_file_table(member.bytes);
    std::ostringstream text;
    print_table(text, table, member.bytes.size());
    return {text.str(), table_to_json(table), table_damages(table, member.bytes.size())};
}

Shown show_store(const Member &member, const ImageTable &table) {
    const FcsStore store = read_fcs_store(member.kind == MemberKind::override_store
                                              ? override_store(member.bytes)
                                              : std::span<const uint8_t>(member.bytes));
    const FileNames names = table.names_by_number();
    std::ostringstream text;
    print_store(text, store, names);
    return {text.str(), store_to_json(store, names), store_damages(store)};
}

Shown show(const InspectOptions &options, const Member &member, const ImageTable &table) {
    switch (member.kind) {
    case MemberKind::afs_image:
        return show_afs(options, member, table);
    case MemberKind::efs_image:
        return show_efs(options, member, table);
    case MemberKind::file_table:
        refuse_parts(options, member.name);
        return show_file_table(member);
    case MemberKind::base_store:
    case MemberKind::override_store:
        break;
    }
    refuse_parts(options, member.name);
    return show_store(member, table);
}

void print_broken(const std::vector<std::string> &broken) {
    for (const std::string &rule : broken) {
        print_line("Broken: " + rule);
    }
}

void fail_if_broken(const std::string &path, const std::vector<std::string> &broken) {
    if (!broken.empty()) {
        flush_output();
        throw Failure(path + " breaks its format: " + broken.front() +
                      (broken.size() == 1
                           ? ""
                           : "; and " + std::to_string(broken.size() - 1) + " more rules"));
    }
}

void inspect_file(const InspectOptions &options) {
    auto [name, bytes, table] = read_image_file(options);
    const MemberKind kind = kind_of(name, bytes, table);
    const Member member{std::move(name), std::move(bytes), kind};
    Shown shown = show(options, member, table);
    if (tells_json()) {
        if (!options.page && !options.unit && !options.block) {
            shown.json["broken"] = shown.broken;
        }
        print_json(shown.json);
    } else {
        print_text(shown.text);
        print_broken(shown.broken);
    }
    fail_if_broken(options.path.string(), shown.broken);
}

// A page or unit is AFS's, a block EFS's.
bool is_asked_for(const InspectOptions &options, MemberKind kind) {
    if (options.page || options.unit) {
        return kind == MemberKind::afs_image;
    }
    return !options.block || kind == MemberKind::efs_image;
}

std::vector<Member> members_of(const SetFolder &folder, const ImageTable &table) {
    std::vector<Member> members;
    for (const SetMember &member : set_members) {
        const fs::path path = folder.path() / member.name;
        if (fs::exists(path)) {
            Bytes bytes = read_file(path, member.max_size);
            const MemberKind kind = kind_of(member.name, bytes, table);
            members.push_back({member.name, std::move(bytes), kind});
        }
    }
    return members;
}

void inspect_set(const InspectOptions &options) {
    std::optional<SetFolder> folder(std::in_place, options.path, SetFolder::Use::read,
                                    options.lock_timeout);
    const ImageTable table = find_table(options, &*folder);
    const std::vector<Member> members = members_of(*folder, table);
    folder.reset();
    Json json{{"kind", "set"}, {"members", Json::array()}};
    std::vector<std::string> broken;
    for (const Member &member : members) {
        if (!is_asked_for(options, member.kind)) {
            continue;
        }
        const Shown shown = show(options, member, table);
        Json told{{"file", member.name}};
        told.update(shown.json);
        json["members"].push_back(std::move(told));
        if (!tells_json()) {
            print_text((json["members"].size() == 1 ? "" : "\n") + member.name + ": " + shown.text);
        }
        for (const std::string &rule : shown.broken) {
            broken.push_back(member.name + ": " + rule);
        }
    }
    json["broken"] = broken;
    if (tells_json()) {
        print_json(json);
    } else {
        print_broken(broken);
    }
    fail_if_broken(options.path.string(), broken);
}

} // namespace

void inspect_member(const InspectOptions &options) {
    if (fs::is_directory(options.path)) {
        inspect_set(options);
    } else {
        inspect_file(options);
    }
}

} // namespace dolm
