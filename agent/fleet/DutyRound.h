// When a host says what of itself to its fleet, and when it looks for the fleet's configuration. Holds no thread and no
// clock: it is told of what happens, does what is due, and says when it wants to be entered next.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "fleet/ConfigDuty.h"
#include "fleet/FleetKeys.h"
#include "fleet/StateDuty.h"

namespace agent {

struct DutyRoundOptions {
    StateDutyOptions state;
    bool takesConfiguration = true;
    std::function<int64_t()> nowMs;        ///< a clock that nobody sets
    std::function<int64_t()> wallSeconds;  ///< what is told
    std::function<uint32_t()> chance;
    FleetLog log;
};

/// Thread-safety: none.
class DutyRound {
public:
    /// Lifetime: shorter than that of `keys`.
    DutyRound(FleetKeys& keys, DutyRoundOptions options);

    /// A level may have changed. What is stored may be a moment behind, and many hosts hear it at once: looked at after
    /// up to ten seconds, by chance.
    void OnBell();
    /// Something has happened on this host that may be worth saying: an event passed.
    void OnNote();
    /// Does what is due. Returns: milliseconds until something is due next, above 0. Blocks: for the broker, the agent
    /// and the disk.
    int64_t Run();

    /// Whether the next Run tells the host's state: what happens from now on is to be noted anew.
    bool IsTellDue() const;
    /// Whether a note waits to be told.
    bool HasNote() const { return m_earlyDue.has_value(); }

    /// Changes of the configuration are not heard of. `words`: of the broker; empty: they are.
    void OnListening(const std::string& words) { m_listenProblem = words; }

    const ConfigDuty& Config() const { return m_config; }

private:
    void NoticeConnection(int64_t now);
    void Look();
    void Tell(bool isRegular);
    void Put(const HostState& state);
    /// Returns: what keeps this host from its fleet, as a clause; empty: nothing.
    std::string Problem() const;
    /// Has the main process show that: a change at once, and what lasts with each regular telling.
    void TellAgent();
    /// `ms` less up to a tenth, or more: hosts that began together do not stay together.
    int64_t Around(int64_t ms);
    int64_t UpTo(int64_t ms);
    void SayOnce(std::string& last, const std::string& sentence);

    FleetKeys& m_keys;
    const DutyRoundOptions m_options;
    ConfigDuty m_config;
    StateDuty m_state;
    uint64_t m_connections = 0;
    int64_t m_lookDue = 0;
    int64_t m_lookPause = 0;  // after the last look; 0: all was well
    int64_t m_regularDue = 0;
    std::optional<int64_t> m_earlyDue;
    int64_t m_putPause = 0;
    int64_t m_putAt = 0;
    std::optional<HostState> m_told;
    std::string m_lastPutError;
    std::string m_listenProblem;
    std::string m_noConnection;
    std::optional<std::string> m_agentKnows;
    int64_t m_agentDue = 0;
};

}  // namespace agent
