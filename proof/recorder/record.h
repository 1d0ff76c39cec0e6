// The record of a run: everything that a host can tell of the library's work, folded into one
// digest for each of four columns. Of a chosen range of operations everything is also printed.
#pragma once

#include <cstdint>
#include <cstdio>
#include <initializer_list>
#include <span>

namespace recorder {

// Device accesses with their bytes; statuses, reports and bytes that came back; named fields of the
// contexts; the images.
enum class Column : uint8_t { traffic, results, fields, image };
inline constexpr const char *column_names[] = {"traffic", "results", "fields", "image"};
inline constexpr size_t column_count = 4;

// What the parent process still knows of a block that crashed.
struct Digests {
    uint64_t column[column_count];
    uint64_t operation; // the one under way
};

struct Named {
    const char *name;
    uint64_t value;
};

class Record {
  public:
    // Operations number first to last are printed. The number of the one before the first is in
    // the digests.
    Record(Digests &digests, uint64_t first, uint64_t last)
        : digests_(digests), first_(first), last_(last) {}

    // The next operation begins.
    void operation(const char *name, std::initializer_list<Named> arguments = {});
    uint64_t number() const { return digests_.operation; }
    bool prints() const { return number() >= first_ && number() <= last_; }

    void value(Column column, const char *name, uint64_t value);
    void bytes(Column column, const char *name, std::span<const uint8_t> bytes);
    void text(Column column, const char *name, const char *text);
    // One device access with the bytes that it writes or reads, if any.
    void access(const char *store, const char *kind, uint32_t address,
                std::span<const uint8_t> bytes, uint32_t length);

    uint32_t status(uint32_t status) {
        value(Column::results, "status", status);
        return status;
    }
    void result(const char *name, uint64_t found) { value(Column::results, name, found); }
    void field(const char *name, uint64_t found) { value(Column::fields, name, found); }

  private:
    void fold(Column column, uint64_t value);
    static void print_bytes(std::span<const uint8_t> bytes, uint64_t digest);

    Digests &digests_;
    uint64_t first_;
    uint64_t last_;
};

uint64_t digest_of(std::span<const uint8_t> bytes);

// One record for each process; set by main.
extern Record *record;

// Where it is printed. The library has the standard output to itself.
extern std::FILE *out;

// splitmix64.
class Random {
  public:
    explicit Random(uint64_t seed) : state_(seed) {}

    uint64_t next() {
        uint64_t z = (state_ += 0x9E3779B97F4A7C15U);
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9U;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBU;
        return z ^ (z >> 31);
    }
    uint32_t below(uint32_t bound) { return static_cast<uint32_t>(next() >> 32) % bound; }
    uint32_t from_to(uint32_t first, uint32_t last) { return first + below(last - first + 1); }
    bool one_in(uint32_t bound) { return below(bound) == 0; }
    // Most often small, now and then up to the bound.
    uint32_t skewed(uint32_t bound) { return below(below(bound) + 1); }
    void fill(std::span<uint8_t> bytes) {
        for (uint8_t &byte : bytes) {
            byte = static_cast<uint8_t>(next() >> 56);
        }
    }

  private:
    uint64_t state_;
};

// The four kinds of blocks of operations, each on stores of its own.
class Block {
  public:
    virtual ~Block() = default;
    // Runs one operation and records it.
    virtual void step() = 0;
};

} // namespace recorder
