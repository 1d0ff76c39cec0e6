#include "miniVfs.h"

#include "dfs.h"
#include "efs_tools_utils.h"
#include "fcs/file_table.h"

namespace {

enum : uint32_t {
    ok = 0,
    failed = 1,
    not_in_table = 2,
    read_failed = 6,
};

constexpr uint32_t class_mask = 0xF0000000; // of a fileno; the same bits of a file number
constexpr uint32_t file_id_mask = 0x7FF;
constexpr uint32_t store_shift = 11;
constexpr uint8_t store_afs = 1; // the one store that its selector does not repeat: AFS is 0 there

uint32_t file_number_of(const file_table_entry_t &entry) {
    const uint32_t selector =
        entry.store == store_afs ? 0 : static_cast<uint32_t>(entry.store) << store_shift;
    return (dolm::entry_fileno(entry) & class_mask) | (dolm::entry_file_id(entry) & file_id_mask) |
           selector;
}

} // namespace

uint32_t pathToFileNumber(const char *path, uint32_t *number_out) {
    if (number_out == nullptr) {
        return failed;
    }
    const file_table_entry_t *entry = get_file_entry_by_file_name(path);
    if (entry == nullptr) {
        return not_in_table;
    }
    *number_out = file_number_of(*entry);
    return ok;
}

uint32_t readVfs(const char *path, uint32_t offset, void *buffer, uint32_t length) {
    uint32_t number = 0;
    if (pathToFileNumber(path, &number) != ok) {
        return not_in_table;
    }
    return dfs_read(number, offset, &length, buffer) == DFS_OK ? ok : read_failed;
}

uint32_t mini_vfs_init(void *image, uint32_t size) {
    return dfs_init(image, size) == DFS_OK ? ok : failed;
}
