// What `report` and `advise` show, as JSON; the members are those of CONSOLE.md.
#pragma once

#include <json/value.h>

#include <vector>

#include "Advice.h"
#include "ReportPage.h"

namespace agent {

/// Every recorded minute of each group, the host's pressure, what happened, and the findings. Pure.
Json::Value ReportView(const ReportFacts& facts);

/// Pure.
Json::Value AdviceView(const DayHistory& day, const std::vector<GroupAdvice>& advice);

}  // namespace agent
