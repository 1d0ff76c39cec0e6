// EFS of the default geometry. What changes the store is measured in steady state. See
// flash_figures.h for the counters.

#include <cstdio>
#include <cstdlib>

#include "EFS.h"
#include "flash_figures.h"
#include "proof/builders.h"

namespace builders = dolm::proof::builders;

namespace {

using dolm::Bytes;

// One file for each size: 64 bytes and 1 KiB share a block, 4 KiB takes two, the last one three.
struct File {
    builders::EfsRecord record;
    uint32_t size;
};
const std::vector<File> files = {{{0, 0, 0, 64}, 64},
                                 {{1, 0, 100, 1024}, 1024},
                                 {{2, 1, 0, 4096}, 4096},
                                 {{3, 3, 0, 12000}, 12000}};

// A benchmark of what fails would mean nothing.
void check(uint32_t status) {
    if (status != EFS_OK) {
        std::fprintf(stderr, "EFS status %u\n", status);
        std::abort();
    }
}

void write(uint32_t file, uint8_t value) {
    const Bytes bytes(files[file].size, value);
    check(EFS_write(file, 0, files[file].size, bytes.data()));
}

// A mounted store in which every file has its content.
class Store {
  public:
    Store() {
        builders::Geometry geometry;
        for (const File &file : files) {
            geometry.records.push_back(file.record);
        }
        const Bytes table = builders::FileTable{{}, {geometry}}.build();
        check(load_file_table(table.data(), geometry.sku, static_cast<uint32_t>(table.size())));
        image_.assign(EFS_get_efs_size(), 0xFF);
        EFS_init_tools(image_.data()); // fails, but attaches the image for the format
        check(EFS_do_format());
        remount();
        for (uint32_t file = 0; file < files.size(); ++file) {
            write(file, 0xA5);
        }
    }

    void remount() { check(EFS_init_tools(image_.data())); }

  private:
    Bytes image_;
};

// Enough for the wear levelling to have begun.
constexpr uint64_t steady_erases = 2000;

void write_file(benchmark::State &state) {
    Store store;
    const auto file = static_cast<uint32_t>(state.range(0));
    const uint32_t size = files[file].size;
    const Bytes contents[2] = {Bytes(size, 0x3C), Bytes(size, 0xC3)};
    uint32_t turn = 0;
    bench::show_change(state, size, steady_erases,
                       [&] { check(EFS_write(file, 0, size, contents[++turn % 2].data())); });
    state.SetLabel(std::to_string(size) + " bytes");
}

void read_file(benchmark::State &state) {
    Store store;
    const auto file = static_cast<uint32_t>(state.range(0));
    const uint32_t size = files[file].size;
    Bytes bytes(size);
    bench::show_time(state, size, [&] {
        uint32_t length = size;
        check(EFS_read(file, 0, &length, bytes.data()));
    });
    state.SetLabel(std::to_string(size) + " bytes");
}

// Both are set against a copy of the whole image.
void mount(benchmark::State &state) {
    Store store;
    bench::show_time(state, efs_size, [&] { store.remount(); });
}

void scan(benchmark::State &state) {
    Store store;
    bench::show_time(state, efs_size, [&] { check(EFS_scan_for_Data_Blocks_status_and_EC()); });
}

DOLM_FLASH_BENCHMARK(write_file)->DenseRange(0, 3);
DOLM_FLASH_BENCHMARK(read_file)->DenseRange(0, 3);
DOLM_FLASH_BENCHMARK(mount);
DOLM_FLASH_BENCHMARK(scan);

} // namespace
