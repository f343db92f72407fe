// A simulated host of a fleet: the rule of publishing, the levels of the configuration and the host's state are the
// product's own; the client is a plain socket, and events and time are given to it.
#pragma once

#include <cstdint>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "Wire.h"
#include "fleet/HostState.h"
#include "fleet/RemoteConfig.h"
#include "rule/PublishRule.h"

namespace fleet {

/// What all hosts of one run share.
struct SimShared {
    std::minstd_rand random{11};
    int64_t nowMs = 0;
    double nowUs = 0;
    bool produces = true;          ///< whether there are new events and states
    std::vector<float> publishUs;  ///< from a message to its acknowledgement
    std::vector<float> stateUs;
    uint64_t events = 0, states = 0, later = 0, unanswered = 0, refused = 0;

    /// Returns: a number from 0 to `most` by chance.
    int64_t Chance(int64_t most) { return static_cast<int64_t>(random()) % (most + 1); }
};

class SimHost : public Peer {
public:
    SimHost(SimShared& shared, int number);

    void OnOpen() override;
    void OnClosed() override;
    bool OnBytes(std::string& bytes) override;
    void OnTime() override;
    bool IsReady() const override { return m_ready; }

    /// Returns: whether every event of it is stored.
    bool IsIdle() const { return m_waiting == 0 && !m_asked; }
    int64_t Stored() const { return m_stored; }

private:
    struct Request {
        bool publishes = false;
        uint64_t number = 0;
        int64_t sentMs = 0;
        double sentUs = 0;
    };

    void OnMessage(const WireMessage& message);
    void OnReply(std::string_view token, const WireMessage& message);
    void OnLevel(size_t level, const WireMessage& message);
    void OnAnswer(const Answer& answer);
    void Follow(Step step);
    void Ask(const Step& step);
    void Begin();
    void AskLevels();
    void Decide();
    void PutState();
    std::string Inbox(const std::string& token) const { return "_INBOX." + m_name + "." + token; }
    Moment Now() { return {m_shared.nowMs, static_cast<uint32_t>(m_shared.random())}; }

    SimShared& m_shared;
    const std::string m_name;
    const std::string m_group;
    const std::string m_subject;
    PublishRule m_rule;
    std::optional<Request> m_asked;
    uint64_t m_requests = 0;
    bool m_ready = false;
    int64_t m_stored = 0;   // the sink's cursor
    int64_t m_waiting = 0;  // events of the spool behind it
    int64_t m_nextEventMs = 0;
    int64_t m_askAgainMs = 0;

    std::vector<agent::RemoteLevel> m_levels;
    size_t m_levelsMissing = 0;
    uint64_t m_looks = 0;        // answers to an earlier one do not count
    bool m_rang = false;         // while the levels were asked
    int64_t m_levelsDueMs = -1;  // to be asked then; -1: not
    std::optional<std::string> m_file;
    uint64_t m_applied = 0, m_seen = 0;
    std::string m_error;

    int64_t m_nextStateMs = 0;
    double m_stateSentUs = 0;
};

}  // namespace fleet
