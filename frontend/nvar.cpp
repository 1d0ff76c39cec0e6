// NVAR access: what the host may do between start-up and termination.

#include <cstdlib>

#include "frontend/deployed_vfs.h"
#include "frontend/fcs_tables.h"
#include "frontend/report.h"

using namespace dolm::frontend;

bool qoqfsCheckNvarExists(const char *path, FcsFileName fileName) {
    if (path == nullptr) {
        report_error(IMAGE_TOOLS_CORRUPTED_BUFFER, "Null NVAR path");
        return false;
    }
    return qoQfsFindFileEntryInTable(fileName, path) != nullptr;
}

bool qoQfsNvarGet(const char *path, uint8_t **data, uint32_t *size, FcsFileName fileName,
                  bool *writable, uint32_t *maxSize) {
    if (path == nullptr) {
        report_error(IMAGE_TOOLS_CORRUPTED_BUFFER, "Null NVAR path");
        return false;
    }
    if (data == nullptr) {
        report_error(IMAGE_TOOLS_CORRUPTED_BUFFER, "Null data");
        return false;
    }
    if (size == nullptr) {
        report_error(IMAGE_TOOLS_CORRUPTED_BUFFER, "Null data size");
        return false;
    }
    *data = nullptr;
    *size = 0;
    const FcsFileEntry *entry = qoQfsFindFileEntryInTable(fileName, path);
    if (entry == nullptr) {
        report_error(IMAGE_TOOLS_FILE_NOT_FOUND);
        return false;
    }
    if (entry->data == nullptr && entry->size != 0) {
        report_error(IMAGE_TOOLS_INVALID_DATA_POINTER);
        return false;
    }
    if (!is_accessible(*entry)) {
        report_error(IMAGE_TOOLS_NVAR_ACCESS_ERROR);
        return false;
    }
    *data = entry->data;
    *size = entry->size;
    if (writable != nullptr) {
        *writable = (entry->attributes & attribute_has_trailer) == 0 || !qoQfsIsVfsDeployed();
    }
    if (maxSize != nullptr) {
        *maxSize = entry->maxSize;
    }
    return true;
}

bool qoQfsNvarResize(const char *path, uint8_t **data, uint32_t size) {
    if (path == nullptr) {
        report_error(IMAGE_TOOLS_CORRUPTED_BUFFER, "Null NVAR path");
        return false;
    }
    if (data == nullptr) {
        report_error(IMAGE_TOOLS_CORRUPTED_BUFFER, "Null New NVAR data");
        return false;
    }
    FcsFileEntry *entry = find_current_value(path);
    if (entry == nullptr) {
        return false;
    }
    if (size == 0) {
        std::free(entry->data);
        entry->data = nullptr;
    } else if (size != entry->size) {
        auto *resized = static_cast<uint8_t *>(std::realloc(entry->data, size));
        if (resized == nullptr) {
            report_error(IMAGE_TOOLS_OUT_OF_MEMORY);
            return false;
        }
        entry->data = resized;
    }
    entry->size = size;
    *data = entry->data;
    return true;
}
