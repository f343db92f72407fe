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

/// The order of the virtual operations is shared layout: keep it.
class ZEL_API CSysIntf {
public:
    virtual void GetHighCpuUsageThread(long& tid, unsigned int& usage) = 0;
    virtual void GetThreadsCpuUsage(std::list<CSysThreadsCpuUsage>& list) = 0;
    virtual unsigned long GetCurrThreadId() = 0;

protected:
    ~CSysIntf() = default;
};

/// A monitor point.
class ZEL_API IMonitorInfo {
public:
    /// Returns: one line for the report, empty when there is nothing to say.
    virtual std::string GetMonitorMessage() = 0;

protected:
    ~IMonitorInfo() = default;
};
