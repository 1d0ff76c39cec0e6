// The configuration road on sets without flash images, by the number of NVARs.

#include <cstdio>
#include <cstdlib>
#include <string>

#include "proof/host_session.h"
#include "ratio.h"

namespace builders = dolm::proof::builders;
namespace host_session = dolm::proof::host_session;

namespace {

using dolm::Bytes;
using host_session::Inputs;

constexpr size_t value_size = 64;

std::string name_of(size_t i) {
    return "/home/group" + std::to_string(i % 16) + "/value" + std::to_string(i);
}

// A set of count NVARs, every fourth overridden.
Inputs make_inputs(size_t count) {
    builders::FileTable table;
    table.sku_rows = {{1, {}}};
    std::vector<builders::StoreFile> base;
    std::vector<builders::StoreFile> overriding;
    for (size_t i = 0; i < count; ++i) {
        const auto fileno = static_cast<uint32_t>(i + 1);
        table.sku_rows[0].entries.push_back({name_of(i), fileno, value_size});
        base.push_back({fileno, std::string(value_size, 'b')});
        if (i % 4 == 0) {
            overriding.push_back({fileno, std::string(value_size, 'o')});
        }
    }
    Inputs inputs;
    inputs.ftbl = table.build();
    inputs.orvel = builders::store_of(base);
    inputs.vync = host_session::with_head(builders::store_of(overriding));
    return inputs;
}

// A benchmark of what fails would mean nothing.
void check(bool good, const char *what) {
    if (!good) {
        std::fprintf(stderr, "failed: %s\n", what);
        std::abort();
    }
}

// Each work below is made for a number of NVARs, and one call does it once for each of them.

class StartAndTerminate {
  public:
    explicit StartAndTerminate(size_t count) : inputs_(make_inputs(count)) {}
    void operator()() {
        check(inputs_.start() && qoQfsNvarTerm(true) && qoQfsNvarTerm(false), "start and end");
    }

  private:
    Inputs inputs_;
};

class LookUp {
  public:
    explicit LookUp(size_t count) : inputs_(make_inputs(count)) {
        for (size_t i = 0; i < count; ++i) {
            names_.push_back(name_of(i * 977 % count));
        }
        check(inputs_.start(), "start");
    }
    LookUp(const LookUp &) = delete;
    LookUp &operator=(const LookUp &) = delete;
    ~LookUp() { qoQfsNvarTerm(false); }
    void operator()() {
        for (const std::string &name : names_) {
            uint8_t *data = nullptr;
            uint32_t size = 0;
            check(
                qoQfsNvarGet(name.c_str(), &data, &size, FCS_FILE_CURRENT_VALUES, nullptr, nullptr),
                "look-up");
        }
    }

  private:
    Inputs inputs_;
    std::vector<std::string> names_;
};

class LoadAndFlush {
  public:
    explicit LoadAndFlush(size_t count) : inputs_(make_inputs(count)), out_(inputs_.orvel.size()) {
        load_file_table(inputs_.ftbl.data(), 1, static_cast<uint32_t>(inputs_.ftbl.size()));
    }
    LoadAndFlush(const LoadAndFlush &) = delete;
    LoadAndFlush &operator=(const LoadAndFlush &) = delete;
    ~LoadAndFlush() { builders::forget_file_table(); }
    void operator()() {
        void *handle = nullptr;
        auto length = static_cast<uint32_t>(out_.size());
        check(createHandleFromStructure(&handle, inputs_.orvel.data(), length) == FCS_OK &&
                  flush(handle, out_.data(), &length) == FCS_OK && closeHandle(&handle) == FCS_OK,
              "load and flush");
    }

  private:
    Inputs inputs_;
    Bytes out_;
};

template <typename Work>
double seconds_for_each(size_t count) {
    Work work(count);
    return bench::best_seconds_per_call(work, 1) / static_cast<double>(count);
}

// Shows what the work takes for each NVAR, as the benchmark's time and in counters:
//
//   Y64_over_t  how often it fits into the time of Y, a byte-wise CRC-16, for 64 KiB
//   times_256   the time in that of one among 256
template <typename Work>
void tables(benchmark::State &state) {
    for (auto _ : state) {
        const double among_256 = seconds_for_each<Work>(256);
        const double seconds = seconds_for_each<Work>(static_cast<size_t>(state.range(0)));
        state.SetIterationTime(seconds);
        state.counters["Y64_over_t"] = bench::seconds_of_yardstick() / seconds;
        state.counters["times_256"] = seconds / std::min(among_256, seconds_for_each<Work>(256));
    }
}

#define DOLM_TABLE_BENCHMARK(work)                                                                 \
    BENCHMARK(tables<work>)                                                                        \
        ->Name(#work)                                                                              \
        ->Arg(256)                                                                                 \
        ->Arg(4096)                                                                                \
        ->Arg(16384)                                                                               \
        ->Iterations(1)                                                                            \
        ->UseManualTime()

DOLM_TABLE_BENCHMARK(StartAndTerminate);
DOLM_TABLE_BENCHMARK(LookUp);
DOLM_TABLE_BENCHMARK(LoadAndFlush);

} // namespace
