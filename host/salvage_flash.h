// What the flash images of a set that may be damaged still hold.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "host/salvage.h"

namespace dolm {

struct SalvagedFlash {
    std::map<uint32_t, SalvagedPart> afs; // by id, trailers included; what is absent is left out
    std::map<uint32_t, SalvagedPart> efs; // by id, all of the list
    std::map<uint32_t, EfsPlacement> efs_places;
    std::optional<std::string> afs_lost; // why nothing can be read
    std::optional<std::string> efs_lost;
    std::string afs_doubt; // why a file that is not found may have been there
    std::vector<Problem> damages;
};

// ftbl is the mended file table. Gives the manifest its section of AFS, and tells its sections of
// EFS whether they have an image.
SalvagedFlash read_flash(const SetFiles &set, const Bytes &ftbl, Manifest &manifest);

} // namespace dolm
