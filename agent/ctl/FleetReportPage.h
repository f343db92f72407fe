// The report of a fleet as one page that needs nothing else: its hosts and broker as they are, what happened over the
// period, who stands out, and which host has which configuration. Bounded, however many hosts there are.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "FleetCluster.h"
#include "FleetReportTally.h"
#include "FleetRoster.h"

namespace agent {

/// A key of the configuration that was put or taken away.
struct FleetChange {
    int64_t time = 0;   ///< by the broker
    std::string level;  ///< "all", "group.web"
    uint64_t revision = 0;
    std::string what;  ///< in words
};

struct FleetReportFacts {
    std::string group;    ///< the hosts of this one alone; empty: all
    std::string version;  ///< of the console
    FleetCluster cluster;
    FleetRoster roster;
    std::vector<DoctorFinding> findings;
    FleetTally tally;  ///< its period is the page's
    uint64_t repeated = 0;
    uint64_t unread = 0;
    std::vector<FleetChange> changes;   ///< oldest first
    size_t changesLeftOut = 0;          ///< keys of which not all changes were read
    std::vector<std::string> problems;  ///< what could not be read, in sentences
};

/// How far back the stream of events reaches.
struct StreamReach {
    int64_t from = 0;      ///< of the oldest event; 0: there is none, or it is not known
    bool isWhole = false;  ///< nothing of the period is missing
    std::string note;      ///< a sentence where something is, or may be
};
StreamReach ReachOf(const FleetCluster& cluster, int64_t since);

/// Hosts as the page lists them: what is not well first.
std::vector<const FleetRow*> HostsInOrder(const FleetReportFacts& facts);

/// Hosts with a row over time; more are one row together.
constexpr size_t kShownHostRows = 30;
/// Hosts in the table; more are counted.
constexpr size_t kShownHosts = 300;

/// At most kMostPageBytes. Pure but for the time zone.
std::string MakeFleetPage(const FleetReportFacts& facts);

}  // namespace agent
