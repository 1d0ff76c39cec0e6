// What the records of a configuration store that may be damaged still give. A store has no
// checksum; what the library writes has its payloads in the order of its records without gaps, so
// that every place in it is told twice, and its records in the order of the names.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "image/fcs_store.h"

namespace dolm {

struct MendedRecord {
    uint32_t number = 0;
    uint16_t opaque = 0;
    std::optional<std::span<const uint8_t>> payload; // nothing if it is lost
    std::string doubt;          // what was wrong with the record; empty if nothing was
    bool is_number_sure = true; // false if it may be the record of another file
};

// What is known of a store from elsewhere.
struct StoreEvidence {
    bool has_sure_records = false; // their numbers are taken as they stand
    bool has_sure_end = false;     // it ended where the bytes do
    bool has_sure_names = false;   // a record out of their order has a wrong number
};

struct MendedStore {
    std::vector<MendedRecord> records;
    bool is_packed = false;      // so that every place is told twice
    bool has_all_records = true; // false if the store is too short for those that it counts
};

// name_of gives the name of a number, empty if there is none. numbers are all that a record whose
// number was wrong can have had. The bytes have to outlive what is returned.
MendedStore mend_store(std::span<const uint8_t> bytes,
                       const std::function<std::string(uint32_t)> &name_of,
                       const std::vector<uint32_t> &numbers, StoreEvidence evidence);

// A store of the records that have a payload, as the library writes it.
Bytes write_store(const std::vector<MendedRecord> &records);

} // namespace dolm
