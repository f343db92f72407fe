// A thread of its own, in the agent's main process only, that watches the host for memory pressure, heavy swapping
// and a nearly full disk. Reads /proc/vmstat through the platform's file reader, and getrusage(2).
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "OsAbnormalDataBase.h"
#include "RelaxedValue.h"
#include "platform/zel/Export.h"
#include "platform/zel/ThreadUtil.h"

namespace Json {
class Value;
}

/// Watches the host and reports what it finds as "T_MSG_OS_ABNORMAL" messages and rows of its event store.
/// Thread-safety: Start, Uninit and IsDiskFull from any thread; all else runs on the monitor's own thread.
/// Lifetime: the owner calls Uninit before destruction; the destructor does not stop the thread.
/// Errors: a failed disk query or swap sample finds nothing; a failed memory query (-1 %, 0 MB) is a finding.
class ZEL_API COsAbnormalMonitor : public zel::CThreadUtil {
public:
    COsAbnormalMonitor();
    ~COsAbnormalMonitor() override;

    /// The thread's body: ten seconds of rest, then a tick every two seconds until it is asked to end.
    void run() override;

    /// Starts the thread. Returns: true also when it runs already.
    bool Start();
    /// Asks the thread to end and waits for it. Returns: false when none runs.
    bool Uninit();
    /// Nothing to prepare. Returns: true.
    bool Init();

    /// Returns: what the last disk check found.
    bool IsDiskFull();

    /// One tick of the thread's loop; a tick is a little over two seconds.
    void CheckOsAbnormal(unsigned long tick);
    /// The memory check, swap rates included. Returns: true when memory is short; then `out` has the measurements and
    /// `eventTime` the time in seconds since the epoch. Blocks: one second on the first finding of a run.
    bool IsMemoryAbnormal(Json::Value& out, int& eventTime, bool& swapAlarm);
    /// Units: percent; MB. Asked from the statistics collector's thread too: it reads no state of the object.
    bool IsCheckMemory(int usagePercent, unsigned long availableMem);
    /// The disk check. Units in `out`: bytes, inodes. Returns: true when the agent's disk is nearly full; else the
    /// outputs are untouched. A failed query is logged and finds nothing.
    bool IsDiskAbnormal(Json::Value& out, int& eventTime);
    /// Fills the cumulative counters by name. Source: proc(5), /proc/vmstat.
    void ReadSwapIndexForSwap(std::map<std::string, unsigned long>& out);
    /// Sets each counter's increase per second in `out`. Blocks: one second on the first sample of a run.
    /// Returns: true when at least half of the counters reached their threshold.
    bool FetchSwapIndexIncrement(Json::Value& out);

protected:
    bool m_initialised;
    RelaxedValue<bool> m_diskFull;
    RelaxedValue<bool> m_stopRequested;
    bool m_memRising;
    int32_t m_lastMemUsage;  ///< percent
    uint64_t m_lastReportTick;
    COsAbnormalDataBase m_eventStore;
    int64_t m_lastSwapTime;  ///< seconds since the epoch, 0: no sample yet
    std::map<std::string, uint64_t> m_prevSwapIndex;
    std::map<std::string, uint64_t> m_swapThresholds;  ///< increase per second
};

/// Returns: whether the monitor is switched on by the online configuration. The doubled letter is the exported name.
ZEL_API bool IsMoniitorOsAbnormal();

/// Returns: true when this process holds more than 150 MB in one of three readings a second apart.
/// Blocks: up to three seconds.
ZEL_API bool IsHighMem();
