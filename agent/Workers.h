// The threads behind a synthetic load, and what they got done.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <thread>
#include <vector>

#include "AgentRecords.h"
#include "LoadProfile.h"

class CMonitor;

namespace agent {

/// Runs a load profile's threads until Stop.
/// Thread-safety: Start and Stop from one thread, the figures from any.
class Workers {
public:
    explicit Workers(CMonitor& monitor);
    ~Workers();
    Workers(const Workers&) = delete;
    Workers& operator=(const Workers&) = delete;

    void Start(const LoadProfile& profile);
    /// Blocks: until every thread has ended; at most a fraction of a second.
    void Stop();

    WorkerFigures Greedy() const;
    WorkerFigures Polite() const;
    uint64_t HeldMemoryKb() const { return m_memoryKb.load(std::memory_order_relaxed); }

private:
    struct Counters {
        std::atomic<int> threads{0};
        std::atomic<uint64_t> pieces{0}, asked{0}, held{0};
        WorkerFigures Read() const;
    };
    void RunGreedy();
    void RunPolite();
    void RunHold(int megabytes);
    void RunHog(int megabytesPerSecond);
    void RunHang(int secondsBefore);
    bool Pause(unsigned int milliseconds) const;  ///< false once the workers are to end

    CMonitor& m_monitor;
    std::atomic<bool> m_stop{false};
    Counters m_greedy;
    Counters m_polite;
    std::atomic<uint64_t> m_memoryKb{0};
    std::vector<std::thread> m_threads;
};

}  // namespace agent
