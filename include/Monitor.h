// The facade of the resource monitor: the one class that the agent's processes call. Any host thread may enter it.
#pragma once

#include <list>
#include <map>
#include <string>

#include "Singleton.h"
#include "platform/host/SysIntf.h"
#include "platform/zel/Export.h"
#include "platform/zel/MutexUtil.h"

class CMonitorPri;
class IResourceMonitorEvent;
namespace zel {
class CCgroupClient;
}

/// The resource monitor of this process. The host makes exactly one and reaches it with
/// CSingleton<CMonitor>::GetInstance().
/// Thread-safety: every operation from any thread, unless it says otherwise. Queries cost atomic loads.
/// Lifetime: call StopMonitor before destroying it; the destructor does not.
/// Errors: false, 0 or nothing done; nothing throws.
class ZEL_API CMonitor : public CSingleton<CMonitor> {
public:
    CMonitor();
    ~CMonitor() override;
    CMonitor(const CMonitor&) = delete;
    CMonitor& operator=(const CMonitor&) = delete;

    /// Reads the configuration, applies the first round of limits and starts sampling.
    /// `appName` "tervane" marks the agent's main process, which alone owns the control groups.
    /// `event` (borrowed, may be null) must live until StopMonitor.
    /// On failure: false; part of it may be in force, StopMonitor undoes what runs.
    bool StartMonitor(IResourceMonitorEvent* event, const std::string& appName);
    bool StopMonitor();
    /// Requires: before StartMonitor. An empty path is ignored.
    void SetConfigPath(const std::string& path);

    /// Returns: whether the legacy CPU limit is in force.
    bool IsResourceLimited();
    /// Returns: 0 free, 1 busy, 2 at the maximum.
    int GetCpuUsageLevel();
    int GetMemUsageLevel();
    /// Asks whether work of this priority (0 most important, 1, 2) should hold back now.
    bool IsCpuNeedLimit(unsigned int priority);
    /// The same, and sleeps 5 or 10 ms when the answer is yes. Blocks.
    bool CpuLimit(unsigned int priority);
    bool IsMemBusy();
    bool GetCpuHighAllRound();
    bool GetCpuBusyLastHour();
    bool GetAvgCpuMinuteBusy();
    bool GetAvgCpuWindowBusy();
    /// Units: MB; percent. Returns: false, output untouched, when there is no maximum.
    bool GetMaxMem(long& maxMem);
    bool GetMaxCpu(long& maxCpu);
    bool IsDiskFull();
    /// Pauses a little when CPU use is above the free level. Blocks.
    /// Returns: what the platform's pause says; false without a pause.
    bool SleepByCpuUsage();

    /// Units: `timeout` in seconds.
    void SetThreadHeartbeat(unsigned int tid, const std::string& name, int timeout);
    void RemoveThreadHeartbeat(unsigned int tid);
    void SetMonitorIOEnable(bool enable);
    /// Processes to watch besides this one: pid -> name.
    void SetWatcherProcess(std::map<unsigned int, std::string> processes);

    /// Re-reads the component file; call it when "T_MSG_IPC_CGROUP_CONFIG_NOTIFY" arrives.
    bool ReloadCgroupClientConfig();
    /// Requires: before StartMonitor. Owns: the caller keeps the client. Null allowed.
    void SetCgroupClient(zel::CCgroupClient* client);
    /// Requires: before StartMonitor. Null allowed.
    void SetIpcBroadcastCallback(void (*callback)(const std::string&, const std::string&));

    /// Owns: the caller keeps the interface. Null allowed.
    void SetSysIntf(CSysIntf* sysIntf);
    /// Returns: the host's id of the calling thread, 0 without a system interface.
    unsigned long GetCurrThreadId();
    /// Monitor points add lines to the thread report. Owns: the caller keeps the point until it is removed.
    void AddMonitorPoint(IMonitorInfo* point);
    /// Removes the first equal entry only: what was added twice is to be removed twice.
    void RemoveMonitorPoint(IMonitorInfo* point);

    /// Appends a per-thread table of CPU use to `report` and logs it. `highTid` (may be null) receives the busiest
    /// thread's id, 0 when every thread is idle; with it the busiest thread's kernel stack is attached.
    void GetThreadsInfo(std::string& report, unsigned int* highTid);
    void GetThreadsCpuUsage(std::list<CSysThreadsCpuUsage>& list);
    void GetHighCpuUsageThreadName(std::string& name, long& tid, unsigned int& usage);

protected:
    CMonitorPri* m_pri;
    zel::CMutexUtil m_sysIntfLock;       // guards m_sysIntf
    zel::CMutexUtil m_monitorPointLock;  // guards m_monitorPoints; never held together with the other
    CSysIntf* m_sysIntf;
    std::list<IMonitorInfo*> m_monitorPoints;
};

extern template class CSingleton<CMonitor>;
