// Disk space, sleeping and the hash mode.
#include "platform/zel/ToolUtil.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <ctime>

#include <sys/statvfs.h>

#include "ThreadSleep.h"
#include "base/Fd.h"

namespace zel {
namespace {

constexpr long kNsPerMs = 1000 * 1000;
constexpr long kNsPerSecond = 1000 * kNsPerMs;
constexpr unsigned int kMsPerSecond = 1000;
constexpr unsigned int kLoopPauseMs = 10;

std::atomic<int> g_hashMode{0};

// Until a point of the monotonic clock, so that signals do not lengthen the sleep.
bool SleepMs(unsigned int milliseconds) {
    timespec due{};
    if (::clock_gettime(CLOCK_MONOTONIC, &due) != 0) return false;
    due.tv_sec += milliseconds / kMsPerSecond;
    due.tv_nsec += static_cast<long>(milliseconds % kMsPerSecond) * kNsPerMs;
    if (due.tv_nsec >= kNsPerSecond) {
        due.tv_nsec -= kNsPerSecond;
        ++due.tv_sec;
    }
    int result = 0;
    do {
        result = ::clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &due, nullptr);
    } while (result == EINTR);
    return result == 0;
}

}  // namespace

bool CToolUtil::GetSelfDiskFreeSpace(unsigned long& freeSpace, unsigned long* freeInodes, std::string path) {
    if (path.empty()) path = GetApplicationDirPath() + "/";
    struct statvfs info {};
    if (base::RetryOnSignal([&] { return ::statvfs(path.c_str(), &info); }) != 0) return false;
    freeSpace = info.f_bavail * info.f_frsize;
    // Some file systems make inodes as they need them and report none: that is no shortage.
    if (freeInodes != nullptr) *freeInodes = info.f_files == 0 ? ULONG_MAX : info.f_favail;
    return true;
}

void CToolUtil::sleep(unsigned int seconds) {
    ThreadSleep* const own = ThreadSleep::OfCallingThread();
    if (own != nullptr) {
        own->SleepFor(std::chrono::seconds(seconds));
        return;
    }
    // In steps, because milliseconds of the largest value do not fit.
    constexpr unsigned int kStepSeconds = 3600;
    for (; seconds > kStepSeconds; seconds -= kStepSeconds) SleepMs(kStepSeconds * kMsPerSecond);
    SleepMs(seconds * kMsPerSecond);
}

void CToolUtil::msleep(unsigned int milliseconds) {
    SleepMs(milliseconds);
}

bool CSleepUtil::SleepForLoop() {
    return SleepMs(kLoopPauseMs);
}

void CAlgorithmUtil::SetHashMode(int mode) {
    g_hashMode.store(mode, std::memory_order_relaxed);
}

int CAlgorithmUtil::GetHashMode() {
    return g_hashMode.load(std::memory_order_relaxed);
}

}  // namespace zel
