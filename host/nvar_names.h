// The NVARs that a user's words mean, and what is to be said of a word that means none.
#pragma once

#include <string>
#include <vector>

#include "host/library.h"

namespace dolm {

// Names in full of the NVARs that have a value in the table and that the words mean (patterns.h).
// Throws Failure if one means none, which says for each such word what kind of a name it is.
std::vector<std::string> choose_nvars(const Library &library, const std::vector<std::string> &words,
                                      FcsFileName table);

// Throws the same for each name that has no current value, UsageError for a pattern.
void require_nvars(const Library &library, const std::vector<std::string> &names);

} // namespace dolm
