// The console's side of a process's socket: one request, one answer.
#pragma once

#include <string>

#include "ConsoleProtocol.h"
#include "StatusReport.h"
#include "base/Result.h"

namespace agent {

/// Asks the process `name` of the agent on `appDir`. Blocks: at most half a minute in all; about a second when the
/// process is stopped or ends.
/// Errors: kNotFound when none of that name serves there; the process cannot be reached, or its answer is not whole;
/// the words are for an operator.
base::Result<Answer> AskAgent(const std::string& appDir, const std::string& name, const std::string& request);

/// The status in an answer to "status". Pure. Errors: that of the answer, a refusal, a text that is no status.
base::Result<StatusReport> ReadStatus(const base::Result<Answer>& answer);

}  // namespace agent
