// A rollout from its first put to its end, told line by line: asks agent/fleet's Rollout what is to be done, sees that
// it is done or known not to be, and looks at the hosts. What it needs of a broker, a clock and a terminal is behind
// RolloutWorld.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "CtlExit.h"
#include "base/Result.h"
#include "fleet/Rollout.h"

namespace agent {

/// What became of a put, for certain or not.
struct PutResult {
    PutOutcome outcome = PutOutcome::kUnknown;
    uint64_t revision = 0;  ///< of what was stored
    std::string error;      ///< a sentence otherwise
};

/// One line of what is told.
struct RolloutLine {
    RolloutPhase phase = RolloutPhase::kCanaries;
    std::string text;                   ///< a sentence without its full stop
    std::vector<std::string> canaries;  ///< of the first line and the last
    std::vector<std::string> left;      ///< of the last line: what did not come back, and what to do
    bool isLast = false;
};
const char* NameOf(RolloutPhase phase);

/// Thread-safety: one thread.
class RolloutWorld {
public:
    virtual ~RolloutWorld() = default;

    // What the broker has. Errors: a sentence; after one the next call tries to reach it anew.
    virtual base::Result<FleetHosts> Hosts() = 0;
    virtual base::Result<std::vector<RemoteLevel>> Levels() = 0;
    virtual base::Result<RemoteLevel> Read(const std::string& level) = 0;
    virtual PutResult Store(const RolloutPut& put) = 0;

    /// Seconds of a clock that never goes back.
    virtual int64_t Now() = 0;
    /// Ends early when somebody asks for the end.
    virtual void Pause(int64_t seconds) = 0;
    /// How often somebody has asked for the end so far.
    virtual int Ends() = 0;
    virtual void Say(const RolloutLine& line) = 0;
};

/// Returns: exit code: kOk: all have it; kRefused: it went back, was never begun, or something is left that was named;
/// kUnreachable: hosts and levels could not be read at the beginning.
int FollowRollout(RolloutWorld& world, const RolloutPlan& plan);

}  // namespace agent
