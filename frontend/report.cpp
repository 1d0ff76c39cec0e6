#include "frontend/report.h"

#include <cstdio>
#include <new>
#include <string>

#include "vynerrors.h"

DolmStatusCallback s_mDolmStatusCallback = nullptr;

void qoQfsLogMessage(ErrorLevel level, ImageToolsErrorName number, const char *message) noexcept {
    if (s_mDolmStatusCallback == nullptr) {
        return;
    }
    std::string text;
    if (number != IMAGE_TOOLS_NO_ERROR) {
        try {
            text = VynErrors::getErrorNameString(number);
        } catch (const std::bad_alloc &) {
            // The number and the message still reach the host.
        }
    }
    s_mDolmStatusCallback(level, number, text.c_str(), message);
}

void setLibError(ImageToolsErrorName number, int32_t status) noexcept {
    char message[40];
    std::snprintf(message, sizeof message, " Library status code: %d", static_cast<int>(status));
    report_error(number, message);
}

void qoQfsAssert(const char *message) noexcept {
    report_error(IMAGE_TOOLS_NO_ERROR, message);
}
