// The broker's client as a host's duties use it.
#pragma once

#include <atomic>
#include <string>

#include "broker/NatsBroker.h"
#include "fleet/FleetKeys.h"
#include "rule/FleetNames.h"

namespace agent {

/// Thread-safety: End and Ends from any thread, the rest from the duties' own.
/// Lifetime: shorter than the broker's.
class BrokerKeys final : public FleetKeys {
public:
    explicit BrokerKeys(fleet::NatsBroker& broker) : m_broker(broker), m_own(fleet::EscapeName(broker.Host())) {}

    /// From now on nothing is asked any more: whoever is at it comes back after the request that is under way.
    void End() { m_ends = true; }
    bool Ends() const { return m_ends; }

    bool IsConnected() override { return !m_ends && m_broker.IsConnected(); }
    uint64_t Connections() override { return m_broker.Connections(); }
    base::Status Judge() override { return m_broker.Judge(); }
    fleet::KvRead GetLevel(const std::string& key) override {
        if (!m_ends) return fleet::GetKey(m_broker, fleet::kConfigBucket, key);
        fleet::KvRead ended;
        ended.answer.outcome = fleet::Answer::Outcome::kDisconnected;
        return ended;
    }
    fleet::Answer PutState(const std::string& text) override {
        return fleet::PutKey(m_broker, fleet::kStateBucket, m_own, text);
    }

private:
    fleet::NatsBroker& m_broker;
    const std::string m_own;
    std::atomic<bool> m_ends{false};
};

}  // namespace agent
