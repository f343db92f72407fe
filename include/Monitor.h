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
/// Errors: false, 0 or nothing done; the module throws nothing of its own. Where memory runs out std::bad_alloc passes
/// through, as does what a callback or an interface of the host throws. Queries that take and give plain numbers throw
/// nothing.
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
    /// Stops sampling, timer and subscription; limits stay in force. Safe after a start that failed.
    /// Returns: whether sampling was stopped. Blocks: until the round that runs has ended.
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
    /// How often these two have said yes to work of this priority so far, and for how long CpuLimit has paused it.
    /// Returns: the answer now, which does not count.
    bool GetHoldBacks(unsigned int priority, unsigned long& answers, unsigned long& sleptMs);
    /// Returns: memory use is above its free level.
    bool IsMemBusy();
    /// Returns: every round of the window was at the maximum; the average of the last hour, minute or window reached
    /// the busy level. False until the period has been seen whole.
    bool GetCpuHighAllRound();
    bool GetCpuBusyLastHour();
    bool GetAvgCpuMinuteBusy();
    bool GetAvgCpuWindowBusy();
    /// Units: MB; percent. Returns: false, output untouched, when there is no maximum.
    bool GetMaxMem(long& maxMem);
    bool GetMaxCpu(long& maxCpu);
    /// Returns: the agent's disk was nearly full at the last look; looked at in the main process only.
    bool IsDiskFull();
    /// Pauses a little when CPU use is above the free level. Blocks.
    /// Returns: what the platform's pause says; false without a pause.
    bool SleepByCpuUsage();

    /// Records that a thread is alive. Units: `timeout` in seconds of allowed silence; 0 ends the supervision.
    void SetThreadHeartbeat(unsigned int tid, const std::string& name, int timeout);
    void RemoveThreadHeartbeat(unsigned int tid);
    /// Off: storage I/O is neither read nor judged.
    void SetMonitorIOEnable(bool enable);
    /// Processes to watch besides this one: pid -> name. Replaces the previous set.
    void SetWatcherProcess(std::map<unsigned int, std::string> processes);

    /// Reads the component file again and follows it; call it when "T_MSG_IPC_CGROUP_CONFIG_NOTIFY" arrives.
    /// On the thread that takes the host's messages, at any moment. Returns: false without a client, or when its reload
    /// failed.
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
    /// Blocks: while a report asks the points; so a point must not add or remove one from its own query.
    void AddMonitorPoint(IMonitorInfo* point);
    /// Removes the first equal entry only: what was added twice is to be removed twice.
    void RemoveMonitorPoint(IMonitorInfo* point);

    /// Appends a per-thread table of CPU use to `report` and logs it. `highTid` (may be null) receives the busiest
    /// thread's id, 0 when every thread is idle; with it the busiest thread's kernel stack is attached.
    void GetThreadsInfo(std::string& report, unsigned int* highTid);
    /// Fills the list from the system interface and names every thread in it. Without an interface only the names.
    void GetThreadsCpuUsage(std::list<CSysThreadsCpuUsage>& list);
    /// The busiest thread; `tid` and `usage` 0 without an interface. Units: hundredths of a percent of one CPU.
    void GetHighCpuUsageThreadName(std::string& name, long& tid, unsigned int& usage);

protected:
    CMonitorPri* m_pri;
    zel::CMutexUtil m_sysIntfLock;       // guards m_sysIntf
    zel::CMutexUtil m_monitorPointLock;  // guards m_monitorPoints; never held together with the other
    CSysIntf* m_sysIntf;
    std::list<IMonitorInfo*> m_monitorPoints;
};

extern template class CSingleton<CMonitor>;
