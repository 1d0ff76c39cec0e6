// The reports of a call as one text, for the rows of a table.
#pragma once

#include <string>

#include "proof/host_session.h"

namespace dolm_test {

// The reports since the last call, with a "|" between two.
inline std::string report_text() {
    std::string text;
    for (const std::string &report : dolm::proof::host_session::take_reports()) {
        text += (text.empty() ? "" : "|") + report;
    }
    return text;
}

} // namespace dolm_test
