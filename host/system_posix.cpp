#include "host/system.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <iostream>
#include <utility>

namespace dolm::system {

namespace fs = std::filesystem;

namespace {

std::error_code last_error() {
    return {errno, std::generic_category()};
}

[[noreturn]] void fail() {
    throw std::system_error(last_error());
}

// An open file; closed at the end of its life.
class Descriptor {
  public:
    explicit Descriptor(int number) : number_(number) {}
    ~Descriptor() {
        if (number_ >= 0) {
            ::close(number_);
        }
    }
    Descriptor(const Descriptor &) = delete;
    Descriptor &operator=(const Descriptor &) = delete;

    bool is_open() const { return number_ >= 0; }
    int number() const { return number_; }

  private:
    int number_;
};

// Calls again what a signal has interrupted.
template <typename Call>
auto again(Call call) {
    auto result = call();
    while (result < 0 && errno == EINTR) {
        result = call();
    }
    return result;
}

int open_to_read(const fs::path &path) {
    // Only the owner of a file may leave its time of access alone.
    const int quiet = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOATIME);
    return quiet >= 0 || errno != EPERM ? quiet : ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
}

void write_all(int descriptor, const Bytes &content) {
    size_t done = 0;
    while (done < content.size()) {
        const ssize_t written = again(
            [&] { return ::write(descriptor, content.data() + done, content.size() - done); });
        if (written < 0) {
            fail();
        }
        done += static_cast<size_t>(written);
    }
}

// Pipes and most devices have no disk behind them.
bool sync(int descriptor) {
    return ::fsync(descriptor) == 0 || errno == EINVAL || errno == EROFS || errno == ENOTSUP;
}

int signal_holders = 0;

sigset_t ending_signals() {
    sigset_t signals;
    sigemptyset(&signals);
    for (const int number : {SIGHUP, SIGINT, SIGQUIT, SIGPIPE, SIGALRM, SIGTERM, SIGUSR1, SIGUSR2,
                             SIGXCPU, SIGVTALRM, SIGPROF}) {
        sigaddset(&signals, number);
    }
    return signals;
}

// Makes system calls return again and again while it lives.
class Alarm {
  public:
    explicit Alarm(std::chrono::milliseconds first) {
        struct sigaction action {};
        action.sa_handler = [](int) {};
        sigaction(SIGALRM, &action, &before_);
        const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(first);
        const auto rest = std::chrono::duration_cast<std::chrono::microseconds>(first - seconds);
        // One that comes before the call has begun is followed by others.
        itimerval timer{{0, 50000},
                        {static_cast<time_t>(seconds.count()),
                         std::max<suseconds_t>(static_cast<suseconds_t>(rest.count()), 1)}};
        setitimer(ITIMER_REAL, &timer, nullptr);
    }
    ~Alarm() {
        const itimerval off{};
        setitimer(ITIMER_REAL, &off, nullptr);
        sigaction(SIGALRM, &before_, nullptr);
    }
    Alarm(const Alarm &) = delete;
    Alarm &operator=(const Alarm &) = delete;

  private:
    struct sigaction before_ {};
};

} // namespace

std::vector<std::string> arguments(int argc, char **argv) {
    return {argv + std::min(argc, 1), argv + argc};
}

fs::path to_path(std::string_view text) {
    return text;
}

void prepare_streams() {
    std::signal(SIGXFSZ, SIG_IGN);
}

bool errors_go_to_terminal() {
    return isatty(STDERR_FILENO) != 0;
}

bool output_goes_to_terminal() {
    return isatty(STDOUT_FILENO) != 0;
}

DiscardedOutput::DiscardedOutput() {
    std::cout.flush();
    std::fflush(stdout);
    kept_ = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0);
    const Descriptor nowhere(::open("/dev/null", O_WRONLY | O_CLOEXEC));
    dup2(nowhere.number(), STDOUT_FILENO);
}

DiscardedOutput::~DiscardedOutput() {
    std::cout.flush();
    std::fflush(stdout);
    dup2(kept_, STDOUT_FILENO);
    ::close(kept_);
}

HeldSignals::HeldSignals() {
    const sigset_t signals = ending_signals();
    if (signal_holders++ == 0) {
        sigprocmask(SIG_BLOCK, &signals, nullptr);
    }
}

HeldSignals::~HeldSignals() {
    const sigset_t signals = ending_signals();
    if (--signal_holders == 0) {
        sigprocmask(SIG_UNBLOCK, &signals, nullptr);
    }
}

bool HeldSignals::any() {
    sigset_t waiting;
    sigpending(&waiting);
    const sigset_t signals = ending_signals();
    sigset_t both;
    sigandset(&both, &waiting, &signals);
    return sigisemptyset(&both) == 0;
}

class FolderLock::Held {
  public:
    explicit Held(const fs::path &folder)
        : path(folder), open(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
        if (!open.is_open()) {
            fail();
        }
    }

    const fs::path path;
    const Descriptor open;
};

FolderLock::FolderLock(const fs::path &folder) : held_(std::make_unique<Held>(folder)) {}

FolderLock::~FolderLock() = default;

bool FolderLock::acquire(Kind kind, std::chrono::milliseconds patience) {
    const int operation = kind == Kind::shared ? LOCK_SH : LOCK_EX;
    if (flock(held_->open.number(), operation | LOCK_NB) == 0) {
        return true;
    }
    if (errno != EWOULDBLOCK) {
        fail();
    }
    if (patience.count() <= 0) {
        return false;
    }
    const Alarm alarm(patience);
    if (flock(held_->open.number(), operation) == 0) {
        return true;
    }
    if (errno != EINTR) {
        fail();
    }
    return false;
}

// Under the lock, so that nobody else takes the folder for one that stays.
void FolderLock::remove_empty_folder() {
    std::error_code not_empty;
    fs::remove(held_->path, not_empty);
}

Bytes read(const fs::path &path, uint64_t limit) {
    const bool from_input = path == "-";
    const Descriptor file(from_input ? dup(STDIN_FILENO) : open_to_read(path));
    if (!file.is_open()) {
        fail();
    }
    constexpr size_t step = 65536;
    struct stat status {};
    uint64_t expected = 0;
    if (fstat(file.number(), &status) == 0 && S_ISREG(status.st_mode)) {
        expected = static_cast<uint64_t>(status.st_size);
    }
    Bytes content;
    size_t done = 0;
    while (expected <= limit && done <= limit) {
        // One byte more than allowed tells that there are more.
        content.resize(static_cast<size_t>(
            std::min(limit + 1, std::max<uint64_t>(expected + 1, done + step))));
        const ssize_t count = again(
            [&] { return ::read(file.number(), content.data() + done, content.size() - done); });
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

bool may_replace(const fs::path &path) {
    const fs::path folder = path.parent_path();
    struct stat old {};
    if (::access(folder.empty() ? "." : folder.c_str(), W_OK | X_OK) != 0) {
        return false;
    }
    if (::stat(path.c_str(), &old) != 0 || geteuid() == 0) {
        return true;
    }
    std::vector<gid_t> groups(static_cast<size_t>(std::max(getgroups(0, nullptr), 0)));
    getgroups(static_cast<int>(groups.size()), groups.data());
    return old.st_uid == geteuid() &&
           (old.st_gid == getegid() ||
            std::find(groups.begin(), groups.end(), old.st_gid) != groups.end());
}

void create(const fs::path &path, const Bytes &content, const fs::path &replaced) {
    struct stat old {};
    const bool has_old = !replaced.empty() && ::stat(replaced.c_str(), &old) == 0;
    const Descriptor file(
        ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, has_old ? 0600 : 0666));
    if (!file.is_open()) {
        fail();
    }
    try {
        struct stat fresh {};
        if (has_old && fstat(file.number(), &fresh) == 0) {
            const bool has_owner = old.st_uid == fresh.st_uid && old.st_gid == fresh.st_gid;
            if ((!has_owner && fchown(file.number(), old.st_uid, old.st_gid) != 0) ||
                fchmod(file.number(), old.st_mode & 07777) != 0) {
                fail();
            }
        }
        write_all(file.number(), content);
        if (::fsync(file.number()) != 0) {
            fail();
        }
    } catch (const std::system_error &) {
        ::unlink(path.c_str());
        throw;
    }
}

void overwrite(const fs::path &path, const Bytes &content) {
    const Descriptor file(::open(path.c_str(), O_WRONLY | O_CLOEXEC));
    if (!file.is_open()) {
        fail();
    }
    write_all(file.number(), content);
    struct stat status {};
    if (fstat(file.number(), &status) != 0 ||
        (S_ISREG(status.st_mode) &&
         ftruncate(file.number(), static_cast<off_t>(content.size())) != 0) ||
        !sync(file.number())) {
        fail();
    }
}

void replace(const fs::path &from, const fs::path &to, std::error_code &error) {
    error = ::rename(from.c_str(), to.c_str()) == 0 ? std::error_code() : last_error();
}

void sync_folder(const fs::path &folder, std::error_code &error) {
    const Descriptor opened(
        ::open(folder.empty() ? "." : folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    error = opened.is_open() && sync(opened.number()) ? std::error_code() : last_error();
}

std::string process_number() {
    return std::to_string(getpid());
}

} // namespace dolm::system
