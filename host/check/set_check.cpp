#include "host/check/set_check.h"

#include <algorithm>

#include "host/check/set_view.h"
#include "host/errors.h"

namespace dolm {

size_t SetReport::count(Finding::Severity severity) const {
    return static_cast<size_t>(
        std::count_if(findings.begin(), findings.end(),
                      [=](const Finding &finding) { return finding.severity == severity; }));
}

SetReport check_files(const std::filesystem::path &folder, std::optional<uint32_t> sku,
                      double lock_timeout) {
    SetView view;
    Findings findings;
    try {
        load_members(SetFolder(folder, SetFolder::Use::read, lock_timeout), view, findings);
    } catch (const Failure &failure) {
        findings.error({"the set", "", failure.what()});
    }
    return check_members(view, sku, std::move(findings));
}

SetReport check_members(SetView &view, std::optional<uint32_t> sku, Findings findings) {
    drop_strangers(view, findings);
    check_table(view, sku, findings);
    check_stores(view, findings);
    check_afs(view, findings);
    check_efs(view, findings);
    check_efs_overlaps(view, findings);
    check_deployment(view, findings);
    check_changes(view, findings);
    for (const uint32_t each : view.skus) {
        try_running(view, each, findings);
    }
    return {view.skus, view.files.sku, std::move(findings).sorted()};
}

} // namespace dolm
