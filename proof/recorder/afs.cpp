// Blocks of AFS operations: files, cache and translation layer on a store of random geometry.
#include <algorithm>
#include <cstring>
#include <memory>

#include "Afs.h"
#include "AfsCache.h"
#include "AfsCrc.h"
#include "AfsPhysical.h"
#include "AfsPhysicalWin32Spi.h"
#include "afs_image.h"
#include "device.h"

namespace recorder {
namespace {

constexpr uint32_t mount_flags = AFS_FLAG_ATTACH_DEVICE | AFS_FLAG_MOUNT_FTL | AFS_FLAG_FTL;
constexpr uint32_t most_bytes = 70000; // of a read or a write

void store_le(std::vector<uint8_t> &bytes, size_t at, uint32_t value, size_t width) {
    for (size_t i = 0; i < width; ++i) {
        bytes[at + i] = static_cast<uint8_t>(value >> (8 * i));
    }
}

uint32_t page_count(const AfsGeometry &geometry) {
    const uint32_t entries = geometry.file_count + geometry.data_eus * AFS_DATA_EU_PAGES;
    return (14 + 2 * entries + AFS_PAGE_SIZE - 1) / AFS_PAGE_SIZE;
}

// What goes wrong in a block.
struct Trouble {
    bool faults;
    bool cuts;
    bool damage;
    bool raw; // operations below the file layer, which can harm the store
};

class AfsBlock : public Block {
  public:
    explicit AfsBlock(uint64_t seed)
        : random_(seed), trouble_{random_.one_in(3), random_.one_in(2), random_.one_in(4),
                                  random_.one_in(3)},
          file_buffer_(AFS_FILE_BUFFER_SIZE), bytes_(most_bytes + 1) {
        context_.file_buffer = file_buffer_.data();
    }
    ~AfsBlock() override { device.attach({}); }

    void step() override {
        if (trouble_.faults && random_.one_in(8)) {
            plan_faults(random_);
        }
        if (image_.empty() || random_.one_in(trouble_.damage ? 150 : 600)) {
            make_store();
        } else if (!is_mounted_ || random_.one_in(40)) {
            mount();
        }
        const bool cut = trouble_.cuts && random_.one_in(15);
        if (cut) {
            device.cut_after(random_.skewed(200), random_.skewed(100));
        }
        if (trouble_.raw && random_.one_in(3)) {
            run_raw();
        } else {
            run_file();
        }
        device.clear_faults();
        record_state();
        if (cut && device.restore_power()) {
            mount();
        }
        if (trouble_.damage && random_.one_in(60)) {
            damage(random_, store());
            is_mounted_ = false;
        }
    }

  private:
    std::span<uint8_t> store() {
        return std::span(image_).subspan(geometry_.device_offset, geometry_.device_size);
    }

    void make_store() {
        record->operation("make a store");
        free_context();
        geometry_ = random_afs_geometry(random_);
        image_ = make_afs_image(geometry_);
        good_image_ = image_;
        lines_ = random_.one_in(3) ? random_.from_to(2, 4) : random_.from_to(2, 60);
        device.attach(image_);
        mount();
    }

    void free_context() {
        afs_free_context(&context_);
        is_mounted_ = false;
    }

    // After a failure the next one begins with an image that mounted before.
    void mount() {
        if (!random_.one_in(4)) {
            free_context();
        }
        uint32_t flags = mount_flags;
        flags |= random_.one_in(2) ? AFS_FLAG_FILE_SIZES : 0;
        flags |= random_.one_in(6) ? AFS_FLAG_PRELOAD_CACHE : 0;
        flags |= random_.one_in(40) ? AFS_FLAG_NO_CHUNK_MAP : 0;
        flags |= random_.one_in(80) ? AFS_FLAG_CREATE_FS : 0;
        if (trouble_.raw) {
            flags |= random_.one_in(60) ? AFS_FLAG_FORCE_FORMAT : 0;
            flags |= random_.one_in(60) ? AFS_FLAG_FORMAT_IF_BAD : 0;
            flags |= random_.one_in(60) ? AFS_FLAG_ERASE_ON_FORMAT : 0;
            flags = random_.one_in(60) ? random_.below(0x100000) & ~AFS_FLAG_ZERO_CONTEXT : flags;
        }
        record->operation("afs_init", {{"flags", flags}, {"lines", lines_}});
        const uint32_t status = record->status(
            afs_init(&context_, image_.data(), AFS_PAGE_SIZE, lines_, geometry_.file_count,
                     geometry_.device_offset, geometry_.device_size, flags, 3, 0x45));
        is_mounted_ = status == 0;
        if (is_mounted_) {
            pages_ = context_.data_va_start / AFS_PAGE_SIZE;
            good_image_ = random_.one_in(4) ? image_ : good_image_;
        }
        record_state();
        if (!is_mounted_) {
            image_ = good_image_;
            free_context();
            device.attach(image_);
        }
    }

    int32_t any_file() {
        if (random_.one_in(60)) {
            return static_cast<int32_t>(random_.next());
        }
        // Few files, so that the same ones change again and again.
        return static_cast<int32_t>(random_.one_in(8) ? random_.below(geometry_.file_count + 1)
                                                      : random_.below(20));
    }

    uint32_t any_length() {
        switch (random_.below(12)) {
        case 0:
            return 0;
        case 1:
            return random_.below(300000); // may be too large
        case 2:
            return random_.below(most_bytes);
        case 3:
        case 4:
            return random_.below(10) * AFS_PAGE_SIZE;
        default:
            return random_.skewed(random_.one_in(3) ? 6000 : 700);
        }
    }

    uint32_t any_offset() {
        return random_.one_in(2)    ? 0
               : random_.one_in(50) ? static_cast<uint32_t>(random_.next())
                                    : random_.skewed(9000);
    }

    void run_file() {
        const int32_t file = any_file();
        const auto number = static_cast<uint32_t>(file);
        switch (random_.below(24)) {
        case 0:
        case 1:
        case 2:
        case 3:
        case 4:
        case 5:
        case 6:
        case 7:
        case 8:
        case 9:
            return write(file);
        case 10:
        case 11:
        case 12:
        case 13:
            return read(file);
        case 14:
            return get_size(file);
        case 15:
        case 16:
            record->operation("afs_deletefile", {{"file", number}});
            record->status(afs_deletefile(&context_, file));
            return;
        case 17:
            record->operation("afs_mark_zombie_file", {{"file", number}});
            record->status(afs_mark_zombie_file(&context_, number));
            return;
        case 18:
            record->operation("afs_idle_reclaim_needed");
            record->status(afs_idle_reclaim_needed(&context_));
            record->operation("afs_idle_reclaim");
            record->status(afs_idle_reclaim(&context_));
            return;
        case 19:
            record->operation("afs_force_full_reclaim");
            record->status(afs_force_full_reclaim(&context_));
            return;
        default:
            return run_rare();
        }
    }

    void run_rare() {
        switch (random_.below(10)) {
        case 0:
            record->operation("afs_force_dirty_erase");
            record->status(afs_force_dirty_erase(&context_));
            return;
        case 1:
            lines_ = random_.from_to(2, 60);
            record->operation("afs_setcache", {{"lines", lines_}});
            record->status(afs_setcache(&context_, AFS_PAGE_SIZE, static_cast<int32_t>(lines_)));
            return;
        case 2:
            record->operation("afs_setcache, refused");
            record->status(afs_setcache(&context_, 100, 10));
            record->status(afs_setcache(&context_, AFS_PAGE_SIZE, 1));
            record->status(afs_setcache(&context_, AFS_PAGE_SIZE, 1001));
            return;
        case 3:
            record->operation("afs_free_file_size_table");
            afs_free_file_size_table(&context_);
            return;
        case 4:
            record->operation("afs_get_idle_reclaim_enabled");
            record->status(afs_get_idle_reclaim_enabled(&context_));
            afs_set_idle_reclaim_enabled(&context_);
            return;
        case 5:
            return read_all();
        case 6:
            return refuse();
        default:
            return write(any_file());
        }
    }

    void write(int32_t file) {
        const uint32_t offset = any_offset();
        const uint32_t length = any_length();
        const uint32_t flags = random_.one_in(3) ? AFS_WRITE_TRUNCATE : 0;
        random_.fill(std::span(bytes_).first(std::min<size_t>(length, 64)));
        const auto rest = static_cast<uint8_t>(random_.next());
        for (size_t i = 64; i < std::min(length, most_bytes); ++i) {
            bytes_[i] = static_cast<uint8_t>(rest + i * 31 + (i >> 8));
        }
        const bool refused = length > most_bytes; // then it must be above the largest file too
        const uint32_t asked = refused ? AFS_MAX_FILE_SIZE + length : length;
        record->operation("afs_writefile", {{"file", static_cast<uint32_t>(file)},
                                            {"offset", offset},
                                            {"length", asked},
                                            {"flags", flags}});
        record->status(afs_writefile(&context_, file, offset, asked, bytes_.data(), flags));
    }

    void read(int32_t file) {
        uint32_t length = std::min(any_length(), most_bytes);
        const uint32_t offset = any_offset();
        record->operation(
            "afs_readfile",
            {{"file", static_cast<uint32_t>(file)}, {"offset", offset}, {"length", length}});
        const uint32_t status =
            record->status(afs_readfile(&context_, file, offset, &length, bytes_.data()));
        record->result("length", length);
        if (status == 0) {
            record->bytes(Column::results, "bytes", std::span(bytes_).first(length));
        }
    }

    void get_size(int32_t file) {
        record->operation("afs_getfilesize", {{"file", static_cast<uint32_t>(file)}});
        uint32_t size = 0;
        record->status(afs_getfilesize(&context_, file, &size));
        record->result("size", size);
    }

    void read_all() {
        record->operation("read all files");
        for (uint32_t file = 0; file < context_.file_count; ++file) {
            uint32_t length = most_bytes;
            const uint32_t status =
                afs_readfile(&context_, static_cast<int32_t>(file), 0, &length, bytes_.data());
            if (status == AFS_RC_NO_FILE) {
                continue;
            }
            record->result("file", file);
            record->status(status);
            if (status == 0) {
                record->bytes(Column::results, "bytes", std::span(bytes_).first(length));
            }
        }
    }

    void refuse() {
        record->operation("refused arguments");
        uint32_t length = 10;
        record->status(afs_writefile(nullptr, 1, 0, 1, bytes_.data(), 0));
        record->status(afs_writefile(&context_, 1, 0, 1, nullptr, 0));
        record->status(afs_readfile(&context_, 1, 0, nullptr, bytes_.data()));
        record->status(afs_readfile(&context_, 1, 0, &length, nullptr));
        record->status(afs_getfilesize(&context_, 1, nullptr));
        record->status(afs_deletefile(&context_, -1));
        record->status(afs_mark_zombie_file(nullptr, 1));
        record->status(afs_idle_reclaim(nullptr));
        record->status(afs_idle_reclaim_needed(nullptr));
        record->status(cache_ptr(&context_, 0, nullptr));
        record->status(afs_physical_ftl_read_page(&context_, 0, AFS_PAGE_SIZE, nullptr, 0));
        record->status(choose_eu_to_reclaim(&context_, 0, 0, nullptr, 0));
    }

    uint32_t any_va() {
        const uint32_t end = context_.total_va_size + (random_.one_in(20) ? 100000 : 0);
        return random_.below(random_.one_in(2) ? end + 1 : context_.data_va_start + 1);
    }
    uint32_t any_eu() { return random_.below(geometry_.device_size / AFS_EU_SIZE + 1); }
    uint32_t eu_address(uint32_t eu) const { return geometry_.device_offset + eu * AFS_EU_SIZE; }

    void run_raw() {
        if (!is_mounted_) {
            return refuse();
        }
        switch (random_.below(4)) {
        case 0:
            return run_page();
        case 1:
            return run_cache();
        case 2:
            return run_chunk();
        default:
            return random_.one_in(4) ? run_reclaim_step() : run_reclaim();
        }
    }

    void run_page() {
        const uint32_t va = any_va();
        const uint32_t count = random_.from_to(0, 62);
        std::vector<uint8_t> page(AFS_PAGE_SIZE);
        random_.fill(page);
        switch (random_.below(8)) {
        case 0:
        case 1: {
            record->operation("afs_physical_ftl_read_page", {{"va", va}});
            record->status(
                afs_physical_ftl_read_page(&context_, va, AFS_PAGE_SIZE, page.data(), 0));
            record->bytes(Column::results, "bytes", page);
            return;
        }
        case 2:
            record->operation("afs_physical_ftl_write_page", {{"va", va}});
            record->status(
                afs_physical_ftl_write_page(&context_, va, AFS_PAGE_SIZE, page.data(), 0));
            return;
        case 3:
            record->operation("afs_physical_ftl_trim_page", {{"va", va}});
            record->status(afs_physical_ftl_trim_page(&context_, va, AFS_PAGE_SIZE, 0));
            return;
        case 4:
        case 5:
            record->operation("afs_physical_ftl_read_data_pages", {{"va", va}, {"count", count}});
            return record_pages(
                afs_physical_ftl_read_data_pages(&context_, bytes_.data(), va, count), count);
        case 6: {
            const uint32_t eu = any_eu();
            const uint32_t slot = random_.below(AFS_DATA_EU_PAGES - 61);
            const uint32_t first_page = random_.below(0x10000);
            record->operation("read_ftl_data_pages",
                              {{"eu", eu}, {"slot", slot}, {"count", count}});
            return record_pages(
                read_ftl_data_pages(&context_, eu, slot, count, first_page, bytes_.data()), count);
        }
        default:
            record->operation("afs_sub_pt_read", {{"offset", va}});
            if (record->status(afs_sub_pt_read(&context_, va, 64, page.data())) == 0) {
                record->bytes(Column::results, "bytes", page);
                record->status(afs_sub_pt_write(&context_, va, 64, page.data()));
            }
            record->status(afs_sub_pt_trim(&context_, va, 64));
        }
    }

    void record_pages(uint32_t status, uint32_t count) {
        if (record->status(status) == 0) {
            record->bytes(Column::results, "bytes",
                          std::span(bytes_).first(count * size_t{AFS_PAGE_SIZE}));
        }
    }

    void run_cache() {
        const auto page = static_cast<uint16_t>(any_va() / AFS_PAGE_SIZE);
        void *line = nullptr;
        switch (random_.below(12)) {
        case 0:
            record->operation("cache_invalidate");
            cache_invalidate(&context_);
            return;
        case 1:
            lines_ = random_.from_to(2, 60);
            record->operation("cache_init", {{"lines", lines_}});
            record->status(cache_init(&context_, AFS_PAGE_SIZE, static_cast<uint16_t>(lines_)));
            return;
        case 2:
        case 3:
            record->operation("cache_flush");
            record->status(cache_flush(&context_));
            return;
        default:
            record->operation("cache_ptr", {{"page", page}});
            if (record->status(cache_ptr(&context_, page, &line)) != 0) {
                return;
            }
            record->bytes(Column::results, "bytes", {static_cast<uint8_t *>(line), AFS_PAGE_SIZE});
            if (random_.one_in(4)) {
                const uint32_t at = random_.below(AFS_PAGE_SIZE);
                uint8_t &byte = static_cast<uint8_t *>(line)[at];
                byte = static_cast<uint8_t>(random_.one_in(10) ? byte ^ 1 : byte);
                record->operation("cache_line_written");
                cache_line_written(&context_, static_cast<uint8_t *>(line) + at);
            }
        }
    }

    void run_chunk() {
        const auto cid =
            static_cast<uint16_t>(random_.below(context_.file_count + context_.chunk_count + 2U));
        uint16_t value = 0;
        switch (random_.below(9)) {
        case 0:
        case 1:
            record->operation("afs_allocate_chunk");
            record->status(afs_allocate_chunk(&context_, &value));
            return record->result("cid", value);
        case 2:
            record->operation("afs_physical_ftl_allocate_page");
            record->status(afs_physical_ftl_allocate_page(&context_, &value));
            return record->result("cid", value);
        case 3:
        case 4:
        case 5:
            record->operation("afs_get_next_cid", {{"cid", cid}});
            record->status(afs_get_next_cid(&context_, cid, &value));
            return record->result("value", value);
        case 6:
            value = static_cast<uint16_t>(random_.below(context_.chunk_count + 1U));
            record->operation("afs_trim_fat_page_if_needed", {{"chunk", value}});
            afs_trim_fat_page_if_needed(&context_, value);
            return;
        case 7:
            record->operation("afs_physical_ftl_set_allocation_map");
            record->status(afs_physical_ftl_set_allocation_map(&context_));
            record->result("data vas", afs_physical_ftl_get_data_vas(&context_, 0));
            return;
        default: {
            const uint32_t count = random_.from_to(1, 5);
            const bool invalidate = random_.one_in(3);
            std::vector<uint16_t> cids(count);
            for (uint16_t &other : cids) {
                other = static_cast<uint16_t>(context_.file_count +
                                              random_.below(context_.chunk_count));
            }
            record->operation("afs_release_resources",
                              {{"first", cid}, {"count", count}, {"invalidate", invalidate}});
            record->status(afs_release_resources(
                &context_, cid, count, random_.one_in(3) ? nullptr : cids.data(), invalidate));
        }
        }
    }

    void run_reclaim() {
        uint32_t eu = any_eu();
        uint32_t mode = random_.below(2);
        uint32_t kind = random_.below(3);
        switch (random_.below(7)) {
        case 0:
            record->operation("reclaim_eu_wrapper", {{"kind", kind % 2}});
            record->status(reclaim_eu_wrapper(&context_, kind % 2));
            return;
        case 1:
        case 2:
            for (uint32_t idle = 0; idle < 2; ++idle) {
                record->operation("choose_eu_to_reclaim", {{"kind", kind}, {"idle", idle}});
                record->result("eu", choose_eu_to_reclaim(&context_, kind % 2, random_.below(2),
                                                          &mode, static_cast<uint8_t>(idle)));
                record->result("mode", mode);
            }
            return;
        case 3:
            record->operation("reclaim_eu", {{"eu", eu}, {"mode", mode}});
            record->status(reclaim_eu(&context_, eu, static_cast<int32_t>(mode)));
            return;
        case 4:
            record->operation("afs_physical_ftl_idle_reclaim_needed");
            record->status(afs_physical_ftl_idle_reclaim_needed(&context_, &eu, &kind));
            record->result("eu", eu);
            return record->result("kind", kind);
        case 5:
            record->operation("afs_physical_ftl_end_reserved_files_mode");
            record->status(afs_physical_ftl_end_reserved_files_mode(&context_));
            return;
        default:
            record->operation("afs_physical_ftl_idle_reclaim");
            record->status(afs_physical_ftl_idle_reclaim(&context_));
        }
    }

    // Steps of a reclaim by themselves leave a store that has to be mounted again.
    void run_reclaim_step() {
        const uint32_t source = any_eu();
        const uint32_t target = any_eu();
        switch (random_.below(4)) {
        case 0: {
            const uint32_t slot = random_.below(AFS_DATA_EU_PAGES - 61);
            const uint32_t count = random_.from_to(1, 62);
            std::vector<uint8_t> other(4096);
            record->operation(
                "ftl_copy_pages",
                {{"source", source}, {"target", target}, {"slot", slot}, {"count", count}});
            record->status(ftl_copy_pages(&context_, eu_address(source), eu_address(target), slot,
                                          count, bytes_.data(), other.data(),
                                          random_.below(0x10000)));
            break;
        }
        case 1:
            if (source >= context_.ftl->eu_count || target >= context_.ftl->eu_count) {
                return;
            }
            record->operation("reclaim_eu_write_eu_header",
                              {{"target", target}, {"source", source}});
            record->status(reclaim_eu_write_eu_header(&context_, target, source, eu_address(target),
                                                      eu_address(source)));
            break;
        case 2:
            record->operation("ftl_process_pages", {{"eu", source}});
            record->status(
                ftl_process_pages(&context_, source, static_cast<uint8_t>(random_.below(2))));
            break;
        default: {
            const bool erase = random_.one_in(2);
            record->operation("afs_physical_ftl_format", {{"erase", erase}});
            record->status(afs_physical_ftl_format(&context_, erase ? 1 : 0));
        }
        }
        record_state();
        mount();
    }

    void record_state() {
        record->bytes(Column::image, "afs", image_);
        record->field("data_va_start", context_.data_va_start);
        record->field("next_free_chunk", context_.next_free_chunk);
        record->field("device_offset", context_.device_offset);
        record->field("device_size", context_.device_size);
        record->field("total_va_size", context_.total_va_size);
        record->field("fs_version", context_.fs_version);
        record->field("last_fat_page", context_.last_fat_page);
        record->field("cache_head", context_.cache_head);
        record->field("chunk_count", context_.chunk_count);
        record->field("page_size", context_.page_size);
        record->field("cache_line_count", context_.cache_line_count);
        record->field("file_count", context_.file_count);
        record->field("physical_kind", context_.physical_kind);
        record->field("ftl_allocator", context_.ftl_allocator);
        record->field("no_chunk_map", context_.no_chunk_map);
        record->field("idle_reclaim_enabled", context_.idle_reclaim_enabled);
        record->field("arrays", (context_.ftl != nullptr) + 2U * (context_.ops != nullptr) +
                                    4U * (context_.chunk_map != nullptr) +
                                    8U * (context_.cache_lines != nullptr) +
                                    16U * (context_.file_sizes != nullptr) +
                                    32U * (context_.cache_data != nullptr));
        if (is_mounted_) {
            record_arrays();
            record_ftl(*context_.ftl);
        }
    }

    void record_arrays() {
        if (context_.chunk_map != nullptr) {
            record->bytes(Column::fields, "chunk_map",
                          bytes_of(context_.chunk_map, context_.chunk_count / 32 + 1U));
        }
        if (context_.file_sizes != nullptr) {
            record->bytes(Column::fields, "file_sizes",
                          bytes_of(context_.file_sizes, context_.file_count));
        }
        if (context_.cache_lines == nullptr || context_.cache_data == nullptr) {
            return;
        }
        record->bytes(Column::fields, "cache_lines",
                      bytes_of(context_.cache_lines, context_.cache_line_count));
        for (uint32_t i = 0; i < context_.cache_line_count; ++i) {
            if ((context_.cache_lines[i].flags_and_link & 1) != 0) {
                record->bytes(Column::fields, "cache_data",
                              {context_.cache_data + i * size_t{AFS_PAGE_SIZE}, AFS_PAGE_SIZE});
            }
        }
    }

    void record_ftl(const afs_ftl_state &ftl) {
        record->field("sequence", ftl.sequence);
        record->field("write_eu", ftl.write_eu);
        record->field("write_slot", ftl.write_slot);
        record->field("alloc_cursor", ftl.alloc_cursor);
        record->field("alloc_end", ftl.alloc_end);
        record->field("spare_eu", ftl.spare_eu);
        record->field("last_page", ftl.last_page);
        record->field("alloc_checks_flash", ftl.alloc_checks_flash);
        record->field("reclaim_armed", ftl.reclaim_armed);
        record->field("eu_count", ftl.eu_count);
        record->field("ftl_eu_count", ftl.ftl_eu_count);
        record->field("reclaim_cursor", ftl.reclaim_cursor);
        record->bytes(Column::fields, "eu_table", bytes_of(ftl.eu_table, ftl.eu_count));
        record->bytes(Column::fields, "page_map", bytes_of(ftl.page_map, pages_));
    }

    // Of records without padding.
    template <typename T>
    static std::span<const uint8_t> bytes_of(const T *items, size_t count) {
        return {reinterpret_cast<const uint8_t *>(items), count * sizeof(T)};
    }

    Random random_;
    Trouble trouble_;
    AfsGeometry geometry_;
    std::vector<uint8_t> image_;
    std::vector<uint8_t> good_image_;
    std::vector<uint8_t> file_buffer_;
    std::vector<uint8_t> bytes_;
    afs_context context_{};
    uint32_t lines_ = 10;
    uint32_t pages_ = 0; // below data_va_start at the last mount
    bool is_mounted_ = false;
};

} // namespace

AfsGeometry random_afs_geometry(Random &random) {
    AfsGeometry geometry;
    geometry.data_eus = random.one_in(4) ? random.from_to(1, 2) : random.from_to(2, 14);
    geometry.file_count = random.one_in(3) ? AFS_MIN_FILE_COUNT : random.from_to(66, 400);
    geometry.device_offset = random.one_in(2) ? 0 : random.below(4) * 4096;
    const uint32_t log_eus =
        (page_count(geometry) + AFS_FTL_EU_PAGES - 1) / AFS_FTL_EU_PAGES + random.from_to(1, 3);
    // A part behind the last whole EU is not used.
    geometry.device_size = (geometry.data_eus + log_eus + 1) * AFS_EU_SIZE + random.below(3) * 4096;
    geometry.device_size = std::max(geometry.device_size, AFS_MIN_DEVICE_SIZE);
    return geometry;
}

std::vector<uint8_t> make_afs_image(const AfsGeometry &geometry) {
    std::vector<uint8_t> image(geometry.device_offset + geometry.device_size, 0xFF);
    const uint32_t chunks = geometry.data_eus * AFS_DATA_EU_PAGES;
    afs_context context{};
    context.data_va_start = page_count(geometry) * AFS_PAGE_SIZE;
    context.total_va_size = context.data_va_start + chunks * AFS_PAGE_SIZE;
    context.device_offset = geometry.device_offset;
    context.device_size = geometry.device_size;
    context.image = image.data();
    device.attach(image);
    std::vector<uint8_t> header(AFS_PAGE_SIZE);
    store_le(header, 0, 0x724F6201, 4);
    store_le(header, 8, context.total_va_size, 4);
    store_le(header, 12, geometry.file_count, 2);
    // The first mount finds nothing, but sets up the tables that the format reads.
    record->status(afs_physical_ftl_init(&context, context.device_size,
                                         AFS_FTL_ALLOCATE_TABLES | AFS_FLAG_ATTACH_DEVICE));
    record->status(afs_physical_ftl_format(&context, 0));
    record->status(afs_physical_ftl_init(&context, context.device_size, 0));
    record->status(afs_physical_ftl_write_page(&context, 0, AFS_PAGE_SIZE, header.data(), 0));
    afs_free_context(&context);
    return image;
}

std::unique_ptr<Block> make_afs_block(uint64_t seed) {
    return std::make_unique<AfsBlock>(seed);
}

} // namespace recorder
