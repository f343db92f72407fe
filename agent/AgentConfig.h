// conf/agent.json: where the events of this agent go beside its own file, and its metrics beside their socket.
#pragma once

#include <optional>
#include <string>

#include "AgentRecords.h"
#include "FleetConfig.h"
#include "base/Result.h"
#include "platform/host/HostRecords.h"

namespace agent {

/// What the file may say; without it nothing but the JSON-lines file is written.
struct AgentConfig {
    zelhost::SinkOptions sinks;
    std::string textFile;  ///< empty: none
    unsigned int textFileSeconds = 15;
    PressureThresholds pressure;
    bool observe = false;              ///< limits are only observed
    std::optional<FleetConfig> fleet;  ///< none: the host is in no fleet
};

/// Errors: which key, and what it takes. Pure.
base::Result<AgentConfig> ParseAgentConfig(const std::string& text);

/// Reads the file; one that is not there says nothing. Errors: named with the path; also when others could write it.
/// kMalformed for what it says, any other for what keeps it from being read.
base::Result<AgentConfig> LoadAgentConfig(const std::string& path);

/// Fills in what the file says. The text file is the main process's: the others have none.
void ApplyAgentConfig(const AgentConfig& config, zelhost::HostOptions& host);

}  // namespace agent
