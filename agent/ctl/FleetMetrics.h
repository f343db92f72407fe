// What `fleet status` knows of hosts and streams, in the text format of Prometheus: for a timer that writes it where a
// node exporter reads text files. Pure.
#pragma once

#include <string>
#include <vector>

#include "FleetCluster.h"
#include "FleetRoster.h"

namespace agent {

std::string FleetMetrics(const FleetCluster& cluster, const FleetRoster& roster,
                         const std::vector<DoctorFinding>& findings);

}  // namespace agent
