#include "host/report/html.h"

#include "host/utf8.h"

namespace dolm {

Html &Html::operator<<(const std::string &text) {
    for (const char character : escape(text)) {
        switch (character) {
        case '&':
            markup_ += "&amp;";
            break;
        case '<':
            markup_ += "&lt;";
            break;
        case '>':
            markup_ += "&gt;";
            break;
        case '"':
            markup_ += "&quot;";
            break;
        default:
            markup_ += character;
            break;
        }
    }
    return *this;
}

} // namespace dolm
