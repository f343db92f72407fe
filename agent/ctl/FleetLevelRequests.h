// What the fleet's commands ask of the bucket with the levels of its configuration.
#pragma once

#include <string>
#include <vector>

#include "FleetLevels.h"
#include "FleetLink.h"
#include "base/Result.h"

namespace agent {

/// level: empty where the request is for all.
Json::Value LevelRequest(const char* op, const std::string& level);

/// As the broker has it now. Errors: a sentence; kNoServer: there was no answer.
base::Result<LevelEntry> ReadLevel(FleetLink& link, const std::string& level);

/// All levels ("keys"), or the states of one that the broker still has ("history"). Errors: as above.
base::Result<std::vector<LevelEntry>> ReadLevels(FleetLink& link, const char* op, const std::string& level);

}  // namespace agent
