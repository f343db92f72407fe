// The wrapped calls.
#include "FailingCalls.h"

#include <sys/types.h>

#include <cerrno>
#include <cstddef>

FailingCalls g_failing;

extern "C" {

ssize_t __real_write(int fd, const void* data, size_t size);
ssize_t __wrap_write(int fd, const void* data, size_t size);
int __real_mkdirat(int dir, const char* name, mode_t mode);
int __wrap_mkdirat(int dir, const char* name, mode_t mode);

ssize_t __wrap_write(int fd, const void* data, size_t size) {
    const int number = ++g_failing.writes;
    if (g_failing.writeNumber > 0 && number >= g_failing.writeNumber &&
        number < g_failing.writeNumber + g_failing.inARow) {
        if (g_failing.writeError == 0) return static_cast<ssize_t>(size) - 1;
        errno = g_failing.writeError;
        return -1;
    }
    return __real_write(fd, data, size);
}

int __wrap_mkdirat(int dir, const char* name, mode_t mode) {
    if (g_failing.mkdirError != 0) {
        errno = g_failing.mkdirError;
        return -1;
    }
    return __real_mkdirat(dir, name, mode);
}
}
