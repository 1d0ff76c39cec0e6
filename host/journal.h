// The journal of a change of several files of a set, which is to happen as a whole or not at all.
//
// It lies in the set's folder under one of two names. Under the first it says which new files are
// being made; the change has not happened, and undoing it means to remove them. It gets the second
// name when all of them are on the disk. That rename decides: from then on the change has happened,
// and finishing it means to put in place what is not yet there. The journal is removed last.
//
// Text, one record a line, words separated by a blank; docs/formats.md shows one.
//
//   dolm-change 1                first line: format and version
//   replace MEMBER NEW           the file NEW, in the folder that the member really lies in, behind
//                                any links, takes its name
//   overwrite MEMBER NEW         the bytes of NEW, in the set's folder, go into what the member is;
//                                NEW is removed
//   remove MEMBER                the member's name is removed from the set's folder
//   end                          last line: what lacks it was never finished, and names no file
//                                that has been made
//
// MEMBER is the name of a file of a set, NEW is ".MEMBER.", something without blanks and slashes,
// and ".new". A step whose NEW is gone has been taken.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "image/bytes.h"

namespace dolm {

inline constexpr const char *undo_journal_name = "dolm-change.undo";
inline constexpr const char *finish_journal_name = "dolm-change.finish";

struct JournalStep {
    enum class Kind { replace, overwrite, remove };

    Kind kind;
    std::string member;
    std::string fresh; // NEW; empty to remove
};
using Journal = std::vector<JournalStep>;

Bytes to_bytes(const Journal &journal);

// Nothing if the bytes are not a whole journal.
std::optional<Journal> read_journal(const Bytes &bytes);

// The name of a new file for a member, for the n-th attempt of this process.
std::string fresh_name(const std::string &member, int attempt);

} // namespace dolm
