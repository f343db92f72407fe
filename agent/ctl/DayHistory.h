// The day's history as the views need it: rows of the statistics store and of the running process, and the use of each
// group between two of them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "HistoryRow.h"
#include "base/Result.h"

namespace agent {

/// A group between two rows. What is not known is -1.
struct UsePoint {
    int64_t from = 0;
    int64_t to = 0;
    int64_t cpu100Times = -1;        ///< hundredths of a percent of one CPU
    int64_t throttled100Times = -1;  ///< hundredths of a percent of the periods in which it ran
    int64_t throttledMs = -1;
    int64_t memoryKb = -1;  ///< at the end
    int64_t hits = -1;      ///< of the memory limit; since the last row that has them
    int cpuLimit100Times = 0;
    int memoryLimitKb = 0;
    int observed = 0;  ///< limits that were only observed: throttling and hits are what would have been
};

struct GroupUse {
    std::string name;
    std::vector<UsePoint> points;
};

/// Stall time of the host, in hundredths of a percent.
struct PressurePoint {
    int64_t from = 0;
    int64_t to = 0;
    int64_t cpu = -1;
    int64_t memory = -1;
    int64_t io = -1;
};

struct DayHistory {
    int64_t from = 0;  ///< of the first row; 0: there is none
    int64_t to = 0;
    size_t rows = 0;
    std::vector<GroupUse> groups;  ///< the whole agent first, each group before its components
    std::vector<PressurePoint> pressure;
    int observed = 0;                   ///< limits that were only observed in any row
    int observedAtEnd = 0;              ///< in the last one
    size_t observedRows = 0;            ///< rows in which one was
    int64_t leftOut = 0;                ///< groups for which the store had no room
    std::vector<std::string> problems;  ///< what could not be read, in sentences
};

/// Between rows that are farther apart nothing is known: the agent was down, or lost them.
constexpr int64_t kMostGapSeconds = 200;
/// More groups than this are left out, and counted.
constexpr size_t kMostGroups = 128;

/// Pure. `rows` in any order; those before `since` and those that came twice do not count.
DayHistory MakeDayHistory(std::vector<HistoryRow> rows, int64_t since);

/// Reads the store and asks the main process for what it has not written yet. Blocks: for the answer, as AskAgent.
/// Errors: none; what could not be read is among the problems.
DayHistory ReadDayHistory(const std::string& appDir, int64_t since);

}  // namespace agent
