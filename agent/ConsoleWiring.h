// What the console's requests do in a process of the agent.
#pragma once

#include <functional>

#include "ControlServer.h"
#include "StatusCollect.h"

namespace agent {

/// `wantConfig`: has the main thread read conf/agent.json again; called from any thread.
/// Requires: the sources stay as they are for as long as the console runs.
ConsoleActions MakeConsoleActions(const StatusSources& sources, std::function<void()> wantConfig);

}  // namespace agent
