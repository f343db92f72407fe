// Where the figures of a status and of the agent's metrics come from.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "StatusReport.h"
#include "platform/host/HostRecords.h"

class CMonitor;
namespace zelhost {
class CHostServices;
}

namespace agent {

class ComponentCare;
class EventSink;
class FleetTrouble;
class GroupPressure;
class HostPressure;
class LogTail;
class OwnPulse;
class Workers;

/// The parts of a running process that are asked. Borrowed; each must live as long as somebody asks.
struct StatusSources {
    std::string process;
    std::string appDir;
    std::string configPath;  ///< resource configuration
    int64_t startedAt = 0;   ///< SecondsSinceBoot(); 0: not yet
    CMonitor* monitor = nullptr;
    zelhost::CHostServices* services = nullptr;
    const EventSink* events = nullptr;
    const OwnPulse* pulse = nullptr;
    const LogTail* log = nullptr;                  ///< null: no log yet
    const Workers* workers = nullptr;              ///< null: no synthetic load yet
    const ComponentCare* components = nullptr;     ///< null: not the main process
    const HostPressure* pressure = nullptr;        ///< likewise
    const GroupPressure* groupPressure = nullptr;  ///< likewise
    FleetTrouble* fleetTrouble = nullptr;          ///< likewise
};

/// Asks all of them. Blocks: for small reads of the kernel's files. Any thread.
StatusReport CollectStatus(const StatusSources& sources);

/// The per-thread CPU report, as it is also logged.
std::string ThreadReport(CMonitor& monitor);

/// Adds what workers of this process were told.
void AddHoldBackMetrics(CMonitor& monitor, std::vector<zelhost::Metric>& metrics);

/// Adds the agent's own metrics. The tree is read when somebody asks and not otherwise; one that cannot be read is one
/// without samples.
void AddAgentMetrics(const ComponentCare& components, const HostPressure& pressure, const GroupPressure& groups,
                     std::vector<zelhost::Metric>& metrics);

}  // namespace agent
