// What a set holds for one SKU, whatever bytes it takes to hold it.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "host/library.h"
#include "host/output.h"

namespace dolm {

// A file of a flash store, or a name of the file table that has none.
struct StoredFile {
    std::string name; // empty if the file table has none for it
    std::string store;
    uint32_t id = 0; // inside the store
    std::optional<TableEntry> entry;
    std::optional<Bytes> content; // trailer included
};

struct SetContent {
    uint32_t sku = 0;
    bool vfs_deployed = false;
    std::map<std::string, Nvar> nvars;       // by name
    std::map<std::string, StoredFile> files; // by name, or by store and id without one
    std::map<std::string, Json> geometry;    // by what is measured: "afs.size"
};

// Throws Failure if the library does not start up with the set, or if an image breaks its format.
SetContent read_set_content(SetFiles set, uint32_t sku);

} // namespace dolm
