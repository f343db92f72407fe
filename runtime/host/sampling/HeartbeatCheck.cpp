// Supervision of threads that report that they are alive.
#include "sampling/HeartbeatCheck.h"

#include "base/ProcFiles.h"
#include "sampling/SamplerLog.h"

namespace zelhost {
namespace {

constexpr size_t kChangesAtOnce = 16;  // more in one round cost an allocation

}  // namespace

CHeartbeatCheck::CHeartbeatCheck(const SamplingRules& rules, CHeartbeats& heartbeats, CSamplerEvents& events)
    : m_rules(rules), m_heartbeats(heartbeats), m_events(events) {
    m_changes.reserve(kChangesAtOnce);
}

void CHeartbeatCheck::Supervise(const RoundFigures& round) {
    m_changes.clear();
    m_heartbeats.Round(round.elapsedNs / 1000000, m_rules.RoundMs(), m_changes);
    for (ThreadStall& change : m_changes) Tell(change);
}

void CHeartbeatCheck::Tell(ThreadStall& change) {
    if (change.recovered) {
        LogSampler(zel::kLogInfo, __LINE__, "thread %u (%s) reports again", change.tid, change.name.c_str());
    } else {
        change.gone = !base::OwnThreadExists(change.tid);
        if (change.gone) {
            m_heartbeats.Remove(change.tid);
        } else {
            change.stack = base::ReadKernelStack(change.tid);
        }
        LogSampler(
            zel::kLogError, __LINE__,
            "thread %u (%s) %s: no heartbeat for %lld ms, %d s are allowed; tervanectl threads shows where it is",
            change.tid, change.name.c_str(), change.gone ? "has ended without saying so" : "is stuck",
            static_cast<long long>(change.silentMs), change.timeoutSeconds);
    }
    m_events.TellStall(change);
}

}  // namespace zelhost
