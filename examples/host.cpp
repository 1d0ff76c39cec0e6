// The host of host.c in C++: loads a set of inputs from a folder, shows one NVAR, gives it a new
// value, and writes what changed back into the folder.
//
// Usage: host FOLDER SKU NAME VALUE
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>

#include "dolm_session.hpp"

using dolmstorage::Bytes;
using dolmstorage::Set;
namespace fs = std::filesystem;

// The whole file; empty if there is none, which the library takes for an absent input.
static Bytes load(const fs::path &path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

static void save(const fs::path &path, const Bytes &bytes) {
    std::ofstream file(path, std::ios::binary);
    file.write(reinterpret_cast<const char *>(bytes.data()),
               static_cast<std::streamsize>(bytes.size()));
    file.close();
    if (!file) {
        throw std::runtime_error("cannot write " + path.string());
    }
}

static void change(const fs::path &folder, uint32_t sku, const std::string &name,
                   const std::string &value) {
    dolmstorage::Session session(Set{.orvel_cfg = load(folder / "orvel.cfg"),
                                     .vync_cfg = load(folder / "vync.cfg"),
                                     .ftbl = load(folder / "ftbl.bin"),
                                     .qfs_image = load(folder / "qfs.img"),
                                     .efs_image = load(folder / "efs.img"),
                                     .sku = sku});
    for (const dolmstorage::Report &warning : session.reports()) {
        std::fprintf(stderr, "%s\n", to_string(warning).c_str());
    }

    const dolmstorage::Nvar nvar = session.nvar(name);
    std::printf("%s was \"%s\"%s\n", name.c_str(), std::string(nvar.text()).c_str(),
                nvar.writable ? "" : ", and its file in the flash stays as it is");
    session.set(name, value);

    const Set &saved = session.save();
    save(folder / "vync.cfg", saved.vync_cfg);
    for (const auto &[file, image] :
         {std::pair("qfs.img", &saved.qfs_image), std::pair("efs.img", &saved.efs_image)}) {
        if (!image->empty()) {
            save(folder / file, *image);
        }
    }
}

int main(int argc, char **argv) {
    if (argc != 5) {
        std::fprintf(stderr, "usage: %s FOLDER SKU NAME VALUE\n", argv[0]);
        return 2;
    }
    try {
        change(argv[1], static_cast<uint32_t>(std::stoul(argv[2], nullptr, 0)), argv[3], argv[4]);
        return 0;
    } catch (const std::exception &error) {
        std::fprintf(stderr, "%s: %s\n", argv[0], error.what());
        return 1;
    }
}
