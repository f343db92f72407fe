// What a process of the agent starts before it makes its CMonitor, and stops after it: online configuration,
// statistics registry, event delivery, HTTP service, thread facts, metrics. One object per process.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "platform/host/HostRecords.h"
#include "platform/host/SysIntf.h"
#include "platform/zel/Export.h"

namespace zelhost {

/// The host's services in this process.
/// Thread-safety: Start and Stop from one thread; everything else from any thread between them.
/// Lifetime: Start before the CMonitor is made, Stop after it was destroyed. The online configuration's object is
/// made by Start and lives until this object is destroyed.
/// Errors: an option that cannot be right makes Start fail and leave nothing behind. A disk or a directory that cannot
/// be written now, or an address that is taken, does not: what needs it begins as soon as it can.
class ZEL_API CHostServices {
public:
    CHostServices();
    ~CHostServices();
    CHostServices(const CHostServices&) = delete;
    CHostServices& operator=(const CHostServices&) = delete;

    /// Starts every service of the options. A bad online configuration file is no failure: it is logged.
    /// Returns: false with the reason in `error`.
    bool Start(const HostOptions& options, std::string& error);
    /// Stops them again, and takes off the limits that this process has put on: it leaves its legacy group, and the
    /// process that made the tree of control groups removes it. Messages that are not delivered stay in the spool.
    /// Blocks: a few seconds at most.
    void Stop();

    /// Returns: the thread facts for CMonitor::SetSysIntf, never null.
    CSysIntf* GetSysIntf();

    /// The figures of the sampling class that was started last in this process.
    /// Returns: false while none runs.
    bool GetSamplerFigures(SamplerFigures& figures);

    DeliveryStats GetDeliveryStats();
    /// Sends messages to these sinks from now on, beside the file. A sink that stays goes on where it was.
    /// Blocks: for a second at most, while what is under way is broken off.
    /// Thread-safety: the thread of Start and Stop.
    /// Returns: false with the reason in `error`, a sentence about what was asked for; then the sinks are as before.
    bool SetSinks(const SinkOptions& options, std::string& error);
    /// Another metrics text file from now on, none when the path is empty; the one before it is taken away.
    /// Thread-safety: as above. Returns: false when this process has no metrics.
    bool SetTextFile(const std::string& path, unsigned int periodMs);
    /// Tries once more what could not start and does not try again by itself; nothing when all runs. To be called every
    /// second or so. Thread-safety: the thread of Start and Stop.
    void TryAgain();
    /// Waits until every sink has everything or the time is over. Returns: whether all was delivered.
    bool FlushDelivery(unsigned int timeoutMs);

    StatisticsSnapshot GetStatistics();
    /// Blocks: while a collection is under way.
    /// Returns: rows of the history that are not written yet, oldest first: an hour's, or two where the disk takes
    /// none.
    std::vector<StatisticsRow> GetWaitingStatistics();
    /// Collects now instead of at the next period. Blocks: as long as the slowest provider, within its bound.
    void CollectStatistics();

    /// Adds a source of the agent's own metrics, asked at every scrape on the metrics thread. Keep it short.
    void SetMetricsSource(MetricsSource source);
    /// Returns: the text that /metrics serves.
    std::string GetMetricsText();
    /// Returns: the address that is listened on ("127.0.0.1:41234", "unix:/path"), empty when metrics are off and while
    /// the address cannot be had.
    std::string GetMetricsAddress();

    /// Reads the online configuration again now. Returns: false when it was refused; `error` has the reason.
    bool ReloadOnlineConfig(std::string& error);
    /// Returns: file and reason while the online configuration's file is refused and older values are in force; else
    /// empty.
    std::string GetOnlineConfigProblem();
    /// Has the online configuration's subscribers entered once more, with the values in force, on the thread that
    /// always enters them: what they decide by may have changed beside the values. Does not wait for them.
    void RepeatOnlineConfig();

private:
    struct ZEL_HIDDEN Impl;
    std::unique_ptr<Impl> m_impl;
};

/// While it is there, what this thread asks of the usage levels is no work's question: it is not counted among those in
/// which an observed limit would have told it to hold back.
class ZEL_API CUncountedQueries {
public:
    CUncountedQueries();
    ~CUncountedQueries();
    CUncountedQueries(const CUncountedQueries&) = delete;
    CUncountedQueries& operator=(const CUncountedQueries&) = delete;
};

}  // namespace zelhost
