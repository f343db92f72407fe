// Threads that report that they are alive, and which of them have been silent for too long.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "base/Mutex.h"
#include "platform/host/ResourceEventSink.h"

namespace zelhost {

/// Silence is measured on a clock that the sampling rounds move: each round adds the monotonic time since the round
/// before, but at most twice the round's length. Monotonic time stands still while the host is suspended; the cap
/// makes it stand still too while this process is stopped or starved, when nobody could have reported anything.
/// Thread-safety: Beat and Remove from any thread, the rest from the sampling thread.
class CHeartbeats {
public:
    /// `timeoutSeconds` 0 or less ends the supervision of that thread.
    void Beat(unsigned int tid, const std::string& name, int timeoutSeconds);
    void Remove(unsigned int tid);

    /// Moves the clock and collects what changed. Allocates only when something did.
    void Round(int64_t elapsedMs, int64_t roundMs, std::vector<ThreadStall>& changes);

    size_t Count() const { return m_count.load(std::memory_order_relaxed); }
    size_t Stalled() const { return m_stalled.load(std::memory_order_relaxed); }
    void Clear();

    static constexpr size_t kMaxThreads = 4096;

private:
    struct Entry {
        std::string name;
        int timeoutSeconds = 0;
        int64_t lastMs = 0;
        bool stalled = false;
        bool cameBack = false;
    };
    base::Mutex m_lock;
    int64_t m_clockMs ZEL_GUARDED_BY(m_lock) = 0;
    bool m_full ZEL_GUARDED_BY(m_lock) = false;
    std::map<unsigned int, Entry> m_entries ZEL_GUARDED_BY(m_lock);
    // Written under the lock, read without it.
    std::atomic<size_t> m_count{0};
    std::atomic<size_t> m_stalled{0};
};

}  // namespace zelhost
