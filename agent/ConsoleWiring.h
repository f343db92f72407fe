// What the console's requests do in a process of the agent.
#pragma once

#include "ControlServer.h"
#include "StatusCollect.h"

namespace agent {

/// Requires: the sources stay as they are for as long as the console runs.
ConsoleActions MakeConsoleActions(const StatusSources& sources);

}  // namespace agent
