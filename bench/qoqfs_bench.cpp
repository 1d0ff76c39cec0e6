// The configuration road on sets without flash images.

#include <string>

#include "proof/host_session.h"
#include "ratio.h"

namespace {

using host_session::Bytes;
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

void start_up_and_terminate(benchmark::State &state) {
    const auto count = static_cast<size_t>(state.range(0));
    Inputs inputs = make_inputs(count);
    const bench::Stopwatch watch(state);
    for (auto _ : state) {
        if (!inputs.start() || !qoQfsNvarTerm(true) || !qoQfsNvarTerm(false)) {
            state.SkipWithError("failed");
        }
    }
    const double seconds = watch.seconds_per_iteration();
    const size_t bytes = inputs.ftbl.size() + inputs.orvel.size() + inputs.vync.size();
    state.counters["ns_per_nvar"] = seconds * 1e9 / static_cast<double>(count);
    state.counters["times_copy"] = seconds / bench::seconds_of_copy(bytes);
}
BENCHMARK(start_up_and_terminate)->Arg(256)->Arg(4096)->Arg(16384)->Unit(benchmark::kMicrosecond);

void look_up(benchmark::State &state) {
    const auto count = static_cast<size_t>(state.range(0));
    Inputs inputs = make_inputs(count);
    if (!inputs.start()) {
        state.SkipWithError("no start-up");
    }
    size_t i = 0;
    for (auto _ : state) {
        uint8_t *data = nullptr;
        uint32_t size = 0;
        i = (i + 977) % count;
        const std::string name = name_of(i);
        benchmark::DoNotOptimize(
            qoQfsNvarGet(name.c_str(), &data, &size, FCS_FILE_CURRENT_VALUES, nullptr, nullptr));
    }
    qoQfsNvarTerm(false);
}
BENCHMARK(look_up)->Arg(256)->Arg(4096)->Arg(16384);

void load_and_flush_store(benchmark::State &state) {
    const auto count = static_cast<size_t>(state.range(0));
    const Inputs inputs = make_inputs(count);
    load_file_table(inputs.ftbl.data(), 1, static_cast<uint32_t>(inputs.ftbl.size()));
    Bytes out(inputs.orvel.size());
    const bench::Stopwatch watch(state);
    for (auto _ : state) {
        void *handle = nullptr;
        auto length = static_cast<uint32_t>(out.size());
        if (createHandleFromStructure(&handle, inputs.orvel.data(), length) != FCS_OK ||
            flush(handle, out.data(), &length) != FCS_OK || closeHandle(&handle) != FCS_OK) {
            state.SkipWithError("failed");
        }
    }
    const double seconds = watch.seconds_per_iteration();
    state.counters["ns_per_file"] = seconds * 1e9 / static_cast<double>(count);
    state.counters["times_copy"] = seconds / bench::seconds_of_copy(out.size());
    builders::forget_file_table();
}
BENCHMARK(load_and_flush_store)->Arg(256)->Arg(4096)->Arg(16384)->Unit(benchmark::kMicrosecond);

} // namespace
