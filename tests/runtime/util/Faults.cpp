#include "Faults.h"

#include <algorithm>
#include <cerrno>

#include <dlfcn.h>
#include <pthread.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace faults {
namespace {

struct Plan {
    bool active = false;
    Call call = Call::kRead;
    int error = 0;
    int first = 0;
    int last = 0;
    int calls = 0;
};

thread_local Plan t_plan;
thread_local size_t t_mostPerWrite = 0;

// Returns: whether this call fails; errno is set then.
bool Fails(Call call) {
    if (!t_plan.active || t_plan.call != call) return false;
    ++t_plan.calls;
    if (t_plan.calls < t_plan.first || t_plan.calls > t_plan.last) return false;
    errno = t_plan.error;
    return true;
}

template <class Function>
Function Next(const char* name) {
    return reinterpret_cast<Function>(::dlsym(RTLD_NEXT, name));
}

}  // namespace

Failing::Failing(Call call, int error, int nth, int times) {
    t_plan = Plan{true, call, error, nth, nth + times - 1, 0};
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

}  // namespace faults

extern "C" {

__attribute__((visibility("default"))) ssize_t read(int fd, void* buffer, size_t size) {
    static const auto next = faults::Next<ssize_t (*)(int, void*, size_t)>("read");
    return faults::Fails(faults::Call::kRead) ? -1 : next(fd, buffer, size);
}

__attribute__((visibility("default"))) ssize_t write(int fd, const void* buffer, size_t size) {
    static const auto next = faults::Next<ssize_t (*)(int, const void*, size_t)>("write");
    if (faults::Fails(faults::Call::kWrite)) return -1;
    return next(fd, buffer, faults::t_mostPerWrite == 0 ? size : std::min(size, faults::t_mostPerWrite));
}

__attribute__((visibility("default"))) int fsync(int fd) {
    static const auto next = faults::Next<int (*)(int)>("fsync");
    return faults::Fails(faults::Call::kFsync) ? -1 : next(fd);
}

__attribute__((visibility("default"))) int statvfs64(const char* path, struct statvfs64* info) noexcept {
    static const auto next = faults::Next<int (*)(const char*, struct statvfs64*)>("statvfs64");
    return faults::Fails(faults::Call::kStatvfs) ? -1 : next(path, info);
}

__attribute__((visibility("default"))) int pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                                                          void* (*body)(void*), void* argument) noexcept {
    using Function = int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
    static const auto next = faults::Next<Function>("pthread_create");
    return faults::Fails(faults::Call::kThreadCreate) ? errno : next(thread, attributes, body, argument);
}

}  // extern "C"
