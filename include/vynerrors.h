// The error catalogue: a text for each number that a report carries.
#ifndef DOLM_VYNERRORS_H
#define DOLM_VYNERRORS_H

#include <cstdint>
#include <map>
#include <string>

#include "dolm_api.h"
#include "qoqfs.h"

// Source tags of messages, 0 to 29. The library keeps their table for the host tool's other
// components and uses none of them itself.
enum ImageToolsErrorType : int32_t {
    IMAGE_TOOLS_ERROR_TYPE_NONE = 0,
    IMAGE_TOOLS_ERROR_TYPE_LAST = 29,
};

class DOLM_API VynErrors {
  public:
    // Fills both maps; always true. Each start-up of the library calls it.
    static bool init();

    // Fills both maps anew. They are empty until its first run. Without memory it throws
    // std::bad_alloc and leaves both as they were.
    static void initStringMaps();

    // The catalogue text of number; "General Error" for a number without a row, and for every
    // number while the map is empty.
    static std::string getErrorNameString(ImageToolsErrorName number);

    // Read by hosts; only initStringMaps writes them.
    static std::map<ImageToolsErrorName, std::string> s_imageToolsErrorNameStringMap;
    static std::map<ImageToolsErrorType, std::string> s_imageToolsErrorTypeStringMap;
};

#endif
