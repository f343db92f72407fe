// `tervanectl fleet config ...`: the levels of a fleet's configuration are shown, changed and brought back.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace agent {

class FleetLink;

struct FleetConfigOptions {
    std::string host, group;         ///< whose level; both empty: that of all
    bool allLevels = false;          ///< show: those of hosts, and those that were taken away, too
    std::vector<std::string> words;  ///< set: KEY=VALUE; unset: KEY
    std::string canary, wait;        ///< set, rollout: as in RolloutOptions; of a plain set both are empty
    uint64_t to = 0;                 ///< undo: the revision to bring back; 0: the one before the last change
    bool json = false;
};

/// Adds the commands below "fleet".
void DeclareFleetConfig(CLI::App& fleet, FleetConfigOptions& options);

/// Looks at what was typed before a broker is asked. Returns: exit code: kOk: it can be done.
int JudgeFleetConfig(const std::string& action, const FleetConfigOptions& options);

/// action: "show", "set", "unset", "history", "undo". Returns: exit code.
int RunFleetConfig(FleetLink& link, const std::string& action, const FleetConfigOptions& options);

}  // namespace agent
