// The rounds of the sampling class: counters are read, judged, supervised and published, once a second on one thread.
// This is what stands behind CResourceMonitor.
#pragma once

#include <atomic>
#include <chrono>

#include "base/Fd.h"
#include "base/Mutex.h"
#include "platform/host/ResourceMonitor.h"
#include "sampling/Breaches.h"
#include "sampling/HeartbeatCheck.h"
#include "sampling/Heartbeats.h"
#include "sampling/Levels.h"
#include "sampling/ProcessCounters.h"
#include "sampling/SamplerEvents.h"
#include "sampling/RoundFigures.h"
#include "sampling/SamplingRules.h"
#include "sampling/WatchedCheck.h"
#include "sampling/WatchedProcesses.h"

namespace zelhost {

/// From a round at `madeAt`, a time since boot, to the next one on the multiples of `length`: half a length to one and
/// a half. So the processes of one host make their rounds in the same moment, woken by one interrupt and with each
/// other's caches warm, which costs all but the first of them a third less. Lengths that are no whole seconds keep no
/// phase.
constexpr std::chrono::nanoseconds ToSharedPhase(std::chrono::nanoseconds madeAt, std::chrono::nanoseconds length) {
    if (length % std::chrono::seconds(1) != std::chrono::nanoseconds(0)) return length;
    const std::chrono::nanoseconds phase = madeAt % length;
    return phase <= length / 2 ? length - phase : 2 * length - phase;
}

/// Makes the rounds and holds what they work on.
/// Thread-safety: Run on the sampling thread; Prepare before that thread starts, Stop from the one that joins it;
/// everything else from any thread.
class CSampler {
public:
    CSampler(CResourceMonitor& owner, ResourceUsageLevels& levels) : m_owner(owner), m_levels(m_rules, levels) {}
    CSampler(const CSampler&) = delete;
    CSampler& operator=(const CSampler&) = delete;

    /// `sink` may be null.
    void Prepare(IResourceEventSink* sink);
    /// Makes rounds until Stop.
    void Run();
    void Stop();

    SamplingRules& Rules() { return m_rules; }
    CLevels& Levels() { return m_levels; }
    CHeartbeats& Heartbeats() { return m_heartbeats; }
    CWatchedProcesses& Watched() { return m_watched; }
    /// Returns: the figures of the last whole round.
    SamplerFigures ReadFigures();

private:
    void Begin();
    void MakeRound();
    void Supervise();
    void Publish();
    /// Returns: whether it was stopped.
    bool SleepUntil(std::chrono::steady_clock::time_point when);

    CResourceMonitor& m_owner;
    SamplingRules m_rules;
    CHeartbeats m_heartbeats;
    CWatchedProcesses m_watched;

    // Stop. One poll of the event descriptor per round is both the sleep and the way to end it early.
    std::atomic<bool> m_stop{false};
    base::Fd m_wake;

    base::Mutex m_figuresLock;
    SamplerFigures m_published ZEL_GUARDED_BY(m_figuresLock);

    // Of the sampling thread.
    RoundFigures m_round;
    CSamplerEvents m_events;
    CProcessCounters m_counters{m_rules};
    CLevels m_levels;
    CBreaches m_breaches{m_rules, m_events};
    CHeartbeatCheck m_heartbeatCheck{m_rules, m_heartbeats, m_events};
    CWatchedCheck m_watchedCheck{m_rules, m_watched, m_events};
};

}  // namespace zelhost
