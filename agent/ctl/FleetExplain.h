// The story of one event of a fleet's host, as far as the event carries it.
#pragma once

#include <string>

#include "FleetLink.h"

namespace agent {

/// which: "host/ab12-3" as events shows it, or an id. Returns: exit code; 1 when there is none, or more than one.
int ExplainFleetEvent(FleetLink& link, const std::string& which, bool json);

}  // namespace agent
