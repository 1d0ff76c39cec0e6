// A whole run of the front end over fuzzed tables: start-up, changes of every value, termination,
// and a second start-up on the rebuilt store, which must be accepted.
//
// Input: u16 length of the FTBL | u16 length of "orvel.cfg" | FTBL | "orvel.cfg" | "vync.cfg"
// (little-endian lengths, cut to what is there).

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "common/little_endian.h"
#include "frontend/fcs_tables.h"
#include "fuzz/require.h"
#include "qoqfs.h"

namespace {

// Each input in a block of its own, so that the sanitizer sees a read past its end.
using Bytes = std::vector<uint8_t>;

Bytes take(const uint8_t *&data, size_t &left, size_t wanted) {
    const size_t size = std::min(wanted, left);
    Bytes bytes(data, data + size);
    bytes.shrink_to_fit();
    data += size;
    left -= size;
    return bytes;
}

void on_report(ErrorLevel, ImageToolsErrorName, const char *text, const char *message) {
    require(std::strlen(text) + std::strlen(message) <= 1000);
}

_commonDolmTable table_of(Bytes &bytes) {
    return {bytes.data(), static_cast<uint32_t>(bytes.size())};
}

// Resizes every other value and fills all of them.
void change_values(uint8_t seed) {
    std::vector<std::string> names;
    for (const FcsFileEntry *entry = s_currentValuesTable.firstEntry; entry != nullptr;
         entry = entry->next) {
        names.emplace_back(entry->name);
    }
    for (const std::string &name : names) {
        uint8_t *data = nullptr;
        uint32_t size = 0;
        uint32_t max_size = 0;
        bool writable = false;
        if (!qoQfsNvarGet(name.c_str(), &data, &size, FCS_FILE_CURRENT_VALUES, &writable,
                          &max_size)) {
            require(!name.starts_with("/home/")); // the table holds the name
            continue;                             // a path cannot name it
        }
        if (seed++ % 2 == 0) {
            size = std::min<uint32_t>(max_size, seed * 11u);
            qoQfsNvarResize(name.c_str(), &data, size);
        }
        std::fill_n(data, size, seed);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 4) {
        return 0;
    }
    const size_t ftbl_length = dolm::load_le16(data);
    const size_t orvel_length = dolm::load_le16(data + 2);
    const uint8_t seed = data[size - 1];
    data += 4;
    size -= 4;
    Bytes ftbl = take(data, size, ftbl_length);
    Bytes orvel = take(data, size, orvel_length);
    Bytes vync = take(data, size, size);
    _commonDolmInputs inputs = {table_of(orvel), table_of(vync), {nullptr, 0}, table_of(ftbl), 1,
                                {nullptr, 0}};
    if (qoQfsDolmInit(&inputs, on_report)) {
        change_values(seed);
        if (qoQfsNvarTerm(true)) {
            uint8_t *store = nullptr;
            uint32_t store_size = 0;
            require(qoQfsGetBuildVynCfgFcsBuffer(&store, &store_size));
            Bytes rebuilt(store, store + store_size);
            inputs.orvelCfg = table_of(rebuilt);
            require(qoQfsDolmInit(&inputs, on_report)); // what the library wrote
        }
    }
    qoQfsNvarTerm(false);
    return 0;
}
