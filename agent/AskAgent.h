// The console's side of a process's socket: one request, one answer.
#pragma once

#include <chrono>
#include <string>

#include "ConsoleProtocol.h"
#include "StatusReport.h"
#include "base/Result.h"

namespace agent {

/// For the whole of it: to be let in, to ask, and to hear the answer, which may take as long as the agent allows.
constexpr std::chrono::seconds kAgentPatience(30);

/// Asks the process `name` of the agent on `appDir`. Blocks: at most `patience` in all; about a second when the process
/// is stopped or ends.
/// Errors: kNotFound when none of that name serves there; the process cannot be reached, or its answer is not whole;
/// the words are for an operator.
base::Result<Answer> AskAgent(const std::string& appDir, const std::string& name, const std::string& request,
                              std::chrono::milliseconds patience = kAgentPatience);

/// The status in an answer to "status". Pure. Errors: that of the answer, a refusal, a text that is no status.
base::Result<StatusReport> ReadStatus(const base::Result<Answer>& answer);

/// Returns: the resource file of the process that runs, which --config may have put elsewhere; empty: it does not
/// answer. Blocks: as AskAgent.
std::string AskResourceFile(const std::string& appDir, const std::string& process);

}  // namespace agent
