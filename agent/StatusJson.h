// The status as JSON: what the console's socket answers, and the way back for the programs that show it.
#pragma once

#include <string>

#include "StatusReport.h"
#include "base/Result.h"

namespace agent {

/// For the console and for scripts. Pure.
std::string FormatStatusJson(const StatusReport& report);

/// What another process has said about itself. A member that is missing or of another type stays as a fresh report has
/// it, so that programs of two versions understand each other. Texts come back printable. Pure.
/// Errors: kMalformed when it is no JSON object.
base::Result<StatusReport> ParseStatusJson(const std::string& text);

}  // namespace agent
