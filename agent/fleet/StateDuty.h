// What this host says of itself to its fleet: asked of the agent by its own consoles, and read from its events' files.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "AskAgent.h"
#include "EventTail.h"
#include "base/FileIo.h"
#include "fleet/HostState.h"

namespace agent {

/// For how long the oldest of a sink's waiting events has waited, as far as looks at its figures can tell: what was
/// there at a look and is not delivered has waited since then. Thread-safety: none.
class WaitingAge {
public:
    /// Returns: seconds, a lower bound; 0: nothing waits, or not for longer than one look.
    int64_t Look(uint64_t delivered, uint64_t waiting, int64_t nowSeconds);

private:
    struct Mark {
        int64_t at = 0;
        uint64_t position = 0;  // delivered when all that waited then is
    };
    std::optional<Mark> m_mark;
};

/// The last of the events that tells of a process which was ended for its memory or CPU; none where there is none.
/// Pure.
std::optional<LastKill> FindLastKill(const std::vector<TailEvent>& events);

struct StateDutyOptions {
    std::string host;                 ///< not escaped
    std::vector<std::string> groups;  ///< by weight, the heaviest last
    std::string appDir;
    std::string version;  ///< of the agent
    /// Asks a process of the agent; as AskAgent does it, and bounded.
    std::function<base::Result<Answer>(const std::string& process, const std::string& request)> ask;
};

/// Thread-safety: none.
class StateDuty {
public:
    explicit StateDuty(StateDutyOptions options);

    /// Asks the main process to read its configuration again. Returns: whether it has, whatever it makes of it.
    bool HaveConfigRead();

    enum class Depth {
        kMain,  ///< the main process alone; of the components what they said last
        kAll
    };
    /// Asks the agent. An agent that does not answer does not run, as far as the fleet is told. `config` is left to the
    /// caller. Blocks: as `ask` does, once for each process.
    /// `steadySeconds`: by a clock that nobody sets; `wallSeconds`: what is told.
    HostState Take(Depth depth, int64_t steadySeconds, int64_t wallSeconds);
    /// Returns: why the main process refused the online configuration, when it was asked last; empty: it does not; none
    /// where it did not answer.
    const std::optional<std::string>& ConfigProblem() const { return m_configProblem; }

private:
    /// What waits for delivery in one process, as it said last.
    struct Waiting {
        uint64_t waiting = 0;
        int64_t oldestSeconds = 0;
        uint64_t dropped = 0;
        uint64_t givenUp = 0;
        std::string blocked;
        std::map<std::string, WaitingAge> sinks;
    };
    void NoteDelivery(const std::string& process, const zelhost::DeliveryStats& delivery, int64_t nowSeconds);
    void AskComponents(const std::vector<ComponentStatus>& components, int64_t nowSeconds);
    void AddWaiting(HostState& state) const;
    void FindKill(const std::string& process);

    const StateDutyOptions m_options;
    std::optional<std::string> m_configProblem;
    std::map<std::string, Waiting> m_waiting;        // by process
    std::map<std::string, base::FileMark> m_events;  // of each process's file, as read last
    LastKill m_lastKill;
};

}  // namespace agent
