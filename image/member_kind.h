// What a file of a set looks like, whatever its name: by its content alone.
#pragma once

#include <cstdint>
#include <optional>
#include <span>

#include "image/bytes.h"

namespace dolm {

enum class MemberKind : uint8_t { base_store, override_store, file_table, afs_image, efs_image };

bool is_of_kind(const Bytes &bytes, MemberKind kind);

// Nothing if the bytes are like nothing known. A configuration store has no mark of its own: it is
// known by the packing that the library writes.
std::optional<MemberKind> recognise(const Bytes &bytes);

// What lies behind the head of "vync.cfg", as long as the head says or the file is.
std::span<const uint8_t> override_store(const Bytes &file);

} // namespace dolm
