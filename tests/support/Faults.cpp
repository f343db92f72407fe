// System calls that fail on demand.
#include "support/Faults.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <mutex>

namespace faults {
namespace {

constexpr long kCgroupV1Magic = 0x27e0eb;
constexpr long kCgroupV2Magic = 0x63677270;

struct ThreadPlan {
    bool active = false;
    Call call = Call::kRead;
    int error = 0;
    int first = 0;
    int last = 0;
    int calls = 0;
};

struct ControlPlan {
    int writes = 0;
    int failAt = -1;
    int error = 0;
    bool forever = false;
    std::string file;
};

thread_local ThreadPlan t_plan;
thread_local size_t t_mostPerWrite = 0;
std::mutex g_controlMutex;
ControlPlan g_control;

/// Returns: whether this call is one that shall not be made.
bool IsDue(Call call) {
    if (!t_plan.active || t_plan.call != call) return false;
    ++t_plan.calls;
    return t_plan.calls >= t_plan.first && t_plan.calls <= t_plan.last;
}

/// Returns: whether this call fails; errno is set then.
bool Fails(Call call) {
    if (!IsDue(call)) return false;
    errno = t_plan.error;
    return true;
}

bool IsControlFile(int fd) {
    struct statfs info {};
    return fstatfs(fd, &info) == 0 && (info.f_type == kCgroupV1Magic || info.f_type == kCgroupV2Magic);
}

std::string NameOf(int fd) {
    char path[PATH_MAX];
    const ssize_t size = readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), path, sizeof path);
    const std::string text(path, size > 0 ? static_cast<size_t>(size) : 0);
    return text.substr(text.rfind('/') + 1);
}

/// Returns: the error that this write shall have, 0 for none.
int ControlError(int fd) {
    if (!IsControlFile(fd)) return 0;
    const std::lock_guard<std::mutex> guard(g_controlMutex);
    const int index = g_control.writes++;
    if (!g_control.file.empty()) return NameOf(fd) == g_control.file ? g_control.error : 0;
    if (g_control.failAt < 0 || index < g_control.failAt) return 0;
    return index == g_control.failAt || g_control.forever ? g_control.error : 0;
}

template <class Function>
Function Next(const char* name) {
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

}  // namespace

Failing::Failing(Call call, int error, int nth, int times) {
    t_plan = ThreadPlan{true, call, error, nth, nth == 0 ? 0 : nth + times - 1, 0};
}

Failing::~Failing() {
    t_plan.active = false;
}

int Failing::Calls() const {
    return t_plan.calls;
}

ShortWrites::ShortWrites(size_t bytes) {
    t_mostPerWrite = bytes;
}

ShortWrites::~ShortWrites() {
    t_mostPerWrite = 0;
}

void ClearControlWrites() {
    const std::lock_guard<std::mutex> guard(g_controlMutex);
    g_control = ControlPlan();
}

void FailControlWrite(int n, int error, bool forever) {
    const std::lock_guard<std::mutex> guard(g_controlMutex);
    g_control.failAt = g_control.writes + n;
    g_control.error = error;
    g_control.forever = forever;
}

void FailControlWritesTo(const std::string& file, int error) {
    const std::lock_guard<std::mutex> guard(g_controlMutex);
    g_control.file = file;
    g_control.error = error;
}

int ControlWrites() {
    const std::lock_guard<std::mutex> guard(g_controlMutex);
    return g_control.writes;
}

}  // namespace faults

// Visible, because libraries, the sanitizers' among them, refer to these names as well.
#define ZEL_IN_FRONT extern "C" __attribute__((visibility("default")))

ZEL_IN_FRONT ssize_t read(int fd, void* buffer, size_t size) {
    static const auto next = faults::Next<ssize_t (*)(int, void*, size_t)>("read");
    return faults::Fails(faults::Call::kRead) ? -1 : next(fd, buffer, size);
}

// Both names: which of them a source means depends on the size of its file offsets.
ZEL_IN_FRONT int openat64(int directory, const char* path, int flags, ...) {
    static const auto next = faults::Next<int (*)(int, const char*, int, ...)>("openat64");
    va_list rest;
    va_start(rest, flags);
    const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(rest, mode_t) : 0;
    va_end(rest);
    return faults::Fails(faults::Call::kOpenat) ? -1 : next(directory, path, flags, mode);
}

ZEL_IN_FRONT ssize_t write(int fd, const void* buffer, size_t size) {
    static const auto next = faults::Next<ssize_t (*)(int, const void*, size_t)>("write");
    if (faults::IsDue(faults::Call::kWrite)) {
        if (faults::t_plan.error == faults::kOneByteLess) return static_cast<ssize_t>(size) - 1;
        errno = faults::t_plan.error;
        return -1;
    }
    if (const int error = faults::ControlError(fd); error != 0) {
        errno = error;
        return -1;
    }
    return next(fd, buffer, faults::t_mostPerWrite == 0 ? size : std::min(size, faults::t_mostPerWrite));
}

ZEL_IN_FRONT int fsync(int fd) {
    static const auto next = faults::Next<int (*)(int)>("fsync");
    return faults::Fails(faults::Call::kFsync) ? -1 : next(fd);
}

ZEL_IN_FRONT int statvfs64(const char* path, struct statvfs64* info) noexcept {
    static const auto next = faults::Next<int (*)(const char*, struct statvfs64*)>("statvfs64");
    return faults::Fails(faults::Call::kStatvfs) ? -1 : next(path, info);
}

ZEL_IN_FRONT int mkdirat(int directory, const char* name, mode_t mode) noexcept {
    static const auto next = faults::Next<int (*)(int, const char*, mode_t)>("mkdirat");
    return faults::Fails(faults::Call::kMkdirat) ? -1 : next(directory, name, mode);
}

ZEL_IN_FRONT int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
                                void* argument) noexcept {
    using Function = int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
    static const auto next = faults::Next<Function>("pthread_create");
    return faults::Fails(faults::Call::kThreadCreate) ? errno : next(thread, attributes, body, argument);
}
