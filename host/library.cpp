#include "host/library.h"

#include <cstring>
#include <iostream>
#include <set>

#include "efs_tools_utils.h"
#include "host/errors.h"

namespace dolm {

namespace {

// Every report, in one line: what it is, its number and level, the catalogue's text, the message.
void print_report(ErrorLevel level, ImageToolsErrorName number, const char *text,
                  const char *message) {
    std::cerr << "dolm: " << (level >= ERROR_LEVEL_ERROR ? "error " : "warning ") << number
              << " (level " << level << "):";
    if (*text != '\0') {
        std::cerr << ' ' << text;
    }
    if (*message != '\0') {
        std::cerr << (*message == ' ' ? "" : " ") << message;
    }
    std::cerr << '\n';
}

void require(bool success, const std::string &otherwise) {
    if (!success) {
        throw Failure(otherwise);
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

bool is_overridden(const std::string &name) {
    return qoqfsCheckNvarExists(name.c_str(), FCS_FILE_VYN_CFG);
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
    }
    return "?";
}

Library::Library(SetFiles &set, uint32_t sku) {
    _commonDolmInputs inputs{};
    inputs.orvelCfg = range_of(set.orvel_cfg);
    inputs.vyncCfg = range_of(set.vync_cfg);
    inputs.qfsImage = range_of(set.qfs_image);
    inputs.ftbl = range_of(set.ftbl);
    inputs.afsSkuId = sku;
    inputs.efsImage = range_of(set.efs_image);
    const bool started = qoQfsDolmInit(&inputs, print_report);
    if (!started || g_dfs_sku != sku) {
        if (qoFcsIsInitialized()) {
            qoQfsNvarTerm(false);
        }
        require(started, "start-up failed");
        throw Failure("the file table has no row for SKU " + std::to_string(sku));
    }
}

Library::~Library() {
    // A termination that failed has taken everything down already.
    if (qoFcsIsInitialized()) {
        qoQfsNvarTerm(false);
    }
}

std::vector<std::string> Library::names() const {
    return table_names_where(is_current);
}

std::vector<std::string> Library::override_only_names() const {
    return table_names_where(
        [](const std::string &name) { return is_overridden(name) && !is_current(name); });
}

Nvar Library::nvar(const std::string &name) const {
    Nvar nvar;
    uint8_t *data = nullptr;
    uint32_t size = 0;
    require(qoQfsNvarGet(name.c_str(), &data, &size, FCS_FILE_CURRENT_VALUES, &nvar.writable,
                         &nvar.max_size),
            "cannot read " + name);
    nvar.name = name;
    nvar.value.assign(data, data + size);
    nvar.origin = is_overridden(name) ? Origin::override_value : Origin::base;
    nvar.differs_from_base = nvar.value != value(name, FCS_FILE_ORVEL_CFG);
    uint32_t unused_limit = 0;
    get_file_attributes_by_file_name(name.c_str(), &nvar.attributes, &unused_limit);
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
    return Bytes(bytes, bytes + size);
}

} // namespace dolm
