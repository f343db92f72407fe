// What an operator is told about limits that were asked for and do not hold.
#pragma once

#include <string>
#include <vector>

#include "StatusReport.h"

namespace agent {

/// One line for each limit that the mode asks for and that is not in force. `root`: whether this process may make
/// control groups anywhere, so that a missing limit is one that was refused. Pure.
std::vector<std::string> ExplainMissingLimits(const StatusReport& report, bool root);

}  // namespace agent
