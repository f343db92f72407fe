// Facts about the host's memory, from a /proc/meminfo that stays open: one system call per question.
#include "platform/zel/OSInfo.h"

#include <atomic>
#include <cerrno>
#include <string_view>

#include <fcntl.h>
#include <unistd.h>

#include "MemInfo.h"
#include "base/Fd.h"

namespace zel {
namespace {

constexpr char kMemInfoFile[] = "/proc/meminfo";
constexpr size_t kMemInfoBytes = 4096;  // the fields of interest stand in its first lines
constexpr unsigned long kKbPerMb = 1024;

std::atomic<int> g_memInfoFd{-1};

// At offset 0 the kernel makes the text afresh, and no file position is shared with other threads or a forked child.
bool ReadMemInfoAt(int fd, MemInfo& info) {
    char text[kMemInfoBytes];
    const ssize_t got = base::RetryOnSignal([&] { return ::pread(fd, text, sizeof text, 0); });
    return got > 0 && ParseMemInfo(std::string_view(text, static_cast<size_t>(got)), info);
}

bool ReadMemInfo(MemInfo& info) {
    const int kept = g_memInfoFd.load(std::memory_order_acquire);
    if (kept >= 0 && ReadMemInfoAt(kept, info)) return true;
    base::Fd fresh(base::RetryOnSignal([] { return ::open(kMemInfoFile, O_RDONLY | O_CLOEXEC | O_NOFOLLOW); }));
    if (!fresh.IsOpen() || !ReadMemInfoAt(fresh.Get(), info)) return false;
    // The first to publish keeps its descriptor. A number that stopped answering was closed by somebody who closes
    // every descriptor; it may be another file by now, so it is left alone.
    int expected = kept;
    if (g_memInfoFd.compare_exchange_strong(expected, fresh.Get(), std::memory_order_acq_rel)) fresh.Release();
    return true;
}

}  // namespace

int COSInfo::GetMemoryUsage(unsigned long* available) {
    MemInfo info;
    if (!ReadMemInfo(info)) return -1;
    if (available != nullptr) *available = info.availableKb / kKbPerMb;
    return UsagePercent(info);
}

}  // namespace zel
