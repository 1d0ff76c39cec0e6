// Changes of files that happen as a whole or not at all, whatever the end of the program: a
// failure, a signal, a kill, a cut of the power.
#pragma once

#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "image/bytes.h"

namespace dolm {

// What a member of a set is to hold; to be removed without content.
struct MemberChange {
    std::string member;
    std::optional<Bytes> content;
};

// Brings all changes about or none. A link stays, and what it points to is changed; what is no
// regular file is written through; a file that is replaced keeps its owner and mode. The caller
// holds the exclusive lock of the folder, in which nothing is interrupted. before_decision is
// called when all new files are on the disk, the last moment at which an exception leaves all as it
// was. Throws Failure, and has changed nothing then. What cannot be tidied up behind the decision
// is told as a notice; the next command does it.
void commit(const std::filesystem::path &folder, const std::vector<MemberChange> &changes,
            const std::function<void()> &before_decision);

// True if a change in the folder was interrupted.
bool is_interrupted(const std::filesystem::path &folder);

// Finishes it or undoes it, and tells which; does nothing otherwise. The caller holds the exclusive
// lock. Throws Failure.
void recover(const std::filesystem::path &folder);

// Writes a single file by the same rules. Throws Failure.
void write_file(const std::filesystem::path &path, const Bytes &content);

} // namespace dolm
