// The way back from the files of a set to a manifest that describes it, so that what "build" makes
// of the manifest holds the same for every reader: each SKU's files in their order, values,
// geometry, the contents of the flash stores. Read from the bytes without the library, so that a
// set can be described that the library refuses.
#pragma once

#include <string>
#include <vector>

#include "host/errors.h"
#include "host/manifest.h"
#include "host/set_files.h"

namespace dolm {

struct SetDescription {
    Manifest manifest;
    std::vector<Problem> hidden;    // by damage; the source is the file of the set
    std::vector<std::string> notes; // what no reader looks at, and so was left out
};

SetDescription describe_set(const SetFiles &set);

// Whether "build" takes the manifest. Gives every place its JSON pointer and finds out whether the
// manifest has to say that it describes a set as it was found.
std::vector<Problem> prepare_for_build(Manifest &manifest);

} // namespace dolm
