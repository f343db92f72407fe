// Other processes that the sampling class keeps an eye on. Reads /proc/PID/stat through descriptors that stay open:
// such a descriptor belongs to one process, never to a later one with the same number.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "base/Mutex.h"
#include "sampling/UsageLevel.h"
#include "base/ProcFiles.h"

namespace zelhost {

struct WatchedEvent {
    enum Kind { kEnded, kCpuHigh, kMemHigh } kind = kEnded;
    unsigned int pid = 0;
    std::string name;
    int64_t value = 0;  ///< hundredths of a percent of one CPU; KB
    int64_t limit = 0;  ///< the maximum that it was judged by, likewise
};

/// The CPU limit that the control groups of a process set. Returns: hundredths of a percent of one CPU; 0: none.
int64_t ReadOwnCpuLimit(unsigned int pid);

/// Thread-safety: Set and SetMost from any thread, the rest from the sampling thread.
class CWatchedProcesses {
public:
    /// `ownCpuLimit` is asked at the first look at a process, once more when it seems to be at its maximum, and each
    /// AskAgainNs(): of one process at most in a round, and of none in a steady one.
    explicit CWatchedProcesses(std::function<int64_t(unsigned int pid)> ownCpuLimit = ReadOwnCpuLimit)
        : m_ownCpuLimit(std::move(ownCpuLimit)) {}

    /// Replaces the set at the next round.
    void Set(std::map<unsigned int, std::string> processes);
    /// The most processes that are watched; the highest numbers are left out. 0 or less: none.
    void SetMost(int most);

    /// Looks at the next few processes: at each of them in kRestRounds rounds, but at no more than kPerRound in a
    /// round, so that a round costs the same however many there are. `maxCpu100Times` and `maxMemKb`: 0 or less: none.
    /// The first is for processes without a CPU limit of their own: this process's maximum says nothing about another
    /// that has one. Events are appended; nothing is allocated without one.
    void Round(int64_t nowNs, int64_t maxCpu100Times, int64_t maxMemKb, std::vector<WatchedEvent>& events);

    size_t Count() const { return m_entries.size(); }
    void Clear();

    static constexpr size_t kPerRound = 4;
    static constexpr size_t kRestRounds = 3;
    /// Another may have changed the limit. Asking opens a file.
    static int64_t AskAgainNs();

private:
    struct Entry {
        unsigned int pid = 0;
        std::string name;
        base::KeptFile file;
        uint64_t startTicks = 0;
        int64_t lastNs = 0;
        uint64_t lastTicks = 0;
        int cpuLevel = 0;
        int64_t ownCpuLimit = 0;   // when it was asked for last
        int64_t askedNs = 0;       // 0: not yet
        int64_t commonMaxCpu = 0;  // that held then: with another, the configuration has changed
        int memLevel = 0;
        bool ended = false;
    };
    void TakeNewSet();
    void AskOwnLimit(Entry& entry, int64_t nowNs);
    /// Returns: the event's limit; 0: its CPU use is no event.
    int64_t JudgeCpu(Entry& entry, int64_t nowNs, int64_t cpu, int64_t maxCpu100Times);
    void Look(Entry& entry, int64_t nowNs, int64_t maxCpu100Times, int64_t maxMemKb, std::vector<WatchedEvent>& events);

    const std::function<int64_t(unsigned int pid)> m_ownCpuLimit;
    base::Mutex m_lock;
    std::atomic<bool> m_changed{false};  // set under the lock, looked at first without it
    int m_most ZEL_GUARDED_BY(m_lock) = 100;
    std::map<unsigned int, std::string> m_wanted ZEL_GUARDED_BY(m_lock);
    std::vector<Entry> m_entries;  // of the sampling thread
    size_t m_next = 0;
    bool m_asked = false;  // in this round
};

}  // namespace zelhost
