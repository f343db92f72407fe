// The host's statistics registry: who provides figures, what they gave last, and a day's history in SQLite.
// Providers are entered on worker threads of the registry, one collection at a time.
#pragma once

#include <condition_variable>
#include <deque>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "platform/host/HostRecords.h"
#include "platform/host/MtIntf.h"

struct sqlite3;

namespace zelhost {

/// A day of collected figures, one row each. Not thread-safe: the registry serialises.
class CStatisticsHistory {
public:
    ~CStatisticsHistory();
    /// Opens or creates the file. A file that is no database is put aside. Returns: false with the reason.
    bool Open(const std::string& path, std::string& reason);
    void Close();
    bool IsOpen() const { return m_db != nullptr; }
    bool Append(int64_t wallTime, const std::map<std::string, std::string>& values, std::string& reason);

    static constexpr int64_t kKeptSeconds = 24 * 3600;
    /// Also bounds the file when the clock jumps: more rows than one a minute for a day are never kept.
    static constexpr int kKeptRows = 1500;

private:
    sqlite3* m_db = nullptr;
};

/// Thread-safety: every operation from any thread.
/// A provider that does not return in time is left behind on its worker and out of the collections until it returns;
/// at most kStuckWorkers can be left behind, after that a collection ends early and says so.
class CStatisticsRegistry {
public:
    static CStatisticsRegistry& Instance();

    void Register(IMtInfo* info);
    /// Blocks: until a call that is inside the provider has left it, unless called from within.
    void Unregister(IMtInfo* info);

    bool Start(unsigned int periodMs, unsigned int providerMs, const std::string& dbPath, std::string& error);
    void Stop();

    void Collect();
    StatisticsSnapshot Snapshot();

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

    void Run();
    std::shared_ptr<Worker> MakeWorker();
    void RunWorker(const std::shared_ptr<Worker>& worker);
    void CallProvider(std::unique_lock<std::mutex>& lock, Call& call);
    void Merge(const Call& call, StatisticsSnapshot& snapshot) const;
    void Keep(const StatisticsSnapshot& snapshot);

    std::mutex m_collectLock;  // one collection at a time; taken before m_lock
    std::mutex m_lock;
    std::condition_variable m_changed;
    std::list<std::shared_ptr<Provider>> m_providers;
    StatisticsSnapshot m_last;
    std::shared_ptr<Worker> m_worker;  // the idle one, null when it was left behind
    size_t m_stuck = 0;
    unsigned int m_providerMs = 5000;
    unsigned int m_periodMs = 60000;
    bool m_stop = false;
    std::thread m_thread;
    CStatisticsHistory m_history;  // under m_collectLock
    bool m_historyFailed = false;
};

}  // namespace zelhost
