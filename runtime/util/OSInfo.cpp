// Facts about the host's memory, from a /proc/meminfo that stays open: one system call per question.
#include "platform/zel/OSInfo.h"

#include <atomic>

#include "base/ProcFiles.h"

namespace zel {
namespace {

constexpr unsigned long kKbPerMb = 1024;

std::atomic<int> g_memInfoFd{-1};

// Reading an open file again shares no file position with other threads or a forked child.
std::optional<base::MemInfo> ReadMemInfoAt(int fd) {
    char text[base::kSmallProcBytes];  // the fields of interest stand in the first lines
    return base::ParseMemInfo(base::RereadText(fd, text, sizeof text));
}

std::optional<base::MemInfo> ReadMemInfo() {
    const int kept = g_memInfoFd.load(std::memory_order_acquire);
    std::optional<base::MemInfo> info;
    if (kept >= 0) info = ReadMemInfoAt(kept);
    if (info) return info;
    base::Fd fresh = base::OpenProcFile(base::kMemInfoFile);
    if (fresh) info = ReadMemInfoAt(fresh.Get());
    if (!info) return info;
    // The first to publish keeps its descriptor. A number that stopped answering was closed by somebody who closes
    // every descriptor; it may be another file by now, so it is left alone.
    int expected = kept;
    if (g_memInfoFd.compare_exchange_strong(expected, fresh.Get(), std::memory_order_acq_rel)) fresh.Release();
    return info;
}

}  // namespace

int COSInfo::GetMemoryUsage(unsigned long* available) {
    const std::optional<base::MemInfo> info = ReadMemInfo();
    if (!info) return -1;
    if (available != nullptr) *available = info->availableKb / kKbPerMb;
    return base::UsagePercent(*info);
}

}  // namespace zel
