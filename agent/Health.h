// Whether a process of the agent is as it should be, and what is wrong where it is not.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "StatusReport.h"

namespace agent {

struct Trouble {
    std::string what;    ///< what it is about and what was seen
    std::string remedy;  ///< what an operator can do
};

/// One for each thing that is not as it was asked for; none when the process is healthy. What is over, as a
/// component that died and runs again, is none. Pure.
std::vector<Trouble> FindTrouble(const StatusReport& report);

/// Returns: what the kernel refused of the memory limit that this key asks for ("groupMaxMemory": of the whole agent,
/// "maxMemory": of one group for everything), with the one that stays; none when the process knows of none. Pure.
std::optional<Trouble> FindRefusedMemory(const StatusReport& report, const std::string& key);

/// One line for a monitoring system: "OK: ...", "STARTING: ..." or "DEGRADED: ...". Pure.
std::string HealthLine(const StatusReport& report);

}  // namespace agent
