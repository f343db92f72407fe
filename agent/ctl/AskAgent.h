// The console's side of a process's socket: one request, one answer.
#pragma once

#include <string>

#include "base/Result.h"

namespace agent {

/// What a process said.
struct Answer {
    bool ok = false;   ///< false: it refused, and `body` says why
    std::string body;  ///< text without the first line
};

/// Asks the process `name` of the agent on `appDir`. Blocks: at most half a minute in all.
/// Errors: the process cannot be reached; the words are for an operator.
base::Result<Answer> AskAgent(const std::string& appDir, const std::string& name, const std::string& request);

}  // namespace agent
