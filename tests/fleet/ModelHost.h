// A host in front of the model of the broker: a spool, the sink's cursor and the rule between them.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "fleet/ModelBroker.h"
#include "rule/PublishRule.h"

namespace fleet {

class ModelHost {
public:
    using NextFault = std::function<Fault()>;
    ModelHost(ModelBroker& broker, ModelBroker::Chance chance, NextFault nextFault);

    void AddEvent();
    /// Brings one batch and follows the rule until it says something to the owner.
    void Deliver();
    /// Waits until the rule wants to be asked again.
    void WaitPause() { m_nowMs = m_askAgainMs; }

    void RestartRelay();
    void Reconnect() { m_rule->OnConnected(); }
    /// What was confirmed and not written down comes again.
    void RestartComponent();
    void ReplaceSpool();
    void DropOldest();
    /// Confirmed events are kept no longer.
    void ForgetConfirmed();
    /// The broker loses what it had said is stored, as far as it is still kept here.
    void LoseStored();
    void AgeOut();

    bool HasAll() const;
    const Situation& Get() const { return m_rule->Get(); }
    const Step& LastStep() const { return m_step; }
    uint64_t Publishes() const { return m_publishes; }

    /// Returns: what is wrong with the stream; empty: every event is in it once, in the order of its spool.
    std::string Judge() const;

private:
    struct Spool {
        std::string name;
        int64_t newest = 0;
        std::set<int64_t> dropped;  ///< for want of room, unconfirmed
        int64_t promised = 0;       ///< newest that was said to be stored
    };
    Spool& Current() { return m_spools.back(); }
    std::vector<int64_t> NextNumbers() const;
    Moment Now() { return {m_nowMs, m_chance(1u << 30)}; }
    /// Returns: whether all that was said to be stored is so still.
    bool IsStored() const;
    /// Returns: whether what the broker lost is stored again. Until then the spool keeps what it has, and nothing else
    /// befalls it: a broker that takes back its word has a kept spool against it, and nothing more.
    bool IsHealed();
    std::string JudgeSpool(const Spool& spool, bool current) const;

    ModelBroker& m_broker;
    const ModelBroker::Chance m_chance;
    const NextFault m_nextFault;
    std::unique_ptr<PublishRule> m_rule;
    std::vector<Spool> m_spools;
    int64_t m_cursor = 0;
    int64_t m_keptFrom = 0;       // events up to here are not in the spool any more
    bool m_lost = false;          // the broker has lost what it had said is stored
    bool m_ruleKnowsOwn = false;  // since its start it has seen an event of this spool stored
    int64_t m_nowMs = 1000;
    int64_t m_askAgainMs = 0;
    uint64_t m_publishes = 0;
    Step m_step;
};

}  // namespace fleet
