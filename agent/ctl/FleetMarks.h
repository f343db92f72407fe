// Rollouts as the levels of their first hosts tell of them: who runs one, or has left one behind, and what takes it
// back.
#pragma once

#include <json/value.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "FleetLevels.h"
#include "fleet/Rollout.h"

namespace agent {

/// This process as the author of a rollout: user, machine and process.
RolloutMark OwnRolloutMark();

/// For a shell, as one word.
std::string ShellWord(const std::string& word);

/// One rollout and the hosts whose levels have its mark.
struct MarkedRollout {
    RolloutMark mark;
    std::vector<std::string> hosts;  ///< written as in keys
    bool isAbandoned = false;        ///< its time is over, or its process was this machine's and is gone
};
/// levels: those of hosts count, a key that comes twice with its higher revision. now: by the broker.
std::vector<MarkedRollout> FindRollouts(const std::vector<LevelEntry>& levels, int64_t now);

/// "a rollout of all (maxCpu=20), begun 2026-02-03 10:00:00 by ann on c1 (process 17), on web.1 and 2 more hosts".
std::string WordRollout(const MarkedRollout& rollout);
/// The commands that take it back, one for each host.
std::vector<std::string> WaysBack(const MarkedRollout& rollout);
/// What to do about it: one sentence without its end.
std::string RemedyOf(const MarkedRollout& rollout);

/// Why a level is not changed because of it, and what to do: one sentence without its end.
std::string WordRefusal(const std::string& level, const MarkedRollout& rollout);

/// Which of them a change of a level would meddle with: of a host's own level any; of another one those that go on, and
/// change that level or have a first host that reads it. Returns: null: none.
const MarkedRollout* FindMeddled(const std::vector<MarkedRollout>& rollouts, const FleetRoster& roster,
                                 const std::string& level);

Json::Value RolloutJson(const MarkedRollout& rollout);

}  // namespace agent
