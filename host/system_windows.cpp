#include "host/system.h"

// Before any other header of the system.
#include <windows.h>

#include <fcntl.h>
#include <io.h>
#include <shellapi.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <iostream>
#include <thread>

namespace dolm::system {

namespace fs = std::filesystem;

namespace {

std::error_code last_error() {
    return {static_cast<int>(GetLastError()), std::system_category()};
}

[[noreturn]] void fail() {
    throw std::system_error(errno, std::generic_category());
}

std::string to_utf8(const wchar_t *text) {
    const int size = WideCharToMultiByte(CP_UTF8, 0, text, -1, nullptr, 0, nullptr, nullptr);
    std::string converted(static_cast<size_t>(std::max(size, 1)), '\0');
    WideCharToMultiByte(CP_UTF8, 0, text, -1, converted.data(), size, nullptr, nullptr);
    converted.pop_back(); // the zero at the end
    return converted;
}

// The form in which the system takes a path of any length.
std::wstring long_form(const fs::path &path) {
    std::error_code error;
    const fs::path full = fs::absolute(path, error).lexically_normal();
    const std::wstring text = fs::path(full).make_preferred().wstring();
    constexpr size_t longest_plain = 240; // of 260 for a file, and some less for a folder
    return error || text.size() <= longest_plain || text.starts_with(L"\\\\") ? path.wstring()
                                                                              : L"\\\\?\\" + text;
}

// An open file; closed at the end of its life.
class Descriptor {
  public:
    explicit Descriptor(int number) : number_(number) {}
    ~Descriptor() { close(); }
    Descriptor(const Descriptor &) = delete;
    Descriptor &operator=(const Descriptor &) = delete;

    void close() {
        if (number_ >= 0) {
            _close(number_);
        }
        number_ = -1;
    }
    bool is_open() const { return number_ >= 0; }
    int number() const { return number_; }

  private:
    int number_;
};

int open_file(const fs::path &path, int flags) {
    return _wopen(long_form(path).c_str(), flags | _O_BINARY | _O_NOINHERIT, _S_IREAD | _S_IWRITE);
}

bool is_regular(const Descriptor &file) {
    struct _stat64 status {};
    return _fstat64(file.number(), &status) == 0 && (status.st_mode & _S_IFMT) == _S_IFREG;
}

void write_all(const Descriptor &file, const Bytes &content) {
    constexpr size_t most_at_once = 1 << 20;
    size_t done = 0;
    while (done < content.size()) {
        const auto count = static_cast<unsigned>(std::min(content.size() - done, most_at_once));
        const int written = _write(file.number(), content.data() + done, count);
        if (written <= 0) {
            fail();
        }
        done += static_cast<size_t>(written);
    }
}

std::atomic<bool> end_is_waiting = false;
int signal_holders = 0;

BOOL WINAPI hold_end(DWORD) {
    end_is_waiting = true;
    return TRUE;
}

} // namespace

std::vector<std::string> arguments(int, char **) {
    int count = 0;
    wchar_t **words = CommandLineToArgvW(GetCommandLineW(), &count);
    std::vector<std::string> converted;
    for (int i = 1; i < count; ++i) {
        converted.push_back(to_utf8(words[i]));
    }
    LocalFree(words);
    return converted;
}

fs::path to_path(std::string_view text) {
    return fs::path(std::u8string(text.begin(), text.end()));
}

void prepare_streams() {
    for (FILE *stream : {stdin, stdout, stderr}) {
        _setmode(_fileno(stream), _O_BINARY);
    }
    SetConsoleOutputCP(CP_UTF8);
}

bool errors_go_to_terminal() {
    return _isatty(_fileno(stderr)) != 0;
}

bool output_goes_to_terminal() {
    return _isatty(_fileno(stdout)) != 0;
}

DiscardedOutput::DiscardedOutput() {
    std::cout.flush();
    std::fflush(stdout);
    kept_ = _dup(_fileno(stdout));
    const Descriptor nowhere(_wopen(L"NUL", _O_WRONLY | _O_BINARY | _O_NOINHERIT));
    _dup2(nowhere.number(), _fileno(stdout));
}

DiscardedOutput::~DiscardedOutput() {
    std::cout.flush();
    std::fflush(stdout);
    _dup2(kept_, _fileno(stdout));
    _close(kept_);
}

HeldSignals::HeldSignals() {
    if (signal_holders++ == 0) {
        SetConsoleCtrlHandler(hold_end, TRUE);
    }
}

HeldSignals::~HeldSignals() {
    if (--signal_holders > 0) {
        return;
    }
    SetConsoleCtrlHandler(hold_end, FALSE);
    if (any()) {
        ExitProcess(STATUS_CONTROL_C_EXIT);
    }
}

bool HeldSignals::any() {
    return end_is_waiting;
}

// The handle of "dolm-change.lock" in the folder, of which others cannot remove the name. Who uses
// it last does.
class FolderLock::Held {
  public:
    explicit Held(const fs::path &folder)
        : folder_(folder), name_(long_form(folder / "dolm-change.lock")) {
        if (!fs::is_directory(folder)) {
            throw std::system_error(std::make_error_code(std::errc::not_a_directory));
        }
        file_ = open();
        // Who may not write there has nobody to keep out, and reads without a lock.
        if (!is_open() && GetLastError() != ERROR_ACCESS_DENIED) {
            throw std::system_error(last_error());
        }
    }
    ~Held() { release(); }
    Held(const Held &) = delete;
    Held &operator=(const Held &) = delete;

    bool is_open() const { return file_ != INVALID_HANDLE_VALUE; }
    const fs::path &folder() const { return folder_; }

    bool try_to_lock(Kind kind) {
        OVERLAPPED at_start{};
        const DWORD flags = LOCKFILE_FAIL_IMMEDIATELY |
                            (kind == Kind::exclusive ? DWORD{LOCKFILE_EXCLUSIVE_LOCK} : 0);
        unlock();
        is_locked_ = LockFileEx(file_, flags, 0, 1, 0, &at_start) != 0;
        const DWORD error = GetLastError();
        if (!is_locked_ && error != ERROR_LOCK_VIOLATION && error != ERROR_IO_PENDING) {
            throw std::system_error(last_error());
        }
        return is_locked_;
    }

    void release() {
        if (is_open()) {
            unlock();
            CloseHandle(file_);
            file_ = INVALID_HANDLE_VALUE;
            DeleteFileW(name_.c_str()); // refused as long as someone else has it open
        }
    }

  private:
    // Tries again while who was last is removing the file.
    HANDLE open() const {
        HANDLE file = INVALID_HANDLE_VALUE;
        for (int attempt = 0; attempt < 20; ++attempt) {
            file = CreateFileW(name_.c_str(), GENERIC_READ | GENERIC_WRITE,
                               FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_ALWAYS,
                               FILE_ATTRIBUTE_HIDDEN, nullptr);
            if (file != INVALID_HANDLE_VALUE || GetLastError() != ERROR_ACCESS_DENIED) {
                break;
            }
            Sleep(10);
        }
        return file;
    }

    void unlock() {
        OVERLAPPED at_start{};
        if (is_locked_) {
            UnlockFileEx(file_, 0, 1, 0, &at_start);
            is_locked_ = false;
        }
    }

    const fs::path folder_;
    const std::wstring name_;
    HANDLE file_;
    bool is_locked_ = false;
};

FolderLock::FolderLock(const fs::path &folder) : held_(std::make_unique<Held>(folder)) {}

FolderLock::~FolderLock() = default;

bool FolderLock::acquire(Kind kind, std::chrono::milliseconds patience) {
    if (!held_->is_open()) {
        if (kind == Kind::shared) {
            return true;
        }
        throw std::system_error(std::make_error_code(std::errc::permission_denied));
    }
    const auto end = std::chrono::steady_clock::now() + patience;
    while (!held_->try_to_lock(kind)) {
        if (std::chrono::steady_clock::now() >= end) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
}

// Behind the lock, whose file lies in it. Who waits for the lock has that file open, and the folder
// stays.
void FolderLock::remove_empty_folder() {
    held_->release();
    RemoveDirectoryW(long_form(held_->folder()).c_str());
}

Bytes read(const fs::path &path, uint64_t limit) {
    const Descriptor file(path == "-" ? _dup(_fileno(stdin)) : open_file(path, _O_RDONLY));
    if (!file.is_open()) {
        fail();
    }
    constexpr size_t step = 65536;
    Bytes content;
    size_t done = 0;
    while (done <= limit) {
        // One byte more than allowed tells that there are more.
        content.resize(static_cast<size_t>(std::min<uint64_t>(limit + 1, done + step)));
        const int count = _read(file.number(), content.data() + done,
                                static_cast<unsigned>(content.size() - done));
        if (count < 0) {
            fail();
        }
        if (count == 0) {
            content.resize(done);
            return content;
        }
        done += static_cast<size_t>(count);
    }
    throw std::system_error(std::make_error_code(std::errc::file_too_large));
}

bool may_replace(const fs::path &) {
    return true;
}

void create(const fs::path &path, const Bytes &content, const fs::path &replaced) {
    // One that may not be written could not be replaced either.
    constexpr int to_write = 2;
    if (!replaced.empty() && _waccess(long_form(replaced).c_str(), to_write) != 0 &&
        errno != ENOENT) {
        fail();
    }
    Descriptor file(open_file(path, _O_WRONLY | _O_CREAT | _O_EXCL));
    if (!file.is_open()) {
        fail();
    }
    try {
        write_all(file, content);
        if (_commit(file.number()) != 0) {
            fail();
        }
    } catch (const std::system_error &) {
        file.close();
        _wunlink(long_form(path).c_str());
        throw;
    }
}

void overwrite(const fs::path &path, const Bytes &content) {
    const Descriptor file(open_file(path, _O_WRONLY));
    if (!file.is_open()) {
        fail();
    }
    write_all(file, content);
    if (is_regular(file) && (_chsize_s(file.number(), static_cast<int64_t>(content.size())) != 0 ||
                             _commit(file.number()) != 0)) {
        fail();
    }
}

void replace(const fs::path &from, const fs::path &to, std::error_code &error) {
    error = MoveFileExW(long_form(from).c_str(), long_form(to).c_str(),
                        MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH) != 0
                ? std::error_code()
                : last_error();
}

// The file system logs changes of names in their order, and replace() waits for the log.
void sync_folder(const fs::path &, std::error_code &error) {
    error.clear();
}

std::string process_number() {
    return std::to_string(GetCurrentProcessId());
}

} // namespace dolm::system
