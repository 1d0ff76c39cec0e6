// The whole cycle on a full set: start-up with a deployed VFS, ten changes, termination with the
// write-back, final termination. The images go on from one cycle to the next, so that reclaims are
// part of what is seen. See flash_figures.h for the counters; the payload is all the inputs.

#include <cstdio>
#include <cstdlib>

#include "EFS.h"
#include "flash_figures.h"
#include "proof/afs_build.h"
#include "proof/host_session.h"

namespace builders = dolm::proof::builders;
namespace host_session = dolm::proof::host_session;

namespace {

using dolm::Bytes;

constexpr uint32_t afs_files = 500;
constexpr uint32_t efs_files = 7; // one for each block of the default geometry
constexpr uint32_t value_size = 200;

void check(bool good, const char *what) {
    if (!good) {
        std::fprintf(stderr, "failed: %s\n", what);
        for (const std::string &report : host_session::reports) {
            std::fprintf(stderr, "%s\n", report.c_str());
        }
        std::abort();
    }
}

// The first one marks the VFS as deployed.
std::string afs_name(uint32_t i) {
    return i == 0 ? "/home/mca/deploy"
                  : "/home/group" + std::to_string(i % 16) + "/value" + std::to_string(i);
}

std::string efs_name(uint32_t i) {
    return "/home/efs/value" + std::to_string(i);
}

class Set : public host_session::Inputs {
  public:
    Set() {
        table_.sku_rows = {{1, {}}};
        for (uint32_t i = 0; i < afs_files; ++i) {
            add(afs_name(i), i + 1, 1); // file number 0 stands for none
        }
        builders::Geometry geometry;
        for (uint16_t i = 0; i < efs_files; ++i) {
            add(efs_name(i), i, 2);
            geometry.records.push_back({i, i, 0, value_size});
        }
        table_.geometry_rows = {geometry};
        ftbl = table_.build();
        orvel = builders::store_of(base_);
        vync = host_session::with_head(builders::store_of({}));
        qfs = dolm::build_afs_image({.device_size = 1048576, .data_eus = 117, .file_count = 1024},
                                    afs_inputs_);
        efs = build_efs();
    }

    uint32_t size() const {
        return static_cast<uint32_t>(orvel.size() + vync.size() + ftbl.size() + qfs.size() +
                                     efs.size());
    }

  private:
    void add(const std::string &name, uint32_t id, uint8_t store) {
        const auto fileno = static_cast<uint32_t>(base_.size() + 1);
        table_.sku_rows[0].entries.push_back(
            {name, fileno, value_size, 0, static_cast<uint16_t>(id), store});
        base_.push_back({fileno, std::string(value_size, 'b')});
        if (store == 1) {
            afs_inputs_.push_back({id, Bytes(value_size, 'd')});
        }
    }

    Bytes build_efs() const {
        check(load_file_table(ftbl.data(), 1, static_cast<uint32_t>(ftbl.size())) == 0,
              "file table");
        check(EFS_init(1) == EFS_OK, "EFS format");
        const Bytes content(value_size, 'd');
        for (uint32_t i = 0; i < efs_files; ++i) {
            check(EFS_write(i, 0, value_size, content.data()) == EFS_OK, "EFS write");
        }
        return {efs_image, efs_image + efs_size};
    }

    builders::FileTable table_;
    std::vector<builders::StoreFile> base_;
    std::vector<dolm::AfsFileInput> afs_inputs_;
};

void change_ten_values(uint32_t cycle) {
    const std::string value(value_size - cycle % 8, static_cast<char>('A' + cycle % 26));
    for (uint32_t i = 0; i < 10; ++i) {
        const bool in_efs = i >= 8;
        const std::string name = in_efs ? efs_name(i - 8) : afs_name((cycle * 8 + i) % afs_files);
        check(host_session::set_value(name, value), "change");
        check(host_session::value_of(name) == value, "value");
    }
}

void whole_cycle(benchmark::State &state) {
    Set set;
    uint32_t cycle = 0;
    bench::show_change(state, set.size(), 1000, [&] {
        check(set.start(), "start-up");
        change_ten_values(++cycle);
        check(qoQfsNvarTerm(true), "termination");
        check(qoQfsNvarTerm(false), "final termination");
    });
    check(host_session::reports.empty(), "no reports");
}
DOLM_FLASH_BENCHMARK(whole_cycle);

} // namespace
