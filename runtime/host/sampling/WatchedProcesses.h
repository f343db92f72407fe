// Other processes that the sampling class keeps an eye on. Reads /proc/PID/stat through descriptors that stay open:
// such a descriptor belongs to one process, never to a later one with the same number.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <string>
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
};

/// Thread-safety: Set and SetMost from any thread, the rest from the sampling thread.
class CWatchedProcesses {
public:
    /// Replaces the set at the next round.
    void Set(std::map<unsigned int, std::string> processes);
    /// The most processes that are watched; the highest numbers are left out. 0 or less: none.
    void SetMost(int most);

    /// Looks at the next kPerRound processes, so that a round costs the same however many there are.
    /// `maxCpu100Times` and `maxMemKb`: 0 or less: none. Events are appended; nothing is allocated without one.
    void Round(int64_t nowNs, int64_t maxCpu100Times, int64_t maxMemKb, std::vector<WatchedEvent>& events);

    size_t Count() const { return m_entries.size(); }
    void Clear();

    static constexpr size_t kPerRound = 4;

private:
    struct Entry {
        unsigned int pid = 0;
        std::string name;
        base::KeptFile file;
        uint64_t startTicks = 0;
        int64_t lastNs = 0;
        uint64_t lastTicks = 0;
        int cpuLevel = 0;
        int memLevel = 0;
        bool ended = false;
    };
    void TakeNewSet();
    void Look(Entry& entry, int64_t nowNs, int64_t maxCpu100Times, int64_t maxMemKb, std::vector<WatchedEvent>& events);

    base::Mutex m_lock;
    std::atomic<bool> m_changed{false};  // set under the lock, looked at first without it
    int m_most ZEL_GUARDED_BY(m_lock) = 100;
    std::map<unsigned int, std::string> m_wanted ZEL_GUARDED_BY(m_lock);
    std::vector<Entry> m_entries;  // of the sampling thread
    size_t m_next = 0;
};

}  // namespace zelhost
