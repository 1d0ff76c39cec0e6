// The entries of a file table as plain records.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "host/manifest.h"

namespace dolm {

struct TableEntry {
    std::string name;
    uint32_t number = 0;
    uint16_t attributes = 0;
    uint16_t id = 0;   // inside its store
    uint8_t store = 0; // as the table has it: Store, or a value without a meaning
    uint32_t max_size = 0;
};

// The class nibble, and the number without it.
inline uint32_t class_of(uint32_t number) {
    return number >> 28;
}
inline uint32_t number_in_class(uint32_t number) {
    return number & 0x0FFFFFFF;
}

// "afs", "efs", "none", or the number of a store that does not exist.
std::string store_name(uint8_t store);

// The entry of a name in the table that the library has selected; the first, as in the library.
std::optional<TableEntry> find_entry(const std::string &name);

// The entries of the table that the library has selected, in their order.
std::vector<TableEntry> selected_entries();

// Names by id of the files of one store, for the display of an image: those of the SKU, and of
// others where it has none. Loads the table into the library, which looks into ftbl from then on;
// empty if the library refuses it.
std::map<uint32_t, std::string> names_in_store(const Bytes &ftbl, uint32_t sku, Store store);

} // namespace dolm
