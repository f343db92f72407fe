// The host's statistics registry: who provides figures, what they gave last, and a day's history in SQLite.
// The process's loop keeps the rhythm, a job collects, and providers are entered on worker threads of the registry, one
// collection at a time; between two collections there is no thread.
#pragma once

#include <atomic>
#include <chrono>
#include <deque>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "base/IoLoop.h"
#include "base/Mutex.h"
#include "base/Result.h"
#include "base/WorkQueue.h"
#include "platform/host/HostRecords.h"
#include "platform/host/MtIntf.h"

namespace zelhost {

/// A day of collected figures, one row each. Rows wait in memory, an hour's at most, and are written together: at a
/// rest of an hour, the disk sleeps. Not thread-safe: the registry serialises.
class CStatisticsHistory {
public:
    /// Where it is written, nothing when empty. Rows that wait are forgotten. Makes the directory, not the file.
    base::Status Begin(const std::string& path);
    void Add(int64_t wallTime, const std::map<std::string, std::string>& values);
    /// Returns: whether so much waits, or failed, that it is to be written now.
    bool IsDue() const { return m_rows.size() >= kRowsPerWrite || m_failed; }
    /// Writes what waits. The file is open for just that. One that is no sound database is put aside; the one that was
    /// put aside before it goes.
    /// On failure: the rows go on waiting, the newest of them.
    base::Status Write();

    /// Returns: what waits to be written, oldest first.
    std::vector<StatisticsRow> Waiting() const;

    static constexpr int64_t kKeptSeconds = 24 * 3600;
    /// Also bounds the file when the clock jumps: more rows than one a minute for a day are never kept.
    static constexpr int kKeptRows = 1500;
    static constexpr size_t kRowsPerWrite = 60;

private:
    using Names = std::vector<std::string>;
    /// The values end with NUL each; the names are shared with the rows before that had the same.
    struct Row {
        int64_t wallTime = 0;
        std::shared_ptr<const Names> names;
        std::string values;
    };

    static std::string FiguresOf(const Row& row);
    base::Status WriteRows();
    /// Begins anew after damage.
    base::Status Replace(const base::Error& why);

    std::string m_path;
    std::deque<Row> m_rows;
    bool m_failed = false;
};

/// Thread-safety: Start and Stop from one thread, the others from any.
/// A provider that does not return in time is left behind on its worker and out of the collections until it returns;
/// at most kStuckWorkers can be left behind, after that a collection ends early and says so.
class CStatisticsRegistry {
public:
    static CStatisticsRegistry& Instance();

    void Register(IMtInfo* info);
    /// Blocks: until a call that is inside the provider has left it, unless called from within.
    void Unregister(IMtInfo* info);

    /// Collects at the multiples of the period since boot. Figures without a history are better than none: one that
    /// cannot be written is logged, and tried again with every collection.
    base::Status Start(unsigned int periodMs, unsigned int providerMs, const std::string& dbPath);
    void Stop();

    void Collect();
    StatisticsSnapshot Snapshot();
    /// Returns: rows of the history that are not written yet, oldest first.
    std::vector<StatisticsRow> WaitingRows();

    static constexpr size_t kStuckWorkers = 4;
    static constexpr size_t kMostEntries = 4096;
    static constexpr size_t kMostKeyBytes = 256;
    static constexpr size_t kMostValueBytes = 4096;

private:
    struct Provider {
        IMtInfo* info = nullptr;
        bool removed = false;
        bool inside = false;
        std::thread::id insideThread;
    };
    /// One call into one provider; shared with the worker, which may outlive the collection's interest in it.
    struct Call {
        std::shared_ptr<Provider> provider;
        std::map<std::string, std::string> values;
        bool done = false;
        bool ok = false;
    };
    struct Worker;

    /// Of the loop's thread.
    void Schedule();
    void CollectInTurn(bool sampleThreads);
    std::shared_ptr<Worker> MakeWorker();
    void RunWorker(const std::shared_ptr<Worker>& worker);
    /// Says why once, until it works or fails in another way.
    void NoteHistory(const base::Status& outcome, const char* failed) ZEL_REQUIRES(m_collectLock);
    /// Enters the provider without the lock.
    void CallProvider(Call& call) ZEL_REQUIRES(m_lock);
    /// Has one provider asked, on a worker, within its bound.
    void Ask(const std::shared_ptr<Provider>& provider, StatisticsSnapshot& snapshot) ZEL_REQUIRES(m_lock);
    /// Returns: whether the call was done within the provider's bound.
    bool WaitForCall(const Call& call) ZEL_REQUIRES(m_lock);
    void LeaveWorkerBehind() ZEL_REQUIRES(m_lock);
    /// Ends the worker that has nothing to do.
    void DismissWorker() ZEL_REQUIRES(m_lock);
    static void Merge(const Call& call, StatisticsSnapshot& snapshot);
    void Keep(const StatisticsSnapshot& snapshot) ZEL_REQUIRES(m_collectLock);
    void WriteHistory() ZEL_REQUIRES(m_collectLock);

    base::Mutex m_collectLock;  // one collection at a time; taken before m_lock
    CStatisticsHistory m_history ZEL_GUARDED_BY(m_collectLock);
    std::string m_historyPath ZEL_GUARDED_BY(m_collectLock);     // empty: none is wanted
    std::string m_historyProblem ZEL_GUARDED_BY(m_collectLock);  // as said last

    base::Mutex m_lock;
    base::Condition m_changed;
    std::list<std::shared_ptr<Provider>> m_providers ZEL_GUARDED_BY(m_lock);
    StatisticsSnapshot m_last ZEL_GUARDED_BY(m_lock);
    std::shared_ptr<Worker> m_worker ZEL_GUARDED_BY(m_lock);  // the idle one, null when it was left behind
    size_t m_stuck ZEL_GUARDED_BY(m_lock) = 0;
    unsigned int m_providerMs ZEL_GUARDED_BY(m_lock) = 5000;

    std::atomic<bool> m_collecting{false};  // in its turn
    // Made by Start, in this order; each ends before those above it.
    std::chrono::milliseconds m_period{60000};
    std::shared_ptr<base::IoLoop> m_loop;  // the process's
    std::unique_ptr<base::WorkQueue> m_jobs;
    std::unique_ptr<base::IoTimer> m_timer;  // of the loop's thread
};

}  // namespace zelhost
