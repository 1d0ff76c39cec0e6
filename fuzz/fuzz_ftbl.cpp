// The file table over arbitrary bytes. Input: the SKU to load as a u32, then the FTBL.
#include <cstring>
#include <memory>

#include "common/little_endian.h"
#include "efs_tools_utils.h"
#include "fuzz/require.h"

namespace {

void look_up_every_entry() {
    for (int32_t i = 0; i < g_table_num_files; ++i) {
        char name[sizeof(g_table_buf->name) + 1] = {};
        std::memcpy(name, g_table_buf[i].name, sizeof(g_table_buf->name));
        fileno_t fileno = 0;
        file_attributes_t attributes = 0;
        uint32_t max_size = 0;
        require(get_fileno_by_file_name(name, &fileno) == 0);
        require(get_file_name_by_fileno(&fileno, name) == 0);
        require(get_file_attributes_by_file_name(name, &attributes, &max_size) == 0);
        require(get_file_entry_by_fileno(&fileno) <= g_table_buf + i);
    }
}

void touch_every_slot() {
    uint32_t present = 0;
    for (uint32_t i = 0; EFS_files != nullptr && i < g_efs_files_num; ++i) {
        require(EFS_files[i].reserved == 0);
        present += EFS_files[i].present;
    }
    require(present == 0 || g_efs_autogen_data_loaded == 1);
    require(g_efs_files_num != 0 && g_efs_valid_block_num + g_efs_non_valid_block_num <= 256);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < sizeof(uint32_t)) {
        return 0;
    }
    const uint32_t sku = dolm::load_le32(data);
    const auto length = static_cast<uint32_t>(size - sizeof(uint32_t));
    // An exactly sized block of its own, so that a read behind the table is caught.
    const auto table = std::make_unique<uint8_t[]>(length);
    std::memcpy(table.get(), data + sizeof(uint32_t), length);

    load_autogen_data(table.get(), sku, length);
    touch_every_slot();
    load_file_table(table.get(), sku, length);
    touch_every_slot();
    look_up_every_entry();
    g_table_buf = nullptr;
    g_table_num_files = 0;
    return 0;
}
