// Supervision of this process's own resources: what reaches its maximum is warned about, and CPU or memory that stays
// there for two breach periods in a row ends in a record on disk and the request to stop the process.
#pragma once

#include <cstdint>

#include "sampling/SamplerEvents.h"
#include "sampling/RoundFigures.h"
#include "sampling/SamplingRules.h"
#include "sampling/UsageLevel.h"

namespace zelhost {

/// One resource that is supervised.
struct Supervised {
    explicit Supervised(ResourceKind what) : kind(what) {}
    const ResourceKind kind;
    BreachTracker tracker;
    bool high = false;
    int64_t value = 0;
    int64_t limit = 0;  ///< in force when the value was last at its maximum
};

/// Thread-safety: of the sampling thread only.
class CBreaches {
public:
    CBreaches(const SamplingRules& rules, CSamplerEvents& events) : m_rules(rules), m_events(events) {}

    void Begin();
    /// `wholeMinute`: the minute's CPU average spans one.
    void Supervise(RoundFigures& round, bool wholeMinute);

private:
    void WarnOfIo(RoundFigures& round);
    void WarnOfRate(ResourceKind kind, int64_t rate, int64_t limit, uint64_t rounds, uint64_t& count,
                    uint64_t& warnedAt);
    void SuperviseOne(RoundFigures& round, Supervised& what, int64_t limit, uint64_t periodRounds);
    void Warn(const Supervised& what, WarningStage stage, int64_t sustainedMs);
    void SelfKill(RoundFigures& round, const Supervised& what, int64_t sustainedMs);

    const SamplingRules& m_rules;
    CSamplerEvents& m_events;
    Supervised m_cpu{ResourceKind::kCpu};
    Supervised m_mem{ResourceKind::kMemory};
    Supervised m_fds{ResourceKind::kDescriptors};
    uint64_t m_readIoWarnedAt = 0;
    uint64_t m_writeIoWarnedAt = 0;
    uint64_t m_recordNumber = 0;
};

}  // namespace zelhost
