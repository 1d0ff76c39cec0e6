// The geometry and file list of EFS, read from the bytes of a file table without the library, so
// that a set can be judged that the library refuses.
#pragma once

#include <string>

#include "image/bytes.h"
#include "image/efs_image.h"
#include "image/file_table.h"

namespace dolm {

// Whether an image can have the geometry at all.
bool is_possible(const EfsLayout &layout);

// What a row says, whatever it is.
EfsLayout efs_layout_of(const EfstRow &row);

// The row of a SKU. Throws std::runtime_error if the table has none, or none that an image can
// have.
EfsLayout read_efs_layout(const Bytes &ftbl, uint32_t sku);

} // namespace dolm
