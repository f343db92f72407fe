// Supervision of other processes: what happens to a watched one is kept as a record and told as a warning.
#pragma once

#include <vector>

#include "sampling/SamplerEvents.h"
#include "sampling/RoundFigures.h"
#include "sampling/SamplingRules.h"
#include "sampling/WatchedProcesses.h"

namespace zelhost {

/// Thread-safety: of the sampling thread only; the set of processes itself is for any thread.
class CWatchedCheck {
public:
    CWatchedCheck(const SamplingRules& rules, CWatchedProcesses& watched, CSamplerEvents& events);
    void Supervise(RoundFigures& round);

private:
    void KeepEvent(const WatchedEvent& event, RoundFigures& round);
    void Tell(const WatchedEvent& event);

    const SamplingRules& m_rules;
    CWatchedProcesses& m_watched;
    CSamplerEvents& m_events;
    std::vector<WatchedEvent> m_found;
};

}  // namespace zelhost
