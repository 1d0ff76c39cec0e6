// Reports to the host: the one way in which a failure is explained.
#pragma once

#include "qoqfs.h"

// The callback of the latest start-up, also after termination; null drops every report.
extern DolmStatusCallback s_mDolmStatusCallback;

// Hands a report to the host with the catalogue text of number (empty for number 0). Does nothing
// without a callback.
void qoQfsLogMessage(ErrorLevel level, ImageToolsErrorName number, const char *message) noexcept;

// A failure of number whose message is " Library status code: " and the status in decimal: number
// says what failed, status what a lower layer returned.
void setLibError(ImageToolsErrorName number, int32_t status) noexcept;

// A soft assertion: reports message as number 0; the caller goes on.
void qoQfsAssert(const char *message) noexcept;

namespace dolm::frontend {

// The text that VynErrors::getErrorNameString gives, good until the maps are filled anew, and the
// same where there was no memory for the maps. It costs no memory itself, so that a report of
// exhausted memory has its text.
const char *catalogue_text(ImageToolsErrorName number) noexcept;

// A failure of number with a message, empty for most: the number says it all.
inline void report_error(ImageToolsErrorName number, const char *message = "") noexcept {
    qoQfsLogMessage(ERROR_LEVEL_ERROR, number, message);
}

} // namespace dolm::frontend
