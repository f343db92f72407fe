// Thread facts of the host, and monitor points that add their own lines to a thread report.
#pragma once

#include <cstdint>
#include <list>
#include <string>

#include "platform/zel/Export.h"

/// CPU figures of one thread. Field order is shared layout.
struct CSysThreadsCpuUsage {
    uint64_t reserved = 0;  ///< filled by the host for itself
    long tid = 0;
    std::string name;
    uint32_t hit = 0;      ///< samples in which the thread was found running
    uint32_t sysLoad = 0;  ///< share of its CPU time spent in the kernel, hundredths of a percent of one CPU
    uint32_t avgLoad = 0;  ///< CPU over the sampled time, hundredths of a percent of one CPU
    uint32_t statCnt = 0;  ///< samples taken
};

/// The host's facts about its threads. The order of the virtual operations is shared layout: keep it.
/// Thread-safety: called from any thread, one call at a time: the caller holds the lock of its interface pointer. So an
/// operation must neither replace the interface nor ask the facade for thread facts, which would wait for itself.
/// Lifetime: the host keeps it until it has set another one or null.
class ZEL_API CSysIntf {
public:
    /// The busiest thread. Units: hundredths of a percent of one CPU. Outputs untouched when every thread is idle.
    virtual void GetHighCpuUsageThread(long& tid, unsigned int& usage) = 0;
    /// Fills the list, one entry per thread; names are filled in by the caller.
    virtual void GetThreadsCpuUsage(std::list<CSysThreadsCpuUsage>& list) = 0;
    /// Returns: the host's id of the calling thread.
    virtual unsigned long GetCurrThreadId() = 0;

protected:
    ~CSysIntf() = default;
};

/// A monitor point: something of the host that adds a line of its own to the thread report.
/// Thread-safety: asked on whatever thread wants a report, one report at a time.
/// Lifetime: the host keeps it until it has removed it as often as it added it.
class ZEL_API IMonitorInfo {
public:
    /// Called with the list of points locked: it must not add or remove monitor points, and must not ask for a thread
    /// report; both would wait for themselves for ever. Keep it short: other threads that add or remove points wait.
    /// Returns: one line for the report, empty when there is nothing to say.
    virtual std::string GetMonitorMessage() = 0;

protected:
    ~IMonitorInfo() = default;
};
