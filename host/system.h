// What dolm asks of the operating system beyond the standard library: a file for POSIX systems and
// one for Windows. Everything else of the program is the same on every system. Paths, arguments and
// texts are UTF-8 on Windows, and bytes as they are elsewhere.
#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "image/bytes.h"

namespace dolm::system {

// The words of the command line behind the program's name.
std::vector<std::string> arguments(int argc, char **argv);

// The path that a user names. Not every library takes the text of a path for UTF-8 where it has to.
std::filesystem::path to_path(std::string_view text);

// Standard input, output and error carry bytes as they are, and a write that is refused for the
// size of a file or for want of a reader is an error rather than the end of the program.
void prepare_streams();

bool errors_go_to_terminal();
bool output_goes_to_terminal();

// While it lives, what is written to standard output is discarded.
class DiscardedOutput {
  public:
    DiscardedOutput();
    ~DiscardedOutput();
    DiscardedOutput(const DiscardedOutput &) = delete;
    DiscardedOutput &operator=(const DiscardedOutput &) = delete;

  private:
    int kept_;
};

// While one lives, a signal that would end the program waits; it takes effect at the end of the
// last one's life.
class HeldSignals {
  public:
    HeldSignals();
    ~HeldSignals();
    HeldSignals(const HeldSignals &) = delete;
    HeldSignals &operator=(const HeldSignals &) = delete;

    // True if one is waiting.
    static bool any();
};

// A lock on an existing folder, which leaves no trace and ends with the object or the process. It
// is held on the folder itself; on Windows, which has no such lock, on a file in it that is there
// as long as someone uses it.
class FolderLock {
  public:
    enum class Kind { shared, exclusive };

    // Does not wait. Throws std::system_error if the folder cannot be opened.
    explicit FolderLock(const std::filesystem::path &folder);
    ~FolderLock();
    FolderLock(const FolderLock &) = delete;
    FolderLock &operator=(const FolderLock &) = delete;

    // Takes the lock, or changes the kind of the one that is held, which may let others in between.
    // False if others stood in the way all the time. Throws std::system_error.
    bool acquire(Kind kind, std::chrono::milliseconds patience);

    // Removes the folder if nothing is in it. The lock is of no more use.
    void remove_empty_folder();

  private:
    class Held;
    std::unique_ptr<Held> held_;
};

// Reads a file, a device or a pipe to its end, standard input for "-", and leaves the times of a
// file alone where the system allows it. Throws std::system_error, with the code
// std::errc::file_too_large for more than `limit` bytes.
Bytes read(const std::filesystem::path &path, uint64_t limit);

// True if a new file with the same owner and mode can take the place of a file, or if there is
// none.
bool may_replace(const std::filesystem::path &path);

// Makes a file, which must not exist, with the content on the disk. It gets the owner and the mode
// of the file that is to be replaced, if there is one; on Windows it has the rights that its folder
// gives. Throws std::system_error, and leaves no file.
void create(const std::filesystem::path &path, const Bytes &content,
            const std::filesystem::path &replaced);

// Writes the content into what is there, whatever it is, and onto the disk. A regular file ends
// behind it. Throws std::system_error.
void overwrite(const std::filesystem::path &path, const Bytes &content);

// Gives a file another name in its folder, and takes the name from what had it. At any moment one
// of the two has the name.
void replace(const std::filesystem::path &from, const std::filesystem::path &to,
             std::error_code &error);

// Brings names that were made, changed or removed in a folder onto the disk.
void sync_folder(const std::filesystem::path &folder, std::error_code &error);

// A number that no other running process of this machine has.
std::string process_number();

} // namespace dolm::system
