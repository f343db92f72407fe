// What the fleet's commands read from the broker.
#pragma once

#include <string>

#include "CtlExit.h"
#include "FleetCluster.h"
#include "FleetLink.h"
#include "FleetRoster.h"
#include "base/Result.h"

namespace agent {

/// Says it on standard error. Returns: the code.
int FleetFail(CtlExit code, const std::string& sentence);

/// All hosts. Errors: a sentence.
base::Result<FleetRoster> ReadRoster(FleetLink& link);

/// The broker and the streams behind a fleet; what cannot be read of one is said there.
FleetCluster ReadCluster(FleetLink& link);

}  // namespace agent
