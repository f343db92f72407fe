// `tervanectl explain ID|last|limits`: the story of an event that was delivered, or of limits that do not hold.
#pragma once

#include <string>

namespace agent {

struct ExplainOptions {
    std::string appDir;
    std::string process;  ///< whose limits; with `named` also whose events
    bool named = false;
    std::string which = "last";  ///< an event's id as it is shown, "last", "limits"
    bool json = false;
};

/// Returns: exit code: 0; 1 when there is no such event, or more than one; 2 for what cannot be read or reached.
int RunExplain(const ExplainOptions& options);

}  // namespace agent
