// The queries that worker threads ask before and during heavy work, from any thread and often. They cost atomic
// loads: no lock, no allocation, no formatting and, unless the caller asks to be paused, no system call.
#include "MonitorPri.h"
#include "platform/zel/ToolUtil.h"

namespace {

constexpr unsigned int kPriorityCount = 3;  // 0 (most important), 1, 2
constexpr int kCpuLevelBusy = 1;
constexpr int kCpuLevelVeryBusy = 2;
constexpr unsigned int kBusyPauseMs = 5;
constexpr unsigned int kVeryBusyPauseMs = 10;

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

// The whole rule: the other two only say whether to sleep.
bool CMonitorPri::CheckCpuLimit(unsigned int priority, bool sleep) {
    if (!CheckPriorityValid(priority)) return false;
    if (CSingleton<COnlineClientConf>::GetInstance()->cpuLimitEnabled.Get() == 0) return false;
    unsigned int pauseMs = 0;
    const int level = GetCpuUsageLevel();
    if (level == kCpuLevelVeryBusy) {
        pauseMs = kVeryBusyPauseMs;
    } else if (level == kCpuLevelBusy && priority != 0) {
        pauseMs = kBusyPauseMs;  // the most important work goes on while the process is merely busy
    }
    if (sleep && pauseMs != 0) zel::CToolUtil::msleep(pauseMs);
    return pauseMs != 0;
}

bool CMonitorPri::IsCpuNeedLimit(unsigned int priority) {
    return CheckCpuLimit(priority, false);
}

bool CMonitorPri::CpuLimit(unsigned int priority) {
    return CheckCpuLimit(priority, true);
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
