#include "frontend/report.h"

#include <cstdio>

using namespace dolm::frontend;

DolmStatusCallback s_mDolmStatusCallback = nullptr;

void qoQfsLogMessage(ErrorLevel level, ImageToolsErrorName number, const char *message) noexcept {
    if (s_mDolmStatusCallback == nullptr) {
        return;
    }
    const char *text = number == IMAGE_TOOLS_NO_ERROR ? "" : catalogue_text(number);
    s_mDolmStatusCallback(level, number, text, message);
}

void setLibError(ImageToolsErrorName number, int32_t status) noexcept {
    char message[40];
    std::snprintf(message, sizeof message, " Library status code: %d", static_cast<int>(status));
    report_error(number, message);
}

void qoQfsAssert(const char *message) noexcept {
    report_error(IMAGE_TOOLS_NO_ERROR, message);
}
