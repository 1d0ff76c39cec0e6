// Where the configuration tables meet the flash stores: their bring-up on the host's images, and
// the files of a deployed VFS as values.
#pragma once

#include "frontend/fcs_tables.h"
#include "qoqfs.h"

namespace dolm::frontend {

// Puts AFS and EFS out of use without a look at their images, which may be gone by now.
void forget_flash();

// Brings up AFS and EFS on the images that are given and, in a deployed VFS, reads the files into
// the current values. On false everything has been reported and AFS is down.
bool bring_up_flash(const _commonDolmInputs &inputs);

// Writes the values of the table's entries into the files of a deployed VFS; does nothing without
// one. On false everything has been reported; the files before the failed one stay written.
bool write_back_to_flash(const FcsTable &table);

// Takes AFS down if it is up. False, with a report, if it would not terminate.
bool take_afs_down();

} // namespace dolm::frontend

extern bool s_qfsInitialized; // AFS is up
