#include "frontend/deployed_vfs.h"

#include <cstdio>

#include "Afs.h"
#include "EFS.h"
#include "dfs.h"
#include "dispatch/dfs_use.h"
#include "efs/efs_use.h"
#include "frontend/report.h"
#include "miniVfs.h"

using namespace dolm::frontend;

bool s_qfsInitialized = false;

namespace {

constexpr char deploy_marker[] = "/home/mca/deploy";

constexpr uint32_t trailer_size = 40;
constexpr uint32_t long_trailer_size = 56;

uint32_t trailer_of(const FcsFileEntry &entry) {
    if ((entry.attributes & attribute_has_trailer) == 0) {
        return 0;
    }
    return (entry.attributes & attribute_long_trailer) != 0 ? long_trailer_size : trailer_size;
}

bool mount_afs(const _commonDolmTable &image) {
    const uint32_t status = dfs_init(image.data, image.size);
    if (status != DFS_OK) {
        std::fputs("dfs_init failed\n", stdout);
        setLibError(IMAGE_TOOLS_INITIALIZE_ERROR, static_cast<int32_t>(status));
        report_error(IMAGE_TOOLS_QFS_INIT_FAILED);
        return false;
    }
    s_qfsInitialized = true;
    return true;
}

bool mount_efs(const _commonDolmTable &image) {
    if (image.size < EFS_get_efs_size() || EFS_init_tools(image.data) != EFS_OK) {
        take_afs_down();
        report_error(IMAGE_TOOLS_EFS_INIT_FAILED);
        return false;
    }
    return true;
}

void warn_of_missing_file(const FcsFileEntry &entry) {
    char message[name_limit + 96];
    std::snprintf(message, sizeof message,
                  "File \"%s\" found in orvel.cfg, but missing in deployed VFS. The file will be "
                  "skipped",
                  entry.name);
    qoQfsLogMessage(ERROR_LEVEL_WARNING, IMAGE_TOOLS_NO_ERROR, message);
}

// Gives the current value of that name the first size bytes of a file. False if it cannot be read
// whole: the value is then as it was.
bool read_into_value(uint32_t number, uint32_t size, const char *name) {
    FcsFileEntry *value = find_current_value(name);
    if (value == nullptr) {
        return false;
    }
    malloc_block content;
    if (size != 0) {
        content = allocate(size);
        uint32_t length = size;
        if (!content || dfs_read(number, 0, &length, content.get()) != DFS_OK || length != size) {
            return false;
        }
    }
    std::free(value->data);
    value->data = content.release();
    value->size = size;
    return true;
}

// Reads the file of one base entry, less its trailer, into the current value of that name. A file
// that the VFS need not hold is passed by; false for one that cannot be taken over.
bool pull(const FcsFileEntry &entry) {
    if (!is_accessible(entry) || (entry.attributes & attribute_not_pulled) != 0) {
        return true;
    }
    uint32_t number = 0;
    if (pathToFileNumber(entry.name, &number) != 0 || number == 0) {
        return true;
    }
    uint32_t size = 0;
    const uint32_t status = dfs_getsize(number, &size);
    if (status == DFS_NO_SUCH_FILE) {
        warn_of_missing_file(entry);
        return true;
    }
    if (status != DFS_OK || trailer_of(entry) > size) {
        return false;
    }
    return read_into_value(number, size - trailer_of(entry), entry.name);
}

bool pull_deployed_files() {
    for (const FcsFileEntry *entry = s_orvelCfgTable.firstEntry; entry != nullptr;
         entry = entry->next) {
        if (!pull(*entry)) {
            return false;
        }
    }
    return true;
}

// Rewrites the whole file of one entry.
bool write_back(const FcsFileEntry &entry) {
    uint32_t number = 0;
    uint32_t status = pathToFileNumber(entry.name, &number);
    if (status != 0 || number == 0) {
        setLibError(IMAGE_TOOLS_FILE_WRITE_ERROR, static_cast<int32_t>(status));
        return false;
    }
    uint32_t old_size = 0;
    if (dfs_getsize(number, &old_size) != DFS_OK) {
        setLibError(IMAGE_TOOLS_QFS_GET_SIZE_FAILED, 0);
        return false;
    }
    if (entry.size == 0 && old_size == 0) {
        return true;
    }
    // An emptied value has no buffer, yet the store must be told to empty the file.
    const uint8_t empty = 0;
    const void *data = entry.size == 0 ? &empty : entry.data;
    const uint32_t flags = entry.size < old_size ? AFS_WRITE_TRUNCATE : 0;
    status = dfs_write(number, 0, entry.size, data, flags);
    if (status != DFS_OK) {
        setLibError(IMAGE_TOOLS_FILE_WRITE_ERROR, static_cast<int32_t>(status));
        return false;
    }
    return true;
}

bool is_written_back(const FcsFileEntry &entry) {
    return is_accessible(entry) && (entry.attributes & attribute_has_trailer) == 0;
}

} // namespace

namespace dolm::frontend {

void forget_flash() {
    s_qfsInitialized = false;
    take_afs_out_of_use();
    efs::take_out_of_use();
}

bool bring_up_flash(const _commonDolmInputs &inputs) {
    if (inputs.qfsImage.size != 0 && !mount_afs(inputs.qfsImage)) {
        return false;
    }
    if (inputs.efsImage.size != 0 && !mount_efs(inputs.efsImage)) {
        return false;
    }
    if (!qoQfsIsVfsDeployed() || pull_deployed_files()) {
        return true;
    }
    take_afs_down();
    report_error(IMAGE_TOOLS_QFS_INIT_FAILED);
    return false;
}

bool write_back_to_flash(const FcsTable &table) {
    if (!qoQfsIsVfsDeployed()) {
        return true;
    }
    for (const FcsFileEntry *entry = table.firstEntry; entry != nullptr; entry = entry->next) {
        if (is_written_back(*entry) && !write_back(*entry)) {
            return false;
        }
    }
    return true;
}

bool take_afs_down() {
    if (!s_qfsInitialized) {
        return true;
    }
    s_qfsInitialized = false;
    const uint32_t status = dfs_terminate();
    if (status != DFS_OK) {
        setLibError(IMAGE_TOOLS_QFS_TERMINATE_FAILED, static_cast<int32_t>(status));
        return false;
    }
    return true;
}

} // namespace dolm::frontend

bool qoQfsIsVfsDeployed(void) {
    uint32_t number = 0;
    uint32_t size = 0;
    return s_qfsInitialized && pathToFileNumber(deploy_marker, &number) == 0 &&
           dfs_getsize(number, &size) == DFS_OK && size != 0;
}

uint32_t qoQfsGetEfsSize(void) {
    return EFS_get_efs_size();
}
