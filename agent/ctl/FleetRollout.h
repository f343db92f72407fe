// A change of the fleet's configuration in two steps, from the console: a few hosts first, then all, and back again by
// itself when one of the few does not stay well. Nobody is asked anything on the way.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "FleetAccess.h"
#include "FleetRoster.h"
#include "base/Result.h"
#include "fleet/Rollout.h"

namespace agent {

struct RolloutOptions {
    std::vector<std::string> words;  ///< KEY=VALUE
    std::string group;               ///< empty: all hosts
    std::string canary = "5%";       ///< share of the hosts that get it first
    std::string wait = "10m";        ///< for which they have to stay well
    bool json = false;
};

struct RolloutPutAnswer {
    PutOutcome outcome = PutOutcome::kUnknown;
    uint64_t revision = 0;
    std::string error;
};

/// What a rollout needs of the world: the broker, time, and whether somebody wants it to end.
class RolloutWorld {
public:
    virtual ~RolloutWorld() = default;
    virtual base::Result<FleetRoster> ReadHosts() = 0;
    virtual base::Result<std::vector<RemoteLevel>> ReadLevels() = 0;
    /// As the stream's leader has it now.
    virtual base::Result<RemoteLevel> ReadLevel(const std::string& level) = 0;
    virtual RolloutPutAnswer Put(const RolloutPut& put) = 0;
    /// Who runs it: user, machine and process.
    virtual RolloutMark Author() = 0;
    virtual int64_t NowSeconds() = 0;  ///< of a clock that never goes back
    /// Returns earlier when somebody wants it to end.
    virtual void Pause(int64_t seconds) = 0;
    virtual int Signals() = 0;                      ///< how many have come that ask it to end
    virtual void Say(const std::string& line) = 0;  ///< one line, without its end
};

/// "5%" or "5". Returns: 0 where it is none of 1 to 100.
int ParseCanaryPercent(const std::string& text);
/// "90s", "10m", "2h", "1d", or seconds. Returns: 0 where it is none, or more than a week.
int64_t ParseRolloutWait(const std::string& text);

/// Looks at what was typed before a broker is asked. Returns: exit code: kOk: it can be done.
int JudgeRollout(const RolloutOptions& options);

/// place: as it was typed, for the commands that are named. Returns: exit code: kOk: all have it, and nothing is left;
/// 1: it has gone back, or something is left; 2: the broker was not reached before anything was put.
int DriveRollout(RolloutWorld& world, const RolloutOptions& options, const FleetPlace& place);

/// At the broker, until it is done. SIGINT, SIGTERM and SIGHUP have it go back; a second one has it leave things as
/// they are and name them. Returns: as above.
int RunRollout(const FleetPlace& place, const RolloutOptions& options);

}  // namespace agent
