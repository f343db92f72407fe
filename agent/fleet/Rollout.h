// A change of the fleet's configuration in two steps: first on a few hosts, and on all only if those stay well. Pure:
// what was put and what hosts say comes in, what is to be put goes out.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "fleet/HostState.h"
#include "fleet/RemoteConfig.h"

namespace agent {

/// The remark in the levels of a rollout's first hosts, by which others know of it.
constexpr char kRolloutRemark[] = "_rollout";

/// Who runs a rollout, since when and of what. Hosts do not judge it.
struct RolloutMark {
    std::string user, machine;
    int64_t process = 0;
    int64_t since = 0, until = 0;  ///< by the broker; it is over by `until`, whatever happens
    std::string level;             ///< its target
    std::string what;              ///< the change as it was typed
    uint64_t before = 0;           ///< revision that this level had; 0: it was not there
};
/// text: of a level. Returns: none: it has no mark.
std::optional<RolloutMark> ReadRolloutMark(const std::optional<std::string>& text);

struct RolloutPlan {
    std::string target;          ///< level that is changed: "all" or "group.web", written as in keys
    std::string change;          ///< a JSON object with the values to set; no null, which a few hosts cannot try
    int percent = 5;             ///< of the hosts of the target that get it first; one at least
    int64_t waitSeconds = 600;   ///< for which they have to stay well with it
    int64_t applySeconds = 180;  ///< within which they have to report it
    RolloutMark mark = {};       ///< of a user: what the chosen hosts' levels are marked with; `before` is set here
};

/// A host as it was last heard of.
struct FleetHost {
    HostState state;
    int64_t silentSeconds = 0;  ///< by the broker's clock
    uint64_t revision = 0;      ///< of that state
};
using FleetHosts = std::map<std::string, FleetHost>;  ///< by the name in its keys, escaped as there

/// To be stored only while the key has the revision that is expected; 0: while it is not there.
struct RolloutPut {
    std::string level;
    std::optional<std::string> text;  ///< none: the key is deleted
    uint64_t expected = 0;
    bool isUnknown = false;  ///< an earlier put of the key had no answer: it is to be read first, for OnRead
};

/// What became of a put.
enum class PutOutcome {
    kStored,
    kConflict,  ///< not stored: the key has another revision than was expected
    kRefused,   ///< not stored for another reason
    kUnknown    ///< no answer came: it may be stored, or may be so later
};

enum class RolloutPhase {
    kCanaries,   ///< the chosen hosts get it
    kWatching,   ///< they have it, or are to have it, and are looked at
    kWidening,   ///< all get it
    kClearing,   ///< what the chosen hosts had of their own comes back below it
    kGoingBack,  ///< the chosen hosts get what they had
    kDone,
    kFailed
};

/// Thread-safety: one thread. Times: seconds of one clock that never goes back.
class Rollout {
public:
    /// levels: the target's, and those of hosts that have one of their own. now: when the hosts were looked at.
    Rollout(RolloutPlan plan, const FleetHosts& hosts, std::vector<RemoteLevel> levels, int64_t now);

    RolloutPhase Phase() const { return m_phase; }
    bool HasEnded() const { return m_phase == RolloutPhase::kDone || m_phase == RolloutPhase::kFailed; }
    /// One sentence: why it failed or goes back; empty otherwise.
    const std::string& Reason() const { return m_reason; }
    /// What was not brought back, or is not known to be, and why: sentences.
    const std::vector<std::string>& Left() const { return m_left; }
    const std::vector<std::string>& Canaries() const { return m_canaries; }

    /// What is to be put next, one at a time; none: wait for Look. It is under way until OnPut or OnRead.
    std::optional<RolloutPut> Next();
    /// The answer to Next(). revision: of what was stored; error: why it was not, or is not known to be.
    void OnPut(PutOutcome outcome, uint64_t revision, const std::string& error);
    /// The answer to a Next() that is to be read first: the key as it is now, or why it cannot be read. It is put then
    /// in any case, with that revision, so that what is still under way comes too late.
    void OnRead(const base::Result<RemoteLevel>& found);
    /// Instead of an answer to a Next() that brings a host back what it had: it cannot be done now, the others come
    /// first.
    void PutOff();
    /// How many hosts are still to get back what they had.
    size_t Pending() const;
    /// To be called every few seconds with what is known of the hosts.
    void Look(const FleetHosts& hosts, int64_t now);
    /// Somebody ends it: the chosen hosts get what they had. While a put is under way its answer is waited for; what
    /// all have got stays.
    void Cancel(const std::string& why);

private:
    /// What a state of a host says of its agent's age.
    struct Sight {
        uint64_t revision = 0;
        int64_t uptime = 0;
        int64_t arrivedAt = 0;  // by the clock of the looks
        int64_t toldAt = 0;     // by the host's
    };
    struct Canary {
        FleetHost before;
        RemoteLevel level;       // as it was
        uint64_t revision = 0;   // of what was put; 0: nothing
        bool isUnknown = false;  // what was put, perhaps
        Sight last;              // while its agent ran
        Sight since;             // what ages are compared with: a while before the last one
        uint64_t drifts = 0;     // those before it
        int restarts = 0;
    };
    static Sight SightOf(const FleetHost& host, int64_t now);
    RemoteLevel LevelOf(const std::string& name) const;
    /// What a chosen host's level is to be.
    base::Result<std::string> TriedText(const Canary& canary) const;
    void Choose(const FleetHosts& hosts, int64_t now);
    std::string Trouble(const std::string& name, const FleetHosts& hosts) const;
    static bool IsRestarted(const Canary& canary, const Sight& sight);
    static void NoteRestart(Canary& canary, const FleetHost& host, int64_t now);
    void OnPutCanary(PutOutcome outcome, uint64_t revision, const std::string& error);
    void OnPutBack(PutOutcome outcome, const std::string& error);
    void OnPutTarget(PutOutcome outcome, const std::string& error);
    /// Goes on to the next canary from `m_at` that has got something, or to the end.
    void FindNext();
    bool HasSomething(const std::string& name) const;
    void GoBack(const std::string& why);
    void Take(RolloutPhase phase);

    const RolloutPlan m_plan;
    std::map<std::string, RemoteLevel> m_levels;
    std::vector<std::string> m_canaries;
    std::map<std::string, Canary> m_of;
    RolloutPhase m_phase = RolloutPhase::kCanaries;
    size_t m_at = 0;                   // of the canaries, in the phases that put one after the other
    std::vector<std::string> m_order;  // in which they get back what they had
    bool m_underWay = false;           // an answer to Next() is due
    std::string m_cancelled;           // why, while one is
    std::optional<int64_t> m_waitsSince;
    std::optional<int64_t> m_appliedAt;
    std::string m_reason;
    std::vector<std::string> m_left;
};

/// A level's text with the values of `change` set. Errors: one of them is no object, or the agent refuses the result.
base::Result<std::string> ChangeLevel(const std::optional<std::string>& text, const std::string& change);

}  // namespace agent
