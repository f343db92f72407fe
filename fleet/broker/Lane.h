// The way of one process's events to the broker: a batch is brought, the rule is followed until it has an answer.
#pragma once

#include <functional>
#include <string>

#include "broker/NatsBroker.h"
#include "local/RelayFrames.h"
#include "rule/PublishRule.h"

namespace fleet {

/// Thread-safety: none; a lane has one batch at a time. The broker may be shared.
class Lane {
public:
    using Clock = std::function<Moment()>;
    /// `now`: a clock that nobody sets, and a number by chance. Lifetime: shorter than the broker's.
    Lane(NatsBroker& broker, const std::string& process, Clock now);

    /// Requires: a batch that CheckBatch takes, of this process.
    /// Blocks: as long as the requests that it takes; nothing is waited for between them.
    AnswerFrame Deliver(const BatchFrame& frame);
    const Situation& Get() const { return m_rule.Get(); }

private:
    Step Refuse(const base::Error& error);
    Step Follow(const Step& step, const BatchFrame& frame);

    NatsBroker& m_broker;
    const std::string m_subject;
    const Clock m_now;
    PublishRule m_rule;
    uint64_t m_connections = 0;
};

}  // namespace fleet
