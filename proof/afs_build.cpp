#include "proof/afs_build.h"

#include <algorithm>
#include <string>

#include "AfsFtl.h"
#include "image/afs_records.h"
#include "image/bytes.h"

namespace dolm {
namespace {

// Attach the image, mount the FTL, keep a table of file sizes.
constexpr uint32_t mount_flags =
    AFS_FLAG_ATTACH_DEVICE | AFS_FLAG_MOUNT_FTL | AFS_FLAG_FTL | AFS_FLAG_FILE_SIZES;

std::string number(uint64_t value) {
    return std::to_string(value);
}

void check_status(uint32_t status, const std::string &what) {
    if (status != 0) {
        throw AfsBuildError(what + " failed with status " + number(status));
    }
}

void check_device(const AfsLayout &layout) {
    const uint32_t eu_count = layout.device_size / AFS_EU_SIZE;
    if (layout.device_size % AFS_EU_SIZE != 0) {
        throw AfsBuildError("the AFS size " + number(layout.device_size) +
                            " is no multiple of the erase unit of " + number(AFS_EU_SIZE) +
                            " bytes");
    }
    if (layout.device_size < AFS_MIN_DEVICE_SIZE || eu_count > AFS_MAX_EU_COUNT) {
        throw AfsBuildError("the AFS size " + number(layout.device_size) + " is not from " +
                            number(AFS_MIN_DEVICE_SIZE) + " to " +
                            number(AFS_MAX_EU_COUNT * AFS_EU_SIZE) + " bytes");
    }
    if (layout.file_count < AFS_MIN_FILE_COUNT || layout.file_count > AFS_MAX_FILE_COUNT) {
        throw AfsBuildError(number(layout.file_count) + " AFS file slots are not from " +
                            number(AFS_MIN_FILE_COUNT) + " to " + number(AFS_MAX_FILE_COUNT));
    }
    if (layout.data_eus == 0 || layout.data_eus > eu_count) {
        throw AfsBuildError(number(layout.data_eus) + " data EUs are not from 1 to " +
                            number(eu_count));
    }
}

// Each chunk costs its bytes and an entry of the allocation table.
uint32_t chunks_of_total(const AfsLayout &layout) {
    const uint32_t slots_end = afs::fs_header_size + 2 * layout.file_count;
    if (layout.total_va_size < slots_end) {
        throw AfsBuildError("a VA space of " + number(layout.total_va_size) +
                            " bytes has no room for the file slots");
    }
    return (layout.total_va_size - slots_end) / (AFS_PAGE_SIZE + 2);
}

// The store takes as many data EUs as fill the VA space.
void check_total(const AfsLayout &layout, const AfsGeometry &geometry) {
    const uint32_t total = layout.total_va_size;
    const uint32_t start = geometry.data_va_start;
    const uint32_t eus = total > start ? (total - start) / AFS_DATA_EU_BYTES : 0;
    if (eus != layout.data_eus) {
        throw AfsBuildError("a VA space of " + number(total) + " bytes has " + number(eus) +
                            " data EUs, not " + number(layout.data_eus));
    }
}

std::vector<uint8_t> header_page(const AfsLayout &layout, const AfsGeometry &geometry) {
    std::vector<uint8_t> page(AFS_PAGE_SIZE);
    put_le(page, 0, afs::fs_magic, 4);
    put_le(page, 4, layout.fs_version, 4);
    put_le(page, 8, geometry.total_va_size, 4);
    put_le(page, 12, layout.file_count, 2);
    return page;
}

// The tables of an FTL that is only used to write a format, not to serve files.
class BareFtl {
  public:
    BareFtl(const AfsGeometry &geometry, std::span<uint8_t> image) {
        context_.data_va_start = geometry.data_va_start;
        context_.total_va_size = geometry.total_va_size;
        context_.device_size = static_cast<uint32_t>(image.size());
        context_.image = image.data();
        // This mount finds nothing, but sets up the tables that the format reads.
        afs_physical_ftl_init(&context_, context_.device_size,
                              AFS_FTL_ALLOCATE_TABLES | AFS_FLAG_ATTACH_DEVICE);
    }
    ~BareFtl() { afs_free_context(&context_); }
    BareFtl(const BareFtl &) = delete;
    BareFtl &operator=(const BareFtl &) = delete;

    afs_context *context() { return &context_; }

  private:
    afs_context context_{};
};

void check_files(const AfsLayout &layout, std::span<const AfsFileInput> files) {
    uint64_t chunks = 0;
    for (const AfsFileInput &file : files) {
        if (file.number >= layout.file_count) {
            throw AfsBuildError("AFS file " + number(file.number) + " is not below " +
                                number(layout.file_count));
        }
        if (file.contents.size() > AFS_MAX_FILE_SIZE) {
            throw AfsBuildError("AFS file " + number(file.number) + " has " +
                                number(file.contents.size()) + " bytes; the largest file has " +
                                number(AFS_MAX_FILE_SIZE));
        }
        chunks += afs_chunks(file.contents.size());
    }
    if (const auto problem = afs_room_problem(layout, chunks)) {
        throw AfsBuildError(*problem);
    }
}

} // namespace

AfsGeometry afs_geometry(const AfsLayout &layout) {
    check_device(layout);
    AfsGeometry geometry;
    geometry.eu_count = layout.device_size / AFS_EU_SIZE;
    geometry.chunk_count =
        layout.total_va_size != 0 ? chunks_of_total(layout) : layout.data_eus * AFS_DATA_EU_PAGES;
    const uint32_t table_end = afs::fs_header_size + 2 * (layout.file_count + geometry.chunk_count);
    geometry.data_va_start = (table_end + AFS_PAGE_SIZE - 1) / AFS_PAGE_SIZE * AFS_PAGE_SIZE;
    geometry.total_va_size = geometry.data_va_start + geometry.chunk_count * AFS_PAGE_SIZE;
    if (layout.total_va_size != 0) {
        check_total(layout, geometry);
        geometry.total_va_size = layout.total_va_size;
    }

    const uint32_t pages = geometry.data_va_start / AFS_PAGE_SIZE;
    const uint32_t log_eus_needed = (pages + AFS_FTL_EU_PAGES - 1) / AFS_FTL_EU_PAGES + 1;
    const uint32_t eus_needed = layout.data_eus + log_eus_needed + 1;
    if (eus_needed > geometry.eu_count) {
        throw AfsBuildError(number(layout.data_eus) + " data EUs and " + number(layout.file_count) +
                            " files have " + number(pages) + " metadata pages; with " +
                            number(log_eus_needed) + " EUs for their log and a spare they need " +
                            number(eus_needed * AFS_EU_SIZE) + " bytes, not " +
                            number(layout.device_size));
    }
    geometry.log_eus = geometry.eu_count - 1 - layout.data_eus;
    return geometry;
}

uint64_t afs_chunks(uint64_t size) {
    return (size + AFS_PAGE_SIZE - 1) / AFS_PAGE_SIZE;
}

std::optional<std::string> afs_room_problem(const AfsLayout &layout, uint64_t chunks) {
    // A chunk behind the data EUs cannot be used.
    const uint32_t room =
        std::min(afs_geometry(layout).chunk_count, layout.data_eus * AFS_DATA_EU_PAGES);
    if (chunks <= room) {
        return std::nullopt;
    }
    return "the files take " + number(chunks) + " chunks of " + number(AFS_PAGE_SIZE) +
           " bytes, there are " + number(room);
}

std::vector<uint8_t> format_afs_image(const AfsLayout &layout) {
    const AfsGeometry geometry = afs_geometry(layout);
    std::vector<uint8_t> image(layout.device_size, 0xFF);
    BareFtl ftl(geometry, image);
    check_status(afs_physical_ftl_format(ftl.context(), 0), "the AFS format");
    check_status(afs_physical_ftl_init(ftl.context(), layout.device_size, 0),
                 "the mount of the AFS format");
    const auto page = header_page(layout, geometry);
    check_status(afs_physical_ftl_write_page(ftl.context(), 0, AFS_PAGE_SIZE, page.data(), 0),
                 "the write of the AFS header");
    return image;
}

std::vector<uint8_t> build_afs_image(const AfsLayout &layout, std::span<const AfsFileInput> files) {
    check_files(layout, files);
    std::vector<uint8_t> image = format_afs_image(layout);
    AfsMount mount(image);
    check_status(mount.status(), "the mount of the AFS image");
    for (const AfsFileInput &file : files) {
        check_status(afs_writefile(mount.context(), static_cast<int32_t>(file.number), 0,
                                   static_cast<uint32_t>(file.contents.size()),
                                   file.contents.data(), 0),
                     "the write of AFS file " + number(file.number));
    }
    return image;
}

AfsMount::AfsMount(std::span<uint8_t> image, uint32_t cache_lines)
    : file_buffer_(AFS_FILE_BUFFER_SIZE) {
    context_.file_buffer = file_buffer_.data();
    status_ = afs_init(&context_, image.data(), AFS_PAGE_SIZE, cache_lines, AFS_MAX_FILE_COUNT, 0,
                       static_cast<uint32_t>(image.size()), mount_flags, 0, 0);
}

AfsMount::~AfsMount() {
    afs_free_context(&context_);
}

} // namespace dolm
