// `tervanectl fleet config rollout`: a change of the fleet's configuration that a few hosts try first. Once those have
// stayed well all get it; otherwise, and where somebody ends it, they get back what they had.
#pragma once

#include <string>

#include "FleetAccess.h"
#include "FleetConfigOptions.h"
#include "base/Result.h"
#include "fleet/Rollout.h"

namespace agent {

/// As typed: level and values of `config`, the share as "5%" (or "5"), the time as "90s", "10m", "2h". Errors: a
/// sentence; kInvalidValue: what was typed is not of the form.
base::Result<RolloutPlan> ReadRolloutPlan(const FleetConfigOptions& config);

/// Asks nothing and waits for its end: SIGINT, SIGTERM and SIGHUP bring everything back, a second one gives up on a
/// broker that is away. Returns: exit code.
int RunRollout(const FleetAccess& access, const FleetConfigOptions& config);

}  // namespace agent
