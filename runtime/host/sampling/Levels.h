// What the counters of a round say beside the maxima: usage levels, averages of the last minute, window and hour, and
// the answers of the sampling class's queries.
#pragma once

#include <atomic>

#include "base/Mutex.h"
#include "platform/host/ResourceMonitor.h"
#include "sampling/RoundFigures.h"
#include "sampling/SamplingRules.h"
#include "sampling/UsageLevel.h"

namespace zelhost {

/// Judges each round and keeps the sums that averages are taken between.
/// Thread-safety: Begin, Judge and WholeMinute from the sampling thread, the queries from any thread; all but Info are
/// single atomic loads, because worker threads ask them before every piece of work.
class CLevels {
public:
    /// Publishes the levels in `levels`, which is its owner's.
    CLevels(const SamplingRules& rules, ResourceUsageLevels& levels) : m_rules(rules), m_levels(levels) {}

    void Begin(const Totals& totals);
    /// Fills in levels, averages and their counters, and publishes the answers of the queries.
    void Judge(RoundFigures& round);
    /// Nobody samples any more: workers must not go on holding back.
    void ForgetLevels();

    /// Returns: whether the minute's average spans a whole minute.
    bool WholeMinute() const { return m_rounds.Reaches(kMinuteRounds); }

    /// Work asks while no level is published. Counts it where that is so for an observed limit. Returns: the level to
    /// answer with.
    int AnswerUnjudgedCpu();
    /// Returns: how often work would have been told to hold back.
    uint64_t ObservedHoldBacks() const { return m_observedHoldBacks.load(std::memory_order_relaxed); }

    bool HighAllRound() const { return m_highAllRound.load(std::memory_order_relaxed); }
    bool BusyLastHour() const { return m_busyLastHour.load(std::memory_order_relaxed); }
    bool MinuteBusy() const { return m_minuteBusy.load(std::memory_order_relaxed); }
    bool WindowBusy() const { return m_windowBusy.load(std::memory_order_relaxed); }
    /// Returns: false before the first round.
    bool Info(ResourceMonitorInfo& info);

private:
    void JudgeLevels(RoundFigures& round);
    void AverageMinute(RoundFigures& round);
    void EndMinute(RoundFigures& round);
    /// Returns: the averages of the window up to this round.
    Averages AverageWindow(RoundFigures& round);
    void PublishInfo(const RoundFigures& round, const Averages& window);

    const SamplingRules& m_rules;
    ResourceUsageLevels& m_levels;

    // Answers of the other hot queries.
    std::atomic<bool> m_highAllRound{false};
    std::atomic<bool> m_busyLastHour{false};
    std::atomic<bool> m_minuteBusy{false};
    std::atomic<bool> m_windowBusy{false};
    std::atomic<bool> m_wouldHoldBack{false};  // the level is kept from the workers, and is not 0
    std::atomic<uint64_t> m_observedHoldBacks{0};

    base::Mutex m_infoLock;
    ResourceMonitorInfo m_info ZEL_GUARDED_BY(m_infoLock);
    bool m_infoValid ZEL_GUARDED_BY(m_infoLock) = false;

    // Of the sampling thread.
    TotalsRing<kMinuteRounds + 1> m_rounds;
    TotalsRing<kHourMinutes + 1> m_minutes;
    uint64_t m_highRun = 0;  // rounds in a row at level 2
    int m_cpuLevel = 0;      // of the last round; published or not
};

}  // namespace zelhost
