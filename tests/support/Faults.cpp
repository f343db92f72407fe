// System calls that fail on demand.
#include "support/Faults.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <map>
#include <mutex>
#include <utility>

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

struct Interlude {
    Call call = Call::kRead;
    int left = 0;
    std::function<void()> action;
};

struct ControlPlan {
    int writes = 0;
    int failAt = -1;
    int error = 0;
    bool forever = false;
    std::string file;
};

thread_local ThreadPlan t_plan;
thread_local Interlude t_interlude;
thread_local bool t_unsized = false;
thread_local size_t t_mostPerWrite = 0;
std::mutex g_controlMutex;
ControlPlan g_control;

void TakeInterlude(Call call) {
    if (!t_interlude.action || t_interlude.call != call || --t_interlude.left > 0) return;
    // Taken first: the calls that it makes itself are not counted.
    std::exchange(t_interlude.action, nullptr)();
}

/// Returns: whether this call is one that shall not be made.
bool IsDue(Call call) {
    TakeInterlude(call);
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

std::string PathOf(int fd) {
    char path[PATH_MAX];
    const ssize_t size = readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), path, sizeof path);
    return std::string(path, size > 0 ? static_cast<size_t>(size) : 0);
}

std::string NameOf(int fd) {
    const std::string path = PathOf(fd);
    return path.substr(path.rfind('/') + 1);
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

/// One group's scripted file: an unnamed file that every open of it leads to.
struct ScriptedFiles {
    std::string name;
    std::map<std::string, int> byDirectory;
};
std::mutex g_scriptMutex;
ScriptedFiles g_script;

std::string TextOf(int fd) {
    char text[16] = {};
    const ssize_t size = pread(fd, text, sizeof text - 1, 0);
    return std::string(text, size > 0 ? static_cast<size_t>(size) : 0);
}

bool HasGroupsBelow(int directory) {
    struct stat info {};
    return fstat(directory, &info) == 0 && info.st_nlink > 2;
}

/// Returns: a descriptor of the scripted file, -1 with errno set, or -2 when the file is none.
int OpenScripted(int directory, const char* name, int flags) {
    const std::lock_guard<std::mutex> guard(g_scriptMutex);
    if (g_script.name.empty() || name != g_script.name) return -2;
    const std::string path = PathOf(directory);
    const bool writes = (flags & O_ACCMODE) != O_RDONLY;
    auto known = g_script.byDirectory.find(path);
    if (known == g_script.byDirectory.end()) {
        const auto above = g_script.byDirectory.find(path.substr(0, path.rfind('/')));
        const bool inherits = above != g_script.byDirectory.end() && TextOf(above->second) == "1\n";
        const int made = memfd_create("scripted", MFD_CLOEXEC);
        if (made < 0 || pwrite(made, inherits ? "1\n" : "0\n", 2, 0) != 2) return -1;
        known = g_script.byDirectory.emplace(path, made).first;
    }
    if (writes && HasGroupsBelow(directory)) {
        errno = EBUSY;
        return -1;
    }
    return open(("/proc/self/fd/" + std::to_string(known->second)).c_str(), flags & ~O_NOFOLLOW);
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

Before::Before(Call call, int nth, std::function<void()> action) {
    t_interlude = Interlude{call, nth, std::move(action)};
}

Before::~Before() {
    t_interlude = Interlude();
}

UnsizedDirectories::UnsizedDirectories() {
    t_unsized = true;
}

UnsizedDirectories::~UnsizedDirectories() {
    t_unsized = false;
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

OldHierarchySwitch::OldHierarchySwitch(const std::string& file) {
    const std::lock_guard<std::mutex> guard(g_scriptMutex);
    g_script.name = file;
}

OldHierarchySwitch::~OldHierarchySwitch() {
    const std::lock_guard<std::mutex> guard(g_scriptMutex);
    for (const auto& [directory, fd] : g_script.byDirectory) close(fd);
    g_script = ScriptedFiles();
}

std::string OldHierarchySwitch::Of(const std::string& directory) const {
    const std::lock_guard<std::mutex> guard(g_scriptMutex);
    const auto known = g_script.byDirectory.find(directory);
    return known == g_script.byDirectory.end() ? "" : TextOf(known->second).substr(0, 1);
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
    if (faults::Fails(faults::Call::kOpenat)) return -1;
    const int scripted = faults::OpenScripted(directory, path, flags);
    return scripted == -2 ? next(directory, path, flags, mode) : scripted;
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

ZEL_IN_FRONT int fstat64(int fd, struct stat64* info) noexcept {
    static const auto next = faults::Next<int (*)(int, struct stat64*)>("fstat64");
    if (faults::Fails(faults::Call::kFstat)) return -1;
    const int result = next(fd, info);
    if (result == 0 && faults::t_unsized && S_ISDIR(info->st_mode)) info->st_size = 0;
    return result;
}

ZEL_IN_FRONT int unlink(const char* path) noexcept {
    static const auto next = faults::Next<int (*)(const char*)>("unlink");
    return faults::Fails(faults::Call::kUnlink) ? -1 : next(path);
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
