// AFS on a device of 1 MiB whose chunks are half in use. What changes the store is measured in
// steady state, after the device was erased three times over. See flash_figures.h for the counters.

#include <array>
#include <bit>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "AfsCrc.h"
#include "EFS.h"
#include "flash_figures.h"
#include "image/efs_records.h"
#include "proof/afs_build.h"

namespace {

using Bytes = std::vector<uint8_t>;

constexpr uint32_t kib = 1024;
constexpr uint32_t device_size = 1024 * kib;
constexpr uint32_t eu_count = device_size / AFS_EU_SIZE;
constexpr uint32_t data_eus = 117; // one EU in twelve for the log, and the spare
constexpr uint32_t slots = 1024;
constexpr uint32_t small_files = 500;
constexpr uint32_t tested_file = small_files; // above the small files
constexpr uint32_t filler_size = 4096;
constexpr uint64_t steady_erases = 3 * 2 * eu_count; // in blocks, two for each EU

Bytes contents(uint32_t size, uint32_t seed) {
    Bytes bytes(size);
    for (uint32_t i = 0; i < size; ++i) {
        bytes[i] = static_cast<uint8_t>((i * 2654435761u + seed * 40503u) >> 13);
    }
    return bytes;
}

// A store with 500 small files, the tested one if it is to have bytes, and others up to half of the
// chunks.
class Store {
  public:
    Store(uint32_t small_size, uint32_t tested_size)
        : image_(dolm::format_afs_image({device_size, data_eus, slots})) {
        mount_ = std::make_unique<dolm::AfsMount>(image_);
        for (uint32_t file = 0; file < small_files; ++file) {
            write(file, contents(small_size, file));
        }
        if (tested_size > 0) {
            write(tested_file, contents(tested_size, tested_file));
        }
        for (uint32_t file = tested_file + 1; chunks_in_use() * 2 < mount_->context()->chunk_count;
             ++file) {
            write(file, contents(filler_size, file));
        }
    }

    void write(uint32_t file, const Bytes &bytes) {
        check(afs_writefile(mount_->context(), static_cast<int32_t>(file), 0,
                            static_cast<uint32_t>(bytes.size()), bytes.data(), AFS_WRITE_TRUNCATE));
    }

    void overwrite(uint32_t file, uint32_t offset, const Bytes &bytes) {
        check(afs_writefile(mount_->context(), static_cast<int32_t>(file), offset,
                            static_cast<uint32_t>(bytes.size()), bytes.data(), 0));
    }

    void read(uint32_t file, Bytes &bytes) {
        auto length = static_cast<uint32_t>(bytes.size());
        check(
            afs_readfile(mount_->context(), static_cast<int32_t>(file), 0, &length, bytes.data()));
    }

    void remount() {
        mount_.reset();
        mount_ = std::make_unique<dolm::AfsMount>(image_);
        check(mount_->status());
    }

  private:
    // A benchmark of what fails would mean nothing.
    static void check(uint32_t status) {
        if (status != AFS_RC_OK) {
            std::fprintf(stderr, "AFS status %u\n", status);
            std::abort();
        }
    }

    uint32_t chunks_in_use() {
        const afs_context &context = *mount_->context();
        uint32_t count = 0;
        for (uint32_t word = 0; word <= context.chunk_count / 32u; ++word) {
            count += static_cast<uint32_t>(std::popcount(context.chunk_map[word]));
        }
        return count;
    }

    Bytes image_;
    std::unique_ptr<dolm::AfsMount> mount_;
};

// Two contents, so that each write changes the file.
class Alternating {
  public:
    explicit Alternating(uint32_t size) : contents_{contents(size, 1), contents(size, 2)} {}
    const Bytes &next() { return contents_[++turn_ % 2]; }

  private:
    std::array<Bytes, 2> contents_;
    uint32_t turn_ = 0;
};

void rewrite(benchmark::State &state) {
    const auto size = static_cast<uint32_t>(state.range(0));
    Store store(64, size);
    Alternating bytes(size);
    bench::show_change(state, size, steady_erases, [&] { store.write(tested_file, bytes.next()); });
}

void read_file(benchmark::State &state) {
    const auto size = static_cast<uint32_t>(state.range(0));
    Store store(64, size);
    for (uint32_t i = 0; i < 20 * small_files; ++i) {
        store.write(i * 211 % small_files, contents(64, i));
        if (i % small_files == 0) {
            store.write(tested_file, contents(size, tested_file));
        }
    }
    Bytes bytes(size);
    bench::show_time(state, size, [&] { store.read(tested_file, bytes); });
    if (bytes != contents(size, tested_file)) {
        std::abort();
    }
}

void overwrite_64_in_16k(benchmark::State &state) {
    Store store(64, 16 * kib);
    Alternating bytes(64);
    bench::show_change(state, 64, steady_erases,
                       [&] { store.overwrite(tested_file, 8 * kib, bytes.next()); });
}

void rewrite_one_of_500(benchmark::State &state) {
    const auto size = static_cast<uint32_t>(state.range(0));
    Store store(size, 0);
    Alternating bytes(size);
    uint32_t file = 0;
    bench::show_change(state, size, steady_erases, [&] {
        file = (file + 211) % small_files;
        store.write(file, bytes.next());
    });
}

void read_one_of_500(benchmark::State &state) {
    const auto size = static_cast<uint32_t>(state.range(0));
    Store store(size, 0);
    for (uint32_t i = 0; i < 20 * small_files; ++i) {
        store.write(i * 211 % small_files, contents(size, i));
    }
    Bytes bytes(size);
    uint32_t file = 0;
    bench::show_time(
        state, size,
        [&] {
            file = (file + 211) % small_files;
            store.read(file, bytes);
        },
        small_files);
}

void mount_500_of_512(benchmark::State &state) {
    Store store(512, 0);
    for (uint32_t i = 0; i < 20 * small_files; ++i) {
        store.write(i * 211 % small_files, contents(512, i));
    }
    bench::show_time(state, small_files * 512, [&] { store.remount(); });
}

DOLM_FLASH_BENCHMARK(rewrite)->Arg(4 * kib)->Arg(64 * kib)->Arg(256 * kib);
DOLM_FLASH_BENCHMARK(read_file)->Arg(4 * kib)->Arg(64 * kib)->Arg(256 * kib);
DOLM_FLASH_BENCHMARK(overwrite_64_in_16k);
DOLM_FLASH_BENCHMARK(rewrite_one_of_500)->Arg(64)->Arg(512);
DOLM_FLASH_BENCHMARK(read_one_of_500)->Arg(64);
DOLM_FLASH_BENCHMARK(mount_500_of_512);

// ---- The checksums of both stores, against the same a byte at a time.

uint32_t bytewise_crc8(const uint8_t *data, size_t length) {
    static constexpr auto table = dolm::crc_table_msb_first<uint8_t>(0x07);
    uint8_t crc = 0x01;
    for (size_t i = 0; i < length; ++i) {
        crc = table[crc ^ data[i]];
    }
    return crc;
}

uint32_t bytewise_crc14(const uint8_t *data, size_t length) {
    static constexpr auto table = dolm::crc_table_msb_first<uint16_t>(dolm::crc16_ccitt_polynomial);
    uint32_t crc = 0x3FFF;
    for (size_t i = 0; i < length; ++i) {
        crc = ((crc << 8 & 0xFFFF) ^ table[data[i] ^ crc >> 8]) & 0x3FFF;
    }
    return crc;
}

uint32_t bytewise_crc16_with_tail(const uint8_t *data, size_t length) {
    return bench::bytewise_crc16(bench::bytewise_crc16(0xFFFF, data, length), data, 2);
}

uint32_t bytewise_efs_crc16(const uint8_t *data, size_t length) {
    return bench::bytewise_crc16(0, data, length);
}

uint32_t bytewise_crc32(const uint8_t *data, size_t length) {
    uint32_t crc = 0;
    for (size_t i = 0; i < length; ++i) {
        crc = crc >> 8 ^ gCrc32_table[(crc ^ data[i]) & 0xFF];
    }
    return crc;
}

uint32_t library_crc8(const uint8_t *data, size_t length) {
    return crc8(data, static_cast<int32_t>(length));
}

uint32_t library_crc14(const uint8_t *data, size_t length) {
    return crc14(data, static_cast<int32_t>(length));
}

uint32_t library_crc16(const uint8_t *data, size_t length) {
    return crc16(data, static_cast<int32_t>(length), data) & 0xFFFF;
}

uint32_t library_efs_crc16(const uint8_t *data, size_t length) {
    return EFS_crc16(0, data, static_cast<uint32_t>(length)) & 0xFFFF;
}

uint32_t library_crc32(const uint8_t *data, size_t length) {
    return EFS_crc32(0, data, static_cast<uint32_t>(length));
}

using Checksum = uint32_t (*)(const uint8_t *, size_t);

// The length is the one that the stores mostly work with.
void checksum(benchmark::State &state, Checksum library, Checksum bytewise, size_t length) {
    const Bytes data = contents(static_cast<uint32_t>(length), 7);
    uint32_t result = 0;
    const auto seconds_of = [&](Checksum function) {
        return bench::best_seconds_per_call([&] {
            benchmark::DoNotOptimize(function); // or calls would be merged
            result = function(data.data(), length);
            benchmark::DoNotOptimize(result);
        });
    };
    for (auto _ : state) {
        const double seconds = seconds_of(library);
        state.SetIterationTime(seconds);
        state.counters["times_bytewise"] = seconds_of(bytewise) / seconds;
    }
    if (library(data.data(), length) != bytewise(data.data(), length)) {
        state.SkipWithError("the two differ");
    }
}

#define DOLM_CHECKSUM_BENCHMARK(name, ...)                                                         \
    BENCHMARK_CAPTURE(checksum, name, __VA_ARGS__)->Iterations(1)->UseManualTime()

DOLM_CHECKSUM_BENCHMARK(crc8, library_crc8, bytewise_crc8, 16);
DOLM_CHECKSUM_BENCHMARK(crc14, library_crc14, bytewise_crc14, 2);
DOLM_CHECKSUM_BENCHMARK(crc16, library_crc16, bytewise_crc16_with_tail, 64);
DOLM_CHECKSUM_BENCHMARK(EFS_crc16, library_efs_crc16, bytewise_efs_crc16, dolm::efs::record_room);
DOLM_CHECKSUM_BENCHMARK(EFS_crc32, library_crc32, bytewise_crc32, dolm::efs::data_size);

} // namespace
