// Link-time wraps of the C library's write and a logger that keeps what it is told.
#include "CgroupFaults.h"

#include <sys/vfs.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <mutex>

#include "platform/zel/LogMessage.h"

namespace faults {
namespace {

std::mutex g_mutex;
int g_writes = 0;
int g_failAt = -1;
int g_error = 0;
bool g_forever = false;
std::string g_file;
std::vector<std::string> g_warnings;

bool IsControlFile(int fd) {
    struct statfs info {};
    return fstatfs(fd, &info) == 0 && (info.f_type == 0x27e0eb || info.f_type == 0x63677270);
}

std::string NameOf(int fd) {
    char path[PATH_MAX];
    const ssize_t size = readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), path, sizeof path);
    const std::string text(path, size > 0 ? static_cast<size_t>(size) : 0);
    return text.substr(text.rfind('/') + 1);
}

}  // namespace

void Clear() {
    const std::lock_guard<std::mutex> guard(g_mutex);
    g_writes = 0;
    g_failAt = -1;
    g_forever = false;
    g_file.clear();
    g_warnings.clear();
}

void FailWrite(int n, int error, bool forever) {
    const std::lock_guard<std::mutex> guard(g_mutex);
    g_failAt = g_writes + n;
    g_error = error;
    g_forever = forever;
}

void FailWritesTo(const std::string& file, int error) {
    const std::lock_guard<std::mutex> guard(g_mutex);
    g_file = file;
    g_error = error;
}

int Writes() {
    const std::lock_guard<std::mutex> guard(g_mutex);
    return g_writes;
}

std::vector<std::string> Warnings() {
    const std::lock_guard<std::mutex> guard(g_mutex);
    return g_warnings;
}

/// Returns: the error that this write shall have, 0 for none.
static int NextWrite(int fd) {
    const std::lock_guard<std::mutex> guard(g_mutex);
    const int index = g_writes++;
    if (!g_file.empty()) return NameOf(fd) == g_file ? g_error : 0;
    if (g_failAt < 0 || index < g_failAt || (index > g_failAt && !g_forever)) return 0;
    return g_error;
}

static void KeepLine(int level, const std::string& line) {
    if (level > zel::kLogWarning) return;
    const std::lock_guard<std::mutex> guard(g_mutex);
    g_warnings.push_back(line);
}

}  // namespace faults

extern "C" ssize_t __real_write(int fd, const void* data, size_t size);
// Visible, because the sanitizers' libraries refer to the wrapped name as well.
extern "C" __attribute__((visibility("default"))) ssize_t __wrap_write(int fd, const void* data, size_t size) {
    if (faults::IsControlFile(fd)) {
        const int error = faults::NextWrite(fd);
        if (error != 0) {
            errno = error;
            return -1;
        }
    }
    return __real_write(fd, data, size);
}

namespace zel {

void CLogMessage::WriteLogMessage(const std::string& text, int level) {
    faults::KeepLine(level, text);
}

void CLogMessage::log(int level, const char* sourceFileName, int, const char* format, ...) {
    char text[4096];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    faults::KeepLine(level, std::string(sourceFileName) + ": " + text);
}

}  // namespace zel
