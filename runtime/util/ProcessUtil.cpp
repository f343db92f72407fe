// Facts about processes.
#include "platform/zel/ProcessUtil.h"

#include <cerrno>
#include <charconv>
#include <cstdio>

#include <fcntl.h>
#include <unistd.h>

#include "base/Fd.h"

namespace zel {
namespace {

constexpr unsigned long kBytesPerKb = 1024;

class ProcessUtil final : public IProcessUtil {
public:
    int GetCurrentProcessId() override { return static_cast<int>(::getpid()); }

    // The second figure of statm is the resident set in pages. Source: proc(5), /proc/pid/statm.
    unsigned long GetProcessMemory(int pid) override {
        if (pid <= 0) return 0;
        char path[32];
        std::snprintf(path, sizeof path, "/proc/%d/statm", pid);
        const base::Fd fd(base::RetryOnSignal([&] { return ::open(path, O_RDONLY | O_CLOEXEC | O_NOFOLLOW); }));
        if (!fd.IsOpen()) return 0;
        char text[256];
        const ssize_t got = base::RetryOnSignal([&] { return ::read(fd.Get(), text, sizeof text); });
        if (got <= 0) return 0;
        const char* const end = text + got;
        unsigned long sizePages = 0;
        unsigned long residentPages = 0;
        std::from_chars_result result = std::from_chars(text, end, sizePages);
        if (result.ec != std::errc() || result.ptr == end || *result.ptr != ' ') return 0;
        result = std::from_chars(result.ptr + 1, end, residentPages);
        if (result.ec != std::errc()) return 0;
        static const unsigned long pageBytes = static_cast<unsigned long>(::sysconf(_SC_PAGESIZE));
        return residentPages * (pageBytes / kBytesPerKb);
    }
};

}  // namespace

IProcessUtil* GetProcessUtil() {
    static ProcessUtil util;
    return &util;
}

}  // namespace zel
