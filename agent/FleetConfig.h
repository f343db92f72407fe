// The block "fleet" of conf/agent.json: to which broker events go, under which name, and whose configuration is taken.
#pragma once

#include <json/value.h>

#include <string>
#include <tuple>
#include <vector>

#include "base/Result.h"

namespace agent {

struct FleetConfig {
    std::vector<std::string> servers;  ///< "nats://host:port", "tls://host:port"; at least one
    std::string host;                  ///< as it is enrolled; empty: the host's own name
    std::vector<std::string> groups;   ///< by weight, the heaviest last
    std::string caFile;                ///< relative to the application directory, or absolute; empty: none
    std::string credentialsFile;       ///< the same
    bool configuration = true;         ///< the fleet's configuration is taken
    std::string stream = "EVENTS";

    bool operator==(const FleetConfig& other) const {
        return std::tie(servers, host, groups, caFile, credentialsFile, configuration, stream) ==
               std::tie(other.servers, other.host, other.groups, other.caFile, other.credentialsFile,
                        other.configuration, other.stream);
    }
    bool operator!=(const FleetConfig& other) const { return !(*this == other); }
};

/// Whether an address names a user or a password. It is shown in sentences and in the relay's command line.
bool NamesUser(const std::string& server);

/// Pure. Errors: kMalformed, which key and what it takes.
base::Result<FleetConfig> ReadFleetConfig(const Json::Value& block);
base::Result<FleetConfig> ParseFleetConfig(const std::string& block);

/// Returns: the block as one line of JSON, which reads as the same again.
std::string FormatFleetConfig(const FleetConfig& config);

/// Returns: the name under which this host is enrolled.
std::string FleetHost(const FleetConfig& config);

/// Returns: the path of a file that the block names; empty where it names none.
std::string FleetFile(const std::string& appDir, const std::string& named);

}  // namespace agent
