// A host of the front end for tests: inputs made from a short description, and the reports that
// came.
#pragma once

#include <cstring>
#include <map>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "builders.h"
#include "qoqfs.h"

namespace host_session {

using builders::Bytes;

struct Report {
    int32_t level;
    int32_t number;
    std::string text;
    std::string message;
    bool operator==(const Report &) const = default;
};

inline std::ostream &operator<<(std::ostream &out, const Report &report) {
    return out << "{" << report.level << ", " << report.number << ", \"" << report.text << "\", \""
               << report.message << "\"}";
}

inline std::vector<Report> reports;

inline void on_report(ErrorLevel level, ImageToolsErrorName number, const char *text,
                      const char *message) {
    reports.push_back({level, number, text, message});
}

// The numbers of the reports since the last call, in their order.
inline std::vector<int32_t> take_numbers() {
    std::vector<int32_t> numbers;
    for (const Report &report : std::exchange(reports, {})) {
        numbers.push_back(report.number);
    }
    return numbers;
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
    Bytes partition(16, 0xEE);
    builders::put32(partition, 8, static_cast<uint32_t>(store.size()));
    partition.insert(partition.end(), store.begin(), store.end());
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

} // namespace host_session
