// Memory that catches an access outside it.
#pragma once

#ifdef _WIN32
#include <windows.h>
#else
#include <sys/mman.h>
#include <unistd.h>
#endif

#include <algorithm>
#include <cstdint>

#include "image/bytes.h"

namespace dolm::proof {

// Read-only copy of bytes that ends where unreadable memory starts.
class GuardedBytes {
  public:
    explicit GuardedBytes(const Bytes &bytes) {
        const size_t used = (bytes.size() + page - 1) / page * page;
        map_size_ = used + page;
        map_ = take(map_size_);
        data_ = map_ + used - bytes.size();
        std::copy(bytes.begin(), bytes.end(), data_);
        protect(map_, used, page);
    }
    ~GuardedBytes() { give_back(map_, map_size_); }
    GuardedBytes(const GuardedBytes &) = delete;
    GuardedBytes &operator=(const GuardedBytes &) = delete;

    const uint8_t *data() const { return data_; }

  private:
#ifdef _WIN32
    static constexpr size_t page = 4096;

    static uint8_t *take(size_t size) {
        return static_cast<uint8_t *>(
            VirtualAlloc(nullptr, size, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE));
    }
    static void protect(uint8_t *map, size_t readable, size_t closed) {
        DWORD before = 0;
        VirtualProtect(map + readable, closed, PAGE_NOACCESS, &before);
        if (readable != 0) {
            VirtualProtect(map, readable, PAGE_READONLY, &before);
        }
    }
    static void give_back(uint8_t *map, size_t) {
        VirtualFree(map, 0, MEM_RELEASE);
    }
#else
    static inline const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));

    static uint8_t *take(size_t size) {
        return static_cast<uint8_t *>(
            mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    }
    static void protect(uint8_t *map, size_t readable, size_t closed) {
        mprotect(map, readable, PROT_READ);
        mprotect(map + readable, closed, PROT_NONE);
    }
    static void give_back(uint8_t *map, size_t size) {
        munmap(map, size);
    }
#endif

    uint8_t *map_;
    uint8_t *data_;
    size_t map_size_;
};

} // namespace dolm::proof
