// The part of the check of a manifest that is about EFS, and what both parts have in common.
#pragma once

#include <string>

#include "host/manifest.h"
#include "host/problems.h"

namespace dolm {

// Geometry and file list of a section.
void check_efs_section(const Manifest &manifest, const EfsSection &section, Problems &problems);

// What is to be written needs a place in the list that the image is made by.
void check_efs_content(const Manifest &manifest, const ManifestFile &file, Problems &problems);

// A name for a message.
std::string quoted(const std::string &name);
std::string bytes(uint64_t count);

// Of the content in flash, with its trailer.
uint32_t flash_size(const ManifestFile &file);

} // namespace dolm
