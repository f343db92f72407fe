// Where the fleet's broker is and which program speaks to it.
#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "base/Result.h"

namespace agent {

/// As it was typed.
struct FleetPlace {
    std::string appDir;
    std::vector<std::string> servers;  ///< empty: those of the application directory's agent.json
    std::string credentials;           ///< may be empty, where the broker asks for none
    std::string caFile;                ///< empty: as `servers`
    std::string programs;              ///< directory in and below which the relay's program is; empty: this program's
};

struct FleetAccess {
    std::string program;  ///< path of the relay's
    std::string servers;  ///< addresses between commas
    std::string credentials;
    std::string caFile;
    std::chrono::seconds patience{30};  ///< without a word of the program
};

/// Errors: one sentence with what to do: no program, no address, an agent.json that is refused.
base::Result<FleetAccess> FindFleet(const FleetPlace& place);

/// The relay's program for a console in `directory`: beside it, or where programs are that nobody types.
base::Result<std::string> FindRelayProgram(const std::string& directory);

}  // namespace agent
