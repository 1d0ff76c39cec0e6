// The flash images of a set, made from a manifest through the library's own format and write
// operations.
#pragma once

#include "host/manifest.h"

namespace dolm {

// What a trailer holds if nobody says.
inline constexpr uint8_t trailer_filler = 0x5A;

// What the file has in its store: the flash content and, where it has one, the trailer.
Bytes flash_content(const ManifestFile &file);

// "qfs.img", or nothing without an "afs" section. Throws Failure, as make_efs_image does.
Bytes make_qfs_image(const Manifest &manifest);

// "efs.img", or nothing without an "efs" section. ftbl is the set's file table; the library has it
// selected, and so looks into it, until the next start-up or table is loaded.
Bytes make_efs_image(const Manifest &manifest, const Bytes &ftbl);

} // namespace dolm
