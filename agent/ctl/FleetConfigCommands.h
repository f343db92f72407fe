// `tervanectl fleet config ...`: the levels of a fleet's configuration are shown, changed and brought back.
#pragma once

#include <string>

#include "FleetConfigOptions.h"

namespace CLI {
class App;
}

namespace agent {

class FleetLink;

/// Adds the commands below "fleet".
void DeclareFleetConfig(CLI::App& fleet, FleetConfigOptions& options);

/// Looks at what was typed before a broker is asked. Returns: exit code: kOk: it can be done.
int JudgeFleetConfig(const std::string& action, const FleetConfigOptions& options);

/// action: "show", "set", "unset", "history", "undo". Returns: exit code.
int RunFleetConfig(FleetLink& link, const std::string& action, const FleetConfigOptions& options);

}  // namespace agent
