// A full set of inputs, both flash images included, from a short description of its files.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "EFS.h"
#include "EFS_phy_win32.h"
#include "proof/afs_build.h"
#include "proof/flash_store.h"
#include "proof/host_session.h"

namespace dolm::proof::full_set {

inline constexpr uint8_t in_afs = 1;
inline constexpr uint8_t in_efs = 2;

// One file of the set: what the tables say of it and what its flash store holds.
struct SetFile {
    const char *name;
    uint16_t attributes;
    uint8_t store;
    uint16_t id;
    uint32_t limit;
    std::string base;
    std::optional<std::string> flash;
};

inline std::string with_trailer(const std::string &value, size_t trailer) {
    return value + std::string(trailer, 't');
}

inline const std::vector<SetFile> default_set = {
    {"/home/mca/deploy", 0, in_afs, 1, 100, "marker", "deployed"},
    {"/home/afs/plain", 0, in_afs, 2, 1000, "base", "from flash"},
    {"/home/afs/long", 0, in_afs, 3, 4000, "", std::string(2000, 'L')},
    {"/home/afs/empty", 0, in_afs, 4, 1000, "base", ""},
    {"/home/afs/trailer", 0x01, in_afs, 5, 1000, "base", with_trailer("sealed", 40)},
    {"/home/afs/longtrailer", 0x41, in_afs, 6, 1000, "base", with_trailer("", 56)},
    {"/home/afs/notpulled", 0x02, in_afs, 7, 1000, "from the tables", "in flash"},
    {"/home/efs/plain", 0, in_efs, 0, 1000, "base", "from EFS"},
    {"/home/efs/long", 0, in_efs, 1, 6000, "base", std::string(5000, 'E')},
    {"/home/efs/trailer", 0x01, in_efs, 2, 1000, "base", with_trailer("x", 40)},
};

inline const builders::Geometry geometry = {
    .sku = 1, .records = {{0, 0, 0, 1000}, {1, 1, 0, 6000}, {2, 0, 2000, 900}}};

// The stores work on its images in place, so it ends the library's work on them before it goes.
struct FlashSet : host_session::Inputs {
    FlashSet(const FlashSet &) = default;
    ~FlashSet() {
        if (qoFcsIsInitialized()) {
            qoQfsNvarTerm(false);
        }
    }

    explicit FlashSet(const std::vector<SetFile> &files = default_set) {
        builders::FileTable table;
        table.sku_rows = {{1, {}}};
        table.geometry_rows = {geometry};
        std::vector<builders::StoreFile> base;
        std::vector<AfsFileInput> afs_files;
        for (const SetFile &file : files) {
            const auto fileno = static_cast<uint32_t>(base.size() + 1);
            table.sku_rows[0].entries.push_back(
                {file.name, fileno, file.limit, file.attributes, file.id, file.store});
            base.push_back({fileno, file.base});
            if (file.store == in_afs && file.flash) {
                afs_files.push_back({file.id, {file.flash->begin(), file.flash->end()}});
            }
        }
        ftbl = table.build();
        orvel = builders::store_of(base);
        qfs = build_afs_image({.device_size = 65536, .data_eus = 4, .file_count = 128}, afs_files);
        efs = build_efs(files);
    }

    Bytes build_efs(const std::vector<SetFile> &files) {
        expect_done(load_file_table(ftbl.data(), 1, static_cast<uint32_t>(ftbl.size())),
                    "the load of the file table");
        expect_done(EFS_init(1), "the format of EFS");
        for (const SetFile &file : files) {
            if (file.store == in_efs && file.flash) {
                expect_done(EFS_write(file.id, 0, static_cast<uint32_t>(file.flash->size()),
                                      file.flash->data()),
                            std::string("the write of ") + file.name);
            }
        }
        return {efs_image, efs_image + efs_size};
    }
};

} // namespace dolm::proof::full_set
