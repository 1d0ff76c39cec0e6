// Start-up and termination.

#include "qoqfs.h"

#include <array>
#include <cstdlib>
#include <exception>
#include <functional>
#include <utility>

#include "common/little_endian.h"
#include "frontend/deployed_vfs.h"
#include "frontend/fcs_tables.h"
#include "frontend/report.h"
#include "memory_utils.h"
#include "vynerrors.h"

using namespace dolm;
using namespace dolm::frontend;

namespace {

// The head of "vync.cfg": bytes 8 to 11 hold the length of the store behind it; nothing else in it
// is read.
constexpr uint32_t vync_head_size = 16;
constexpr uint32_t vync_head_length_offset = 8;

bool check_inputs(const _commonDolmInputs *inputs) {
    if (inputs == nullptr || inputs->orvelCfg.size == 0) {
        report_error(IMAGE_TOOLS_ORVEL_CFG_LOAD_FAILED,
                     "Orvel.cfg table is mandatory for loading by DOLM.");
        return false;
    }
    if (!verifyOrvelTable("Orvel.cfg table", inputs->orvelCfg) ||
        !verifyOrvelTable("vync.cfg", inputs->vyncCfg) ||
        !verifyOrvelTable("ftbl.bin", inputs->ftbl) || !verifyOrvelTable("QFS", inputs->qfsImage) ||
        !verifyOrvelTable("EFS", inputs->efsImage)) {
        return false;
    }
    if (inputs->ftbl.size == 0) {
        report_error(IMAGE_TOOLS_FTBL_LOAD_FAILED,
                     "ftbl data must be defined for flat VFS, but not load by DOLM.");
        return false;
    }
    return true;
}

// The state that a new start-up replaces. It is released only when that start-up is over, since the
// new inputs may be bytes that the library handed out itself.
class superseded_state {
  public:
    explicit superseded_state(std::vector<uint8_t> new_file_table)
        : tables_{std::exchange(s_builtVynCfgTable, {unset_table, {}}),
                  std::exchange(s_vynCfgTable, {unset_table, {}}),
                  std::exchange(s_orvelCfgTable, {unset_table, {}}),
                  std::exchange(s_currentValuesTable, {unset_table, {}})},
          file_table_(std::exchange(s_fileTableBuffer, std::move(new_file_table))) {
        s_fcsInitialized = false;
        forget_flash();
        clear_selection();
    }
    ~superseded_state() {
        for (indexed_table &table : tables_) {
            qoQfsFreeFcsTable(table);
        }
    }
    superseded_state(const superseded_state &) = delete;
    superseded_state &operator=(const superseded_state &) = delete;

  private:
    // A SKU without rows keeps the selection of the start-up before; it must not point into bytes
    // that are about to go.
    void clear_selection() {
        const auto *selected = reinterpret_cast<const uint8_t *>(g_table_buf);
        const uint8_t *begin = file_table_.data();
        const std::less_equal<> not_after;
        if (selected != nullptr && not_after(begin, selected) &&
            not_after(selected, begin + file_table_.size())) {
            g_table_buf = nullptr;
            g_table_num_files = 0;
        }
    }

    std::array<indexed_table, 4> tables_;
    std::vector<uint8_t> file_table_;
};

// Gives the table a buffer of its own with a copy of the bytes.
bool copy_into_buffer(FcsTable &table, const uint8_t *bytes, uint32_t size) {
    // malloc of 0 bytes may give null, which is no lack of memory.
    table.buffer = static_cast<uint8_t *>(std::malloc(size == 0 ? 1 : size));
    if (table.buffer == nullptr) {
        report_error(IMAGE_TOOLS_OUT_OF_MEMORY);
        return false;
    }
    table.bufferSize = size;
    return qoQfsMemCpy(table.buffer, size, bytes, size) == BYTE_COPY_OK;
}

bool load_from_buffer(indexed_table &table) {
    if (!qoQfsLoadFcsTableFiles(table, true)) {
        qoQfsFreeFcsTable(table);
        return false;
    }
    return true;
}

bool load_orvel_cfg(const _commonDolmTable &input) {
    s_orvelCfgTable = {};
    return copy_into_buffer(s_orvelCfgTable, input.data, input.size) &&
           load_from_buffer(s_orvelCfgTable);
}

bool load_vync_cfg(const _commonDolmTable &input) {
    s_vynCfgTable = {};
    if (input.size == 0) {
        s_vynCfgTable.fileName = FCS_FILE_VYN_CFG;
        return open_empty_store(s_vynCfgTable);
    }
    if (input.size < vync_head_size) {
        report_error(IMAGE_TOOLS_BUFFER_PARSING_ERROR, "Invalid VYNC partition length");
        return false;
    }
    const uint32_t length = load_le32(input.data + vync_head_length_offset);
    if (length > input.size - vync_head_size) {
        report_error(IMAGE_TOOLS_QFS_INIT_FAILED, "Invalid VYNC partition size.");
        return false;
    }
    return copy_into_buffer(s_vynCfgTable, input.data + vync_head_size, length) &&
           load_from_buffer(s_vynCfgTable);
}

bool bring_up_tables(const _commonDolmInputs &inputs) {
    if (!load_orvel_cfg(inputs.orvelCfg) || !load_vync_cfg(inputs.vyncCfg)) {
        return false;
    }
    if (!qoQfsGenerateFcsCurrentsTable()) {
        report_error(IMAGE_TOOLS_CURRENT_VALUES_GENERATE_FAILED);
        return false;
    }
    s_fcsInitialized = true;
    return true;
}

bool start_up(const _commonDolmInputs *inputs) {
    VynErrors::init();
    if (!check_inputs(inputs)) {
        return false;
    }
    const uint8_t *file_table = inputs->ftbl.data;
    const superseded_state superseded({file_table, file_table + inputs->ftbl.size});
    s_mDolmLoadFileTable = true;
    s_mDolmAfsSkuId = inputs->afsSkuId;
    return bring_up_tables(*inputs) && bring_up_flash(*inputs);
}

void tear_down() {
    free_all_tables();
    take_afs_down();
}

// All copies first, then the flash, then the bytes: a value that the store refuses must not have
// reached the flash.
bool build_store() {
    qoQfsFreeFcsTable(s_builtVynCfgTable);
    s_builtVynCfgTable = {};
    s_builtVynCfgTable.fileName = FCS_FILE_VYN_CFG;
    return open_empty_store(s_builtVynCfgTable) && copy_current_values_to_built() &&
           write_back_to_flash(s_builtVynCfgTable) && qoQfsSerializeFcsTable();
}

// The built store takes the place of the overriding values, as a list and bytes without a handle.
void replace_overriding_values() {
    qoQfsFreeFcsTable(s_currentValuesTable);
    qoQfsFreeFcsTable(s_vynCfgTable);
    s_vynCfgTable = std::move(s_builtVynCfgTable);
    s_builtVynCfgTable.buffer = nullptr;
    s_builtVynCfgTable.firstEntry = nullptr;
    s_builtVynCfgTable.entryCount = 0;
    void *handle = s_builtVynCfgTable.handle;
    closeHandle(&handle);
    s_builtVynCfgTable.handle = nullptr;
    s_vynCfgTable.handle = nullptr;
}

bool make_current_values_anew() {
    if (!qoQfsGenerateFcsCurrentsTable()) {
        report_error(IMAGE_TOOLS_CURRENT_VALUES_CREATE_FAILED);
        return false;
    }
    return true;
}

} // namespace

bool qoQfsDolmInit(const _commonDolmInputs *inputs, DolmStatusCallback statusCallback) {
    s_mDolmStatusCallback = statusCallback; // first, so that it hears of missing memory too
    try {
        return start_up(inputs);
    } catch (const std::exception &) { // no memory for the catalogue or the file table
        report_error(IMAGE_TOOLS_OUT_OF_MEMORY);
        return false;
    }
}

bool qoQfsIsInitialized(void) {
    return s_qfsInitialized;
}

bool qoFcsIsInitialized(void) {
    return s_fcsInitialized;
}

FcsFileName qoQfsGetFcsFileNameMapping(uint32_t index) {
    switch (index) {
    case 0:
        return FCS_FILE_ORVEL_CFG;
    case 1:
        return FCS_FILE_VYN_CFG;
    case 2:
        return FCS_FILE_CURRENT_VALUES;
    default:
        report_error(IMAGE_TOOLS_NO_ERROR, "Invalid fcsFileNameMap value");
        return FCS_FILE_CURRENT_VALUES;
    }
}

bool qoQfsNvarTerm(bool keepOpen) {
    if (!s_fcsInitialized) {
        report_error(IMAGE_TOOLS_FCS_NOT_INITIALIZED);
        return false;
    }
    // Without current values, for want of memory, the termination before has written everything
    // and left only them to be made.
    const bool has_current_values = s_currentValuesTable.handle != nullptr;
    if (has_current_values && !build_store()) {
        tear_down();
        report_error(IMAGE_TOOLS_VYN_CFG_CREATE_FAILED);
        return false;
    }
    if (keepOpen) {
        if (has_current_values) {
            replace_overriding_values();
        }
        return make_current_values_anew();
    }
    if (!take_afs_down()) {
        return false;
    }
    free_all_tables();
    return true;
}

bool qoQfsGetBuildVynCfgFcsBuffer(uint8_t **bytes, uint32_t *size) {
    if (bytes == nullptr || size == nullptr) {
        report_error(IMAGE_TOOLS_CORRUPTED_BUFFER, "VYN CFG buffer");
        return false;
    }
    if (s_vynCfgTable.buffer == nullptr || s_vynCfgTable.bufferSize == 0) {
        return false;
    }
    *bytes = s_vynCfgTable.buffer;
    *size = s_vynCfgTable.bufferSize;
    return true;
}
