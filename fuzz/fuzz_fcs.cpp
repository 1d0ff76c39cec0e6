// The reader of serialised stores over arbitrary bytes, and what a host does with a loaded store.
#include <cstring>
#include <memory>

#include "FCS.h"
#include "common/little_endian.h"
#include "fuzz/require.h"
#include "proof/builders.h"

namespace builders = dolm::proof::builders;

using dolm::Bytes;

namespace {

// Numbers 1 to 8; the last name fills its field, and number 3 stands twice.
Bytes make_table() {
    builders::FileTable source;
    source.sku_rows.push_back({1, {}});
    for (uint32_t i = 1; i < 8; ++i) {
        source.sku_rows[0].entries.push_back({"/dir/n" + std::to_string(8 - i), i, i * 10});
    }
    source.sku_rows[0].entries.push_back({std::string(48, 'f'), 8});
    source.sku_rows[0].entries.push_back({"again", 3});
    return source.build();
}

Bytes flushed(void *store) {
    uint32_t length = 0;
    require(flush(store, nullptr, &length) == FCS_BUFFER_TOO_SMALL);
    Bytes bytes(length);
    require(flush(store, bytes.data(), &length) == FCS_OK);
    return bytes;
}

// Reads every file as a host does and adds it to another store.
void copy_files(void *store, void *copy) {
    char name[49];
    uint8_t head[18];
    for (uint32_t status = getFirstFileInRoot(store, name); status == FCS_OK;
         status = getNextFile(store, name)) {
        require(getFileAttributes(store, name, head) == FCS_OK);
        uint32_t length = 12 + dolm::load_le16(head + 8);
        Bytes block(length);
        require(getFileData(store, name, block.data(), &length) == FCS_OK);
        require(addNewFile(copy, "", name, block.data(), static_cast<uint16_t>(length), false) ==
                FCS_OK);
        require(deleteFile(copy, name) == (std::strchr(name, '/') == nullptr ? 0u : 4u));
        addNewFile(copy, "", name, block.data(), static_cast<uint16_t>(length), false);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const Bytes table = make_table();
    if (g_table_buf == nullptr) {
        require(load_file_table(table.data(), 1, static_cast<uint32_t>(table.size())) == 0);
    }
    // An exactly sized block of its own, so that a read behind the buffer is caught.
    const auto bytes = std::make_unique<uint8_t[]>(size);
    std::memcpy(bytes.get(), data, size);
    void *store = nullptr;
    if (createHandleFromStructure(&store, bytes.get(), static_cast<uint32_t>(size)) != FCS_OK) {
        require(store == nullptr);
        return 0;
    }
    void *copy = nullptr;
    void *again = nullptr;
    require(createHandle(&copy) == FCS_OK);
    copy_files(store, copy);
    const Bytes canonical = flushed(store);
    require(flushed(copy) == canonical);
    require(createHandleFromStructure(&again, canonical.data(),
                                      static_cast<uint32_t>(canonical.size())) == FCS_OK);
    require(flushed(again) == canonical);
    closeHandle(&store);
    closeHandle(&copy);
    closeHandle(&again);
    return 0;
}
