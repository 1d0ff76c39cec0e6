// Writes a manifest as the files that "build" makes a set of.
#pragma once

#include <filesystem>

#include "host/manifest.h"

namespace dolm {

// Writes "manifest.json" and a file for each value below the folder, which is made, and gives the
// number of values. Of more than 1024 values those of up to 64 bytes stand in the manifest. The
// manifest comes last, so half an export has none. Nothing comes to lie outside of the folder,
// whatever names the files have: each value has the path of its file's name below "base",
// "override", "flash" or "trailer". Throws UsageError if the folder holds anything and is not to be
// written over, Failure if something cannot be written: then what was written goes again, with the
// folders made for it, and what it was written over is lost.
size_t write_export(const Manifest &manifest, const std::filesystem::path &folder, bool replace);

} // namespace dolm
