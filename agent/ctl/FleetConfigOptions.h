// What is typed after `tervanectl fleet config`.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace agent {

struct FleetConfigOptions {
    std::string host, group;         ///< whose level; both empty: that of all
    bool allLevels = false;          ///< show: those of hosts, and those that were taken away, too
    std::vector<std::string> words;  ///< set: KEY=VALUE; unset: KEY
    uint64_t to = 0;                 ///< undo: the revision to bring back; 0: the one before the last change
    std::string canary;              ///< set, rollout: the share of the hosts that try it first, "5%"
    std::string wait;                ///< for which those have to stay well, "10m"
    bool json = false;

    /// Whether a few hosts are to try the change first.
    bool IsStaged(const std::string& action) const {
        return action == "rollout" || (action == "set" && !(canary.empty() && wait.empty()));
    }
};

}  // namespace agent
