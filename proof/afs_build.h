// Makes AFS images with room for files, through the library's exported operations.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

#include "Afs.h"

namespace dolm {

// Says what does not fit, or which status the library answered with.
class AfsBuildError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

struct AfsLayout {
    uint32_t device_size = 0;   // bytes, a multiple of 8192 from 32768 to 2088960
    uint32_t data_eus = 0;      // erase units for file contents, 7808 bytes each
    uint32_t file_count = 0;    // file slots, 65 to 2048
    uint32_t total_va_size = 0; // bytes; 0 for as many as the data EUs have room for
    uint32_t fs_version = 0;    // a word of the header that the store only keeps
};

struct AfsGeometry {
    uint32_t eu_count = 0; // data EUs, log EUs and the spare
    uint32_t log_eus = 0;
    uint32_t chunk_count = 0;   // chunks of 64 bytes
    uint32_t data_va_start = 0; // bytes, as total_va_size
    uint32_t total_va_size = 0;
};

// The numbers that follow from a layout. Throws AfsBuildError if it cannot work: the metadata pages
// must fit into the log with one erase unit beyond, or reclaims could not gain anything.
AfsGeometry afs_geometry(const AfsLayout &layout);

// Chunks of 64 bytes that a file takes.
uint64_t afs_chunks(uint64_t size);

// Whether the files of a store have room, in words if not. The layout must work.
std::optional<std::string> afs_room_problem(const AfsLayout &layout, uint64_t chunks);

struct AfsFileInput {
    uint32_t number = 0;
    std::vector<uint8_t> contents;
};

// A formatted image without files. Throws AfsBuildError.
std::vector<uint8_t> format_afs_image(const AfsLayout &layout);

// The same with files. Throws AfsBuildError.
std::vector<uint8_t> build_afs_image(const AfsLayout &layout, std::span<const AfsFileInput> files);

// Lines of the page cache in ordinary use.
inline constexpr uint32_t afs_cache_lines = 10;

// A store mounted on an image in place, for as long as the object lives. The library knows one
// device at a time, so there can be only one.
class AfsMount {
  public:
    explicit AfsMount(std::span<uint8_t> image, uint32_t cache_lines = afs_cache_lines);
    ~AfsMount();
    AfsMount(const AfsMount &) = delete;
    AfsMount &operator=(const AfsMount &) = delete;

    // Of the mount; the context is only usable if it is 0.
    uint32_t status() const { return status_; }
    afs_context *context() { return &context_; }

  private:
    afs_context context_{};
    std::vector<uint8_t> file_buffer_;
    uint32_t status_;
};

} // namespace dolm
