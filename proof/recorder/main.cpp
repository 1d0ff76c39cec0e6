// Runs random operations on the library and prints, for each block of them, digests of all that a
// host can tell of it. Two builds do the same if they print the same; scripts/compare-traffic
// compares them. Uses the exported surface alone, so that it links with any version.
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "device.h"
#include "record.h"

namespace recorder {

std::unique_ptr<Block> make_afs_block(uint64_t seed);
std::unique_ptr<Block> make_efs_block(uint64_t seed);
std::unique_ptr<Block> make_front_end_block(uint64_t seed);
std::unique_ptr<Block> make_store_block(uint64_t seed);

namespace {

constexpr uint64_t block_size = 1000;
constexpr unsigned seconds_for_a_block = 60;
constexpr uint32_t most_accesses = 200000; // of an operation, with the mounts around it

struct Kind {
    const char *name;
    std::unique_ptr<Block> (*make)(uint64_t seed);
};

constexpr Kind afs = {"afs", make_afs_block};
constexpr Kind efs = {"efs", make_efs_block};
constexpr Kind front_end = {"front end", make_front_end_block};
constexpr Kind configuration = {"configuration store", make_store_block};

// Three of four operations go to the flash stores.
constexpr const Kind *kinds[] = {&afs, &efs, &afs, &front_end, &afs, &efs, &afs, &configuration};

struct Options {
    uint64_t operations = 400000;
    uint64_t seed = 1;
    uint64_t from = UINT64_MAX; // range to print in full
    uint64_t to = 0;
};

[[noreturn]] void usage(const char *program) {
    std::fprintf(stderr,
                 "%s [--operations N] [--seed N] [--from OPERATION --to OPERATION]\n"
                 "Prints a line for each block of %" PRIu64 " operations, or all that a range of\n"
                 "them does.\n",
                 program, block_size);
    std::exit(2);
}

Options parse(int argc, char **argv) {
    Options options;
    for (int i = 1; i < argc; i += 2) {
        uint64_t *target = nullptr;
        if (std::strcmp(argv[i], "--operations") == 0) {
            target = &options.operations;
        } else if (std::strcmp(argv[i], "--seed") == 0) {
            target = &options.seed;
        } else if (std::strcmp(argv[i], "--from") == 0) {
            target = &options.from;
        } else if (std::strcmp(argv[i], "--to") == 0) {
            target = &options.to;
        }
        char *end = nullptr;
        if (target == nullptr || i + 1 == argc ||
            (*target = std::strtoull(argv[i + 1], &end, 10), *end != '\0')) {
            usage(argv[0]);
        }
    }
    return options;
}

void run_block(const Kind &kind, uint64_t first, const Options &options, Digests &digests) {
    alarm(seconds_for_a_block);
    Record all(digests, options.from, options.to);
    record = &all;
    const std::unique_ptr<Block> block = kind.make(options.seed * 1000003 + first);
    while (all.number() + 1 < first + block_size) {
        device.allow(most_accesses);
        block->step();
    }
}

void print_digests(const Kind &kind, uint64_t first, const Digests &digests, int how_it_ended) {
    std::fprintf(out, "%" PRIu64 "-%" PRIu64 " %s", first, first + block_size - 1, kind.name);
    for (size_t i = 0; i < column_count; ++i) {
        std::fprintf(out, " %s %016" PRIx64, column_names[i], digests.column[i]);
    }
    if (WIFSIGNALED(how_it_ended)) {
        std::fprintf(out, " ended by signal %d in operation %" PRIu64, WTERMSIG(how_it_ended),
                     digests.operation);
    }
    std::fprintf(out, "\n");
}

// Each block runs in a process of its own: the library's state begins afresh, and a crash ends only
// the block.
int run(const Options &options) {
    void *shared =
        mmap(nullptr, sizeof(Digests), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (shared == MAP_FAILED) {
        std::perror("mmap");
        return 1;
    }
    auto &digests = *static_cast<Digests *>(shared);
    const bool prints = options.from != UINT64_MAX;
    for (uint64_t i = 0; i < options.operations / block_size; ++i) {
        const uint64_t first = i * block_size;
        if (prints && (options.from >= first + block_size || options.to < first)) {
            continue;
        }
        const Kind &kind = *kinds[i % std::size(kinds)];
        digests = {{}, first - 1};
        const pid_t child = fork();
        if (child == 0) {
            run_block(kind, first, options, digests);
            _exit(0);
        }
        int how_it_ended = 0;
        if (child < 0 || waitpid(child, &how_it_ended, 0) < 0) {
            std::perror("fork");
            return 1;
        }
        print_digests(kind, first, digests, how_it_ended);
    }
    return 0;
}

} // namespace
} // namespace recorder

int main(int argc, char **argv) {
    const recorder::Options options = recorder::parse(argc, argv);
    recorder::out = fdopen(dup(STDOUT_FILENO), "w");
    if (recorder::out == nullptr || std::freopen("/dev/null", "w", stdout) == nullptr) {
        std::perror(argv[0]);
        return 1;
    }
    std::setvbuf(recorder::out, nullptr, _IOLBF, BUFSIZ); // a block may crash
    return recorder::run(options);
}
