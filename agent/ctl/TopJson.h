// One look of `top` as JSON; the members are those of CONSOLE.md.
#pragma once

#include <json/value.h>

#include "Cooperation.h"
#include "StatusReport.h"
#include "TopHistory.h"

namespace agent {

/// Use of each group since the look before, who holds back, the lines of the log that are new. Pure.
Json::Value TopLook(const StatusReport& report, const TopHistory& history, const Cooperation& cooperation);

}  // namespace agent
