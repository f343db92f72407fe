// The queries that worker threads ask before and during heavy work, from any thread and often. They cost atomic
// loads: no lock, no allocation, no formatting and, unless the caller asks to be paused, no system call. A yes is
// counted as well; whoever gets it has time.
#include <atomic>

#include "MonitorPri.h"
#include "platform/zel/ToolUtil.h"

namespace {

constexpr unsigned int kPriorityCount = 3;  // 0 (most important), 1, 2
constexpr int kCpuLevelBusy = 1;
constexpr int kCpuLevelVeryBusy = 2;
constexpr unsigned int kBusyPauseMs = 5;
constexpr unsigned int kVeryBusyPauseMs = 10;

// What workers of one priority were told so far, in this process. A line of its own for each: workers of two priorities
// do not slow each other.
struct alignas(64) HoldBacks {
    std::atomic<unsigned long> answers{0};
    std::atomic<unsigned long> sleptMs{0};
};
HoldBacks g_holdBacks[kPriorityCount];

[[gnu::noinline, gnu::cold]] void NoteHoldBack(unsigned int priority, unsigned int pauseMs) {
    g_holdBacks[priority].answers.fetch_add(1, std::memory_order_relaxed);
    if (pauseMs != 0) g_holdBacks[priority].sleptMs.fetch_add(pauseMs, std::memory_order_relaxed);
}

// Returns: false and `out` untouched when there is no maximum.
inline bool StoreMaximum(int maximum, long& out) {
    if (maximum < 1) return false;
    out = maximum;
    return true;
}

}  // namespace

bool CheckPriorityValid(unsigned int priority) {
    return priority < kPriorityCount;
}

namespace {

// The whole rule: the others only say whether to sleep. Returns: for how long; 0: work goes on.
inline unsigned int CpuLimitPause(CMonitorPri& monitor, unsigned int priority) {
    if (!CheckPriorityValid(priority)) return 0;
    if (CSingleton<COnlineClientConf>::GetInstance()->cpuLimitEnabled.Get() == 0) return 0;
    const int level = monitor.GetCpuUsageLevel();
    if (level == kCpuLevelVeryBusy) return kVeryBusyPauseMs;
    // The most important work goes on while the process is merely busy.
    return level == kCpuLevelBusy && priority != 0 ? kBusyPauseMs : 0;
}

}  // namespace

bool CMonitorPri::CheckCpuLimit(unsigned int priority, bool sleep) {
    const unsigned int pauseMs = CpuLimitPause(*this, priority);
    if (sleep && pauseMs != 0) zel::CToolUtil::msleep(pauseMs);
    return pauseMs != 0;
}

bool CMonitorPri::IsCpuNeedLimit(unsigned int priority) {
    if (!CheckCpuLimit(priority, false)) return false;
    NoteHoldBack(priority, 0);
    return true;
}

bool CMonitorPri::CpuLimit(unsigned int priority) {
    const unsigned int pauseMs = CpuLimitPause(*this, priority);
    if (pauseMs == 0) return false;
    zel::CToolUtil::msleep(pauseMs);
    NoteHoldBack(priority, pauseMs);
    return true;
}

bool CMonitorPri::GetHoldBacks(unsigned int priority, unsigned long& answers, unsigned long& sleptMs) {
    if (!CheckPriorityValid(priority)) return false;
    answers = g_holdBacks[priority].answers.load(std::memory_order_relaxed);
    sleptMs = g_holdBacks[priority].sleptMs.load(std::memory_order_relaxed);
    return CheckCpuLimit(priority, false);
}

bool CMonitorPri::IsMemBusy() {
    return GetMemUsageLevel() != 0;
}

bool CMonitorPri::GetMaxMem(long& out) {
    return StoreMaximum(CResourceMonitor::GetMaxMem(), out);
}

bool CMonitorPri::GetMaxCpu(long& out) {
    return StoreMaximum(CResourceMonitor::GetMaxCpu(), out);
}

bool CMonitorPri::IsResourceLimited() {
    return m_resourceLimited;
}

bool CMonitorPri::IsDiskFull() {
    return m_osAbnormalMonitor.IsDiskFull();
}
