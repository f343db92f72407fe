// What an operator is told about limits that were asked for and do not hold.
#pragma once

#include <string>
#include <vector>

#include "StatusReport.h"

namespace agent {

/// One line for each limit that the mode asks for and that is not in force. `root`: whether this process may make
/// control groups anywhere, so that a missing limit is one that was refused. Pure.
std::vector<std::string> ExplainMissingLimits(const StatusReport& report, bool root);

/// What refuses the memory limit of the legacy mode before the kernel is asked: a pause that is on record, or a list of
/// kernels without this one. Reads those two files.
std::vector<std::string> ExplainMemoryRefusal(const StatusReport& report, const std::string& appDir,
                                              const std::string& configPath);

}  // namespace agent
