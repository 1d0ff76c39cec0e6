// A host of the front end for tests: inputs made from a short description, and the reports that
// came.
#pragma once

#include <algorithm>
#include <cstring>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "proof/builders.h"
#include "qoqfs.h"

namespace dolm::proof::host_session {

// What the host was told: "<number>:<message>" for each report, with the level in front of one that
// is no error.
using Reports = std::vector<std::string>;

inline Reports reports;

inline void on_report(ErrorLevel level, ImageToolsErrorName number, const char *,
                      const char *message) {
    const std::string prefix =
        level == ERROR_LEVEL_ERROR ? "" : "level " + std::to_string(level) + " ";
    reports.push_back(prefix + std::to_string(number) + ":" + message);
}

// The reports since the last call.
inline Reports take_reports() {
    return std::exchange(reports, {});
}

struct Inputs {
    Bytes orvel;
    Bytes vync;
    Bytes ftbl;
    Bytes qfs;
    Bytes efs;
    uint32_t sku = 1;

    _commonDolmInputs record() {
        const auto table = [](Bytes &bytes) {
            return _commonDolmTable{bytes.data(), static_cast<uint32_t>(bytes.size())};
        };
        return {table(orvel), table(vync), table(qfs), table(ftbl), sku, table(efs)};
    }

    bool start() {
        const _commonDolmInputs inputs = record();
        return qoQfsDolmInit(&inputs, on_report);
    }
};

// A "vync.cfg" partition around a store.
inline Bytes with_head(const Bytes &store) {
    Bytes partition(16 + store.size(), 0xEE);
    builders::put32(partition, 8, static_cast<uint32_t>(store.size()));
    std::copy(store.begin(), store.end(), partition.begin() + 16);
    return partition;
}

inline std::string value_of(const std::string &path, FcsFileName table = FCS_FILE_CURRENT_VALUES) {
    uint8_t *data = nullptr;
    uint32_t size = 0;
    if (!qoQfsNvarGet(path.c_str(), &data, &size, table, nullptr, nullptr)) {
        return "<none>";
    }
    return {reinterpret_cast<const char *>(data), size};
}

inline bool set_value(const std::string &path, const std::string &value) {
    uint8_t *data = nullptr;
    if (!qoQfsNvarResize(path.c_str(), &data, static_cast<uint32_t>(value.size()))) {
        return false;
    }
    if (!value.empty()) {
        std::memcpy(data, value.data(), value.size());
    }
    return true;
}

inline Bytes rebuilt_store() {
    uint8_t *bytes = nullptr;
    uint32_t size = 0;
    return qoQfsGetBuildVynCfgFcsBuffer(&bytes, &size) ? Bytes(bytes, bytes + size) : Bytes();
}

} // namespace dolm::proof::host_session
