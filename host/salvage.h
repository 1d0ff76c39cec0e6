// What can still be read of a set that may be damaged anywhere. Each member is read as far as it
// goes, by readers that know nothing of the library; where one tells a thing twice, or two tell the
// same, a damage is mended.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "host/errors.h"
#include "host/manifest.h"
#include "host/set_files.h"

namespace dolm {

enum class Found : uint8_t {
    sound, // what the set held
    older, // what it held at some time; that this is the last is not sure
    lost
};

// The value of a file in one place: the base or overriding values, or its flash store.
struct SalvagedPart {
    Found state = Found::sound;
    std::optional<Bytes> value; // nothing if there is none, or if it is lost
    std::string why;            // it is not sound
    std::string where;          // an older content lies, in words
};

struct SalvagedFile {
    SalvagedPart flash;
    SalvagedPart override_value;
    SalvagedPart base;

    // Of these the one that a start-up would give, or would have given.
    SalvagedPart current;
    const char *source = "none"; // of its value: "flash", "override", "base"
};

struct Salvage {
    Manifest manifest;               // of all that was found, made fit for "build"
    std::vector<SalvagedFile> files; // those of the manifest, in its order
    std::vector<Problem> damages;    // of the members, beyond those of single values
};

Salvage salvage_set(const SetFiles &set);

} // namespace dolm
