#include "host/check/set_check.h"

#include <algorithm>

#include "host/check/set_view.h"

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
    load_members(folder, lock_timeout, view, findings);
    check_table(view, sku, findings);
    check_stores(view, findings);
    check_afs(view, findings);
    check_efs(view, findings);
    check_efs_overlaps(view, findings);

    check_deployment(view, findings);
    for (const uint32_t each : view.skus) {
        try_running(view, each, findings);
    }
    return {view.skus, view.files.sku, std::move(findings).sorted()};
}

} // namespace dolm
