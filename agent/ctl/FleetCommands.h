// `tervanectl fleet ...`: the hosts of a fleet, their events and their configuration, through its broker.
#pragma once

#include <string>
#include <vector>

#include "FleetAccess.h"
#include "FleetConfigCommands.h"
#include "FleetEvents.h"
#include "FleetSetup.h"
#include "FleetReport.h"

namespace CLI {
class App;
}

namespace agent {

struct FleetOptions {
    FleetPlace place;
    std::string command;  ///< words below "fleet": "hosts", "config set"
    bool json = false;
    std::string group;  ///< of hosts
    std::string state;
    FleetEventsOptions events;
    std::string event;  ///< to be explained
    FleetSetupOptions setup;
    FleetConfigOptions config;
    FleetReportOptions report;
};

/// Adds the group of commands to the command line.
void DeclareFleet(CLI::App& app, FleetOptions& options);
/// Takes from the parsed command line which of them was asked for.
void NoteFleetCommand(const CLI::App& app, FleetOptions& options);

/// Returns: exit code: 0; 1 for something that is not well or was refused; 2 when the broker is not reached; 11.
int RunFleet(const FleetOptions& options);

}  // namespace agent
