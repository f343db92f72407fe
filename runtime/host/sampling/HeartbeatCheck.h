// Supervision of threads that report that they are alive: a silent one is named with the place it is stuck in, one
// that ended without saying so is taken off the list.
#pragma once

#include <vector>

#include "sampling/Heartbeats.h"
#include "sampling/SamplerEvents.h"
#include "sampling/RoundFigures.h"
#include "sampling/SamplingRules.h"

namespace zelhost {

/// Thread-safety: of the sampling thread only; the heartbeats themselves are for any thread.
class CHeartbeatCheck {
public:
    CHeartbeatCheck(const SamplingRules& rules, CHeartbeats& heartbeats, CSamplerEvents& events);
    void Supervise(const RoundFigures& round);

private:
    void Tell(ThreadStall& change);

    const SamplingRules& m_rules;
    CHeartbeats& m_heartbeats;
    CSamplerEvents& m_events;
    std::vector<ThreadStall> m_changes;
};

}  // namespace zelhost
