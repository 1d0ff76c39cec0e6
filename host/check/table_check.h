// The checks of a file table, step by step.
#pragma once

#include <string>

#include "host/check/set_view.h"

namespace dolm {

// The names that errors about parts of the table go by, so that what follows finds its cause.
std::string subject_of(const FtblRow &row);
std::string subject_of(const EfstRow &row);
std::string subject_of(const FtblEntry &entry);
std::string subject_of(const EfstRecord &record);

// "0x270, entry 3 of SKU 1".
std::string place_of(const FtblRow &row, const FtblEntry &entry, size_t field = 0);
std::string place_of(const EfstRow &row, const EfstRecord &record, size_t field = 0);

// Ranges of the table that lie over each other, records behind the last one that a row counts, and
// bytes that are not zero although nothing reads them.
void check_table_regions(const SetView &view, Findings &findings);

// Names, stores and limits of the entries; the entries of a file against each other over all SKUs,
// and against those of other files in the same SKU.
void check_entries(const SetView &view, Findings &findings);

// Geometry and file list of EFS, each row by itself.
void check_efst_rows(const SetView &view, Findings &findings);

} // namespace dolm
