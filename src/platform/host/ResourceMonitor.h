// The sampling class: one round a second of the process's own CPU, memory, I/O, descriptors and load, compared
// with their maxima. Reads /proc/self/*, /proc/loadavg and the process CPU clock.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "ResourceConfig.h"
#include "platform/zel/Export.h"
#include "platform/zel/ThreadUtil.h"

/// Sink of the sampling class's events. Opaque to the module, which only passes it through; the host derives its
/// own from the richer interface of platform/host/ResourceEventSink.h.
class ZEL_API IResourceMonitorEvent {
public:
    virtual ~IResourceMonitorEvent() {}
};

/// Figures of the sampling class. Field order is shared layout.
struct ResourceMonitorInfo {
    uint32_t maxCpu = 0;              ///< percent, the maximum in force
    uint32_t avgCpu = 0;              ///< percent over the window
    uint32_t avgCpu100Times = 0;      ///< hundredths of a percent over the window
    uint32_t cpuWarnCount = 0;        ///< rounds at level 1 or 2 since start
    uint32_t cpuMinuteHighCount = 0;  ///< minutes whose average reached the maximum
    uint32_t cpuHighCount = 0;        ///< rounds at level 2 since start
    uint32_t writePidTimes = 0;       ///< times a watched process's record was written
    uint32_t maxReadIo = 0;           ///< KB/s, the maximum in force
    uint32_t maxWriteIo = 0;
    uint32_t readIoWarnCount = 0;
    uint32_t writeIoWarnCount = 0;
    uint32_t avgReadIo = 0;  ///< KB/s over the window
    uint32_t avgWriteIo = 0;
    uint32_t maxMem = 0;  ///< MB, the maximum in force
    uint32_t avgMem = 0;  ///< MB over the window
    uint32_t avgFdCount = 0;
    float loadAvg = 0;        ///< one-minute load average of the host
    float singleLoadAvg = 0;  ///< the same per configured CPU
};

/// Usage levels as the sampling class publishes them. Part of its layout, so that a query is one load wherever it is
/// asked from.
struct ResourceUsageLevels {
    static constexpr int kNotJudged = -1;  ///< no round has been judged, or nobody samples any more
    std::atomic<int> cpu{kNotJudged};
    std::atomic<int> mem{kNotJudged};
};

/// The resource-sampling thread class.
/// Thread-safety: every setter and query may be called from any thread; queries are atomic loads.
/// Lifetime: StopMonitor before destruction.
/// Only the three leading operations are virtual, in this order; everything else is non-virtual on purpose,
/// because derived classes have operations of the same names.
class ZEL_API CResourceMonitor : public zel::CThreadUtil {
public:
    CResourceMonitor();
    ~CResourceMonitor() override;
    /// The sampling thread's body.
    void run() override;
    /// Called once per round on the sampling thread with the running round count, from 0.
    virtual void MonitorOther(unsigned long tick);

    /// Starts the sampling thread. `event` (may be null) must outlive it. Returns: false when it runs already or could
    /// not be started.
    bool StartMonitor(IResourceMonitorEvent* event);
    /// Stops it. Returns: false when none ran. Blocks: until the thread has ended.
    bool StopMonitor();

    /// Takes all start-up limits at once. Units: as in the record.
    void SetMaxResourceConfig(const ResourceConfig& config);
    /// Records that a thread is alive. Units: `timeout` in seconds of allowed silence.
    void SetThreadHeartbeat(unsigned int tid, const std::string& name, int timeout);
    void RemoveThreadHeartbeat(unsigned int tid);
    void SetMonitorIOEnable(bool enable);  ///< off: storage I/O is neither read nor judged
    /// Processes to watch besides this one: pid -> name. Replaces the previous set.
    void SetWatcherProcess(std::map<unsigned int, std::string> processes);
    /// On: CPU percentages are of the whole machine, else of one CPU.
    void SetCpuSolarisMode(bool on);
    bool IsCpuSolarisMode();
    void SetMaxCpu(int percent);                   ///< 0 or less: no maximum
    void SetMaxMem(int mb);                        ///< 0 or less: no maximum
    void SetMaxIO(int readLimit, int writeLimit);  ///< KB/s; 0 or less: no maximum
    void SetMaxPidCheck(int count);                ///< watched processes that are looked at; 0 or less: none
    void SetMaxFdCount(int count);                 ///< open descriptors; 0 or less: no maximum
    int GetMaxCpu();                               ///< percent, as set last
    int GetMaxMem();                               ///< MB, as set last

    /// Returns: 0 below 80 % of the maximum, 1 busy, 2 at or over the maximum; with hysteresis on the way down.
    int GetCpuUsageLevel() {
        const int level = m_levels.cpu.load(std::memory_order_relaxed);
        return level != ResourceUsageLevels::kNotJudged ? level : CpuLevelUnjudged();
    }
    int GetMemUsageLevel() {
        const int level = m_levels.mem.load(std::memory_order_relaxed);
        return level != ResourceUsageLevels::kNotJudged ? level : MemLevelUnjudged();
    }
    /// Returns: every round of the window was at level 2.
    bool GetCpuHighAllRound();
    bool GetCpuBusyLastHour();
    bool GetAvgCpuMinuteBusy();
    bool GetAvgCpuWindowBusy();
    /// Returns: false, `info` untouched, before the first round.
    bool FetchResourceMonitorInfo(ResourceMonitorInfo& info);

private:
    /// What the queries say while no level has been published. Not inline: the platform's own answer.
    int CpuLevelUnjudged();
    int MemLevelUnjudged();

    ResourceUsageLevels m_levels;
    struct ZEL_HIDDEN Impl;
    std::unique_ptr<Impl> m_impl;
};
