// The broker behind a fleet as the console sees it: version, copies of its streams, how full they are; and what is not
// well there or with the hosts, each with what to do. Pure.
#pragma once

#include <json/value.h>

#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "Doctor.h"
#include "FleetRoster.h"
#include "StatusText.h"

namespace agent {

constexpr char kEventStream[] = "EVENTS";

struct StreamReplica {
    std::string name;
    bool current = false;
    uint64_t lag = 0;  ///< messages behind the leader
    bool offline = false;
};

struct FleetStream {
    std::string name;
    std::string problem;  ///< why nothing is known of it; empty: it is
    uint64_t messages = 0;
    int64_t bytes = 0;
    int64_t maxBytes = 0;        ///< 0 or less: none
    uint64_t firstSequence = 0;  ///< of the oldest message; above 1 there were others before it
    std::string discard;         ///< which message a full one goes without: "old" or "new"; empty: not said
    double firstTime = 0;        ///< of the oldest message, seconds since the epoch by the broker; 0: it is empty
    double lastTime = 0;
    uint64_t subjects = 0;
    std::string leader;                   ///< empty on a single node, or where there is none
    std::vector<StreamReplica> replicas;  ///< beside the leader
};

/// What is known of the copies of a stream.
enum class Copies {
    kOne,      ///< there is only one
    kEqual,    ///< all of them are with the leader, by its word; the node that was asked has a version that keeps it
    kLagging,  ///< some are behind
    kOffline,  ///< some are away
    kNotKnown  ///< there is no leader, or it cannot be asked
};
const char* NameOf(Copies copies);

struct FleetCluster {
    std::string version;
    std::string cluster;  ///< its name; empty: a single node
    std::string unfit;    ///< why hosts give it nothing; empty: they do
    std::vector<FleetStream> streams;
};

/// answer: of the request "stream", or why there is none.
FleetStream ReadStream(const std::string& name, const Json::Value& answer);
/// "2.10.27" as a number that orders versions; 0 where it is none.
uint64_t VersionNumber(const std::string& version);
Copies CopiesOf(const FleetCluster& cluster, const FleetStream& stream);
/// Hundredths of a percent of its bytes; -1: it has no limit.
int64_t FillOf(const FleetStream& stream);

/// Everything that is not as it should be, the worst first, each with a remedy.
std::vector<DoctorFinding> JudgeFleet(const FleetCluster& cluster, const FleetRoster& roster);

/// By HostStanding.
using HostCounts = std::array<size_t, std::size(kHostStandingNames)>;
HostCounts CountHosts(const FleetRoster& roster);
/// Hosts by their agents' version.
std::map<std::string, size_t> CountVersions(const FleetRoster& roster);

// --- in words, a clause each ---

std::string DescribeVersions(const FleetRoster& roster);
std::string DescribeBroker(const FleetCluster& cluster);
/// now: by the broker; 0: not known.
std::string DescribeStream(const FleetCluster& cluster, const FleetStream& stream, double now);

std::vector<TextLine> WordFleet(const FleetCluster& cluster, const FleetRoster& roster,
                                const std::vector<DoctorFinding>& findings);
Json::Value FleetJson(const FleetCluster& cluster, const FleetRoster& roster,
                      const std::vector<DoctorFinding>& findings);

}  // namespace agent
