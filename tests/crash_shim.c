// Preloaded into dolm: its n-th call that changes a file or a folder fails, is its last, or is
// preceded by a signal. CRASH_AT is n, CRASH_HOW is "kill", "fail" or "signal".
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdarg.h>
#include <stdbool.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#define REAL(name) ((__typeof__(&name))dlsym(RTLD_NEXT, #name))

// Counts a call; true if it is the one.
static bool is_it(void) {
    static int left = -1;
    if (left < 0) {
        const char *at = getenv("CRASH_AT");
        left = at == NULL ? 0 : atoi(at);
    }
    return left > 0 && --left == 0;
}

static bool is_how(const char *how) {
    return strcmp(getenv("CRASH_HOW"), how) == 0;
}

// Before a call; true if it is to fail.
static bool step(void) {
    if (!is_it()) {
        return false;
    }
    if (is_how("fail")) {
        errno = ENOSPC;
        return true;
    }
    kill(getpid(), is_how("kill") ? SIGKILL : SIGTERM);
    return false;
}

int open(const char *path, int flags, ...) {
    va_list rest;
    va_start(rest, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(rest, mode_t) : 0;
    va_end(rest);
    return (flags & O_CREAT) != 0 && step() ? -1 : REAL(open)(path, flags, mode);
}

// Takes long content in parts, so that some end finds it half written.
ssize_t write(int file, const void *bytes, size_t count) {
    if (file <= STDERR_FILENO) {
        return REAL(write)(file, bytes, count);
    }
    return step() ? -1 : REAL(write)(file, bytes, count > 4096 ? count / 2 : count);
}

int fsync(int file) {
    return step() ? -1 : REAL(fsync)(file);
}

int fchmod(int file, mode_t mode) {
    return step() ? -1 : REAL(fchmod)(file, mode);
}

int rename(const char *from, const char *to) {
    return step() ? -1 : REAL(rename)(from, to);
}

int remove(const char *path) {
    return step() ? -1 : REAL(remove)(path);
}

int mkdir(const char *path, mode_t mode) {
    return step() ? -1 : REAL(mkdir)(path, mode);
}
