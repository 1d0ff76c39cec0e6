// Writes a manifest as the files that "build" makes a set of.
#pragma once

#include <filesystem>

#include "host/manifest.h"

namespace dolm {

struct ExportWritten {
    size_t values = 0; // each in a file of its own
};

// Writes "manifest.json" and a file for each value below the folder, which is made; a manifest that
// is there is the last of all files, so half an export has none. Nothing comes to lie outside of
// the folder, whatever names the files have. Each value has the name of its file with the path's
// slashes, below "base", "override", "flash" and "trailer". Throws UsageError if the folder holds
// anything and is not to be written over, Failure if something cannot be written.
ExportWritten write_export(const Manifest &manifest, const std::filesystem::path &folder,
                           bool replace);

} // namespace dolm
