#include "host/library.h"

#include <algorithm>
#include <cstring>
#include <set>
#include <utility>

#include "Afs.h"
#include "dfs.h"
#include "efs_tools_utils.h"
#include "host/errors.h"
#include "host/manifest.h"
#include "host/output.h"
#include "host/patterns.h"
#include "host/report_meaning.h"
#include "host/system.h"
#include "host/tables.h"
#include "miniVfs.h"

namespace dolm {

namespace {

// What the library has reported since the host last looked, and whether anyone wants to know.
std::vector<Report> reports;
bool reports_dropped = false;

void take_report(ErrorLevel level, ImageToolsErrorName number, const char *text,
                 const char *message) {
    if (!reports_dropped) {
        reports.push_back({level, number, text, message, std::nullopt, "", ""});
    }
}

_commonDolmTable range_of(Bytes &bytes) {
    return {bytes.empty() ? nullptr : bytes.data(), static_cast<uint32_t>(bytes.size())};
}

std::vector<std::string> table_names_where(auto &&wanted) {
    std::vector<std::string> names;
    std::set<std::string> seen;
    for (int32_t i = 0; i < g_table_num_files; ++i) {
        const char *field = g_table_buf[i].name;
        std::string name(field, strnlen(field, sizeof(g_table_buf[i].name)));
        if (wanted(name) && seen.insert(name).second) {
            names.push_back(std::move(name));
        }
    }
    return names;
}

bool is_current(const std::string &name) {
    return qoqfsCheckNvarExists(name.c_str(), FCS_FILE_CURRENT_VALUES);
}

// Without a row the library would start up on an empty table, and a termination would leave no
// value in the rebuilt store. A table that is no good at all is the library's to report.
void require_row(const Bytes &ftbl, uint32_t sku) {
    const std::vector<uint32_t> skus = skus_of(ftbl);
    if (skus.empty() || std::find(skus.begin(), skus.end(), sku) != skus.end()) {
        return;
    }
    std::string has;
    for (const uint32_t other : skus) {
        has += (has.empty() ? "" : ", ") + std::to_string(other);
    }
    throw Failure("the file table has no row for SKU " + std::to_string(sku) + ", only for " + has);
}

// Whether start-up took the value from the file in flash: it is there, and is not passed by.
bool is_pulled(const std::string &name, uint16_t attributes) {
    uint32_t number = 0;
    uint32_t size = 0;
    return (attributes & attribute_not_pulled) == 0 && qoQfsIsVfsDeployed() &&
           pathToFileNumber(name.c_str(), &number) == 0 && number != 0 &&
           dfs_getsize(number, &size) == DFS_OK;
}

} // namespace

const char *to_string(Origin origin) {
    switch (origin) {
    case Origin::base:
        return "base";
    case Origin::override_value:
        return "override";
    case Origin::flash:
        return "flash";
    case Origin::none:
        break;
    }
    return "none";
}

Library::Library(SetFiles &set, uint32_t sku) : set_(set), sku_(sku) {
    require_row(set.ftbl, sku);
    _commonDolmInputs inputs{};
    inputs.orvelCfg = range_of(set.orvel_cfg);
    inputs.vyncCfg = range_of(set.vync_cfg);
    inputs.qfsImage = range_of(set.qfs_image);
    inputs.ftbl = range_of(set.ftbl);
    inputs.afsSkuId = sku;
    inputs.efsImage = range_of(set.efs_image);
    // The library has a line for a failed mount there, which its report tells as well.
    const system::DiscardedOutput discarded;
    const bool is_up = qoQfsDolmInit(&inputs, take_report);
    std::vector<Report> told = tell_reports();
    if (!is_up) {
        // The tables may be up although the flash stores are not.
        release();
        throw LibraryFailure("start-up failed", std::move(told));
    }
    tell_detail("started up with SKU " + std::to_string(sku) + ", the VFS " +
                (qoQfsIsVfsDeployed() ? "deployed" : "not deployed"));
}

Library::~Library() {
    release();
}

// Only a termination releases the tables, and it would write all values back. Without AFS nothing
// can be written, and what it says about values that it cannot keep does not matter.
void Library::release() {
    reports_dropped = true;
    if (dfs_context != nullptr) {
        afs_free_context(dfs_context);
    }
    if (qoFcsIsInitialized()) {
        qoQfsNvarTerm(false);
    }
    reports_dropped = false;
}

std::vector<Report> Library::tell_reports() const {
    explain(reports, set_, sku_);
    std::vector<Report> told = std::exchange(reports, {});
    for (const Report &report : told) {
        tell_report(report);
    }
    return told;
}

void Library::require(bool success, const std::string &otherwise) const {
    std::vector<Report> told = tell_reports();
    if (!success) {
        throw LibraryFailure(otherwise, std::move(told));
    }
}

std::vector<std::string> Library::names(FcsFileName table) const {
    return table_names_where(
        [&](const std::string &name) { return qoqfsCheckNvarExists(name.c_str(), table); });
}

bool Library::has(const std::string &given_name) const {
    return is_current(full_name(given_name));
}

std::vector<std::string> Library::override_only_names() const {
    return table_names_where([](const std::string &name) {
        return qoqfsCheckNvarExists(name.c_str(), FCS_FILE_VYN_CFG) && !is_current(name);
    });
}

Nvar Library::nvar(const std::string &given_name, FcsFileName table) const {
    Nvar nvar;
    nvar.name = full_name(given_name);
    uint8_t *data = nullptr;
    uint32_t size = 0;
    require(qoQfsNvarGet(nvar.name.c_str(), &data, &size, table, &nvar.writable, nullptr),
            "cannot read " + nvar.name);
    nvar.value.assign(data, data + size);
    const auto value_in = [&](FcsFileName other) {
        return qoqfsCheckNvarExists(nvar.name.c_str(), other)
                   ? std::optional(value(nvar.name, other))
                   : std::nullopt;
    };
    nvar.base = value_in(FCS_FILE_ORVEL_CFG);
    nvar.override_value = value_in(FCS_FILE_VYN_CFG);
    nvar.entry = find_entry(nvar.name).value_or(TableEntry{});
    if (const auto current = value_in(FCS_FILE_CURRENT_VALUES)) {
        nvar.differs_from_base = current != nvar.base;
        nvar.origin = is_pulled(nvar.name, nvar.entry.attributes) ? Origin::flash
                      : nvar.differs_from_base                    ? Origin::override_value
                                                                  : Origin::base;
    }
    return nvar;
}

Bytes Library::value(const std::string &name, FcsFileName table) const {
    uint8_t *data = nullptr;
    uint32_t size = 0;
    require(qoQfsNvarGet(name.c_str(), &data, &size, table, nullptr, nullptr),
            "cannot read " + name);
    return Bytes(data, data + size);
}

void Library::set_value(const std::string &name, const Bytes &value) {
    uint8_t *data = nullptr;
    require(qoQfsNvarResize(name.c_str(), &data, static_cast<uint32_t>(value.size())),
            "cannot change " + name);
    if (!value.empty()) {
        std::memcpy(data, value.data(), value.size());
    }
}

Bytes Library::terminate() {
    require(qoQfsNvarTerm(true), "termination failed; nothing of the set has been changed");
    uint8_t *bytes = nullptr;
    uint32_t size = 0;
    require(qoQfsGetBuildVynCfgFcsBuffer(&bytes, &size), "no rebuilt store");
    tell_detail("terminated; the rebuilt store has " + std::to_string(size) + " bytes");
    return Bytes(bytes, bytes + size);
}

} // namespace dolm
