// What the day's history says about limits: how far they were used, how often they were hit, and which would do.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "DayHistory.h"

namespace agent {

/// One limit of one group, by the minutes in which it was only observed or by those in which it held, not by both.
/// Units: hundredths of a percent of one CPU, or KB.
struct LimitAdvice {
    int64_t peak = -1;  ///< highest minute; -1: nothing known
    int64_t p99 = -1;
    int64_t limit = 0;       ///< in force at the end; 0: none
    int64_t hitMinutes = 0;  ///< minutes in which it held the group back, or was reached
    int64_t knownMinutes = 0;
    int64_t proposal = 0;  ///< 0: none, too little is known
    bool raised = false;   ///< the limit was hit so much that what is needed cannot be seen: raise it and look again
    bool bursts = false;   ///< the limit held back bursts of a group that takes far less on the whole
};

struct GroupAdvice {
    std::string name;
    LimitAdvice cpu;
    LimitAdvice memory;
};

/// Fewer minutes than this are no ground for a limit.
constexpr int64_t kLeastMinutes = 10;

/// Pure.
std::vector<GroupAdvice> MakeAdvice(const DayHistory& day);

/// "with these limits, in the last ...", a line for each group, of the minutes in which they were only observed; empty
/// where there is none. Pure.
std::string ObservedText(const DayHistory& day);

/// A table and what it means. Pure.
std::string AdviceText(const DayHistory& day, const std::vector<GroupAdvice>& advice);

}  // namespace agent
