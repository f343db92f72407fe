// One minute of the day's history as it stands in the statistics store: written by the main process, read by the
// console. Pure.
//
// A row is a JSON object of texts. Key "use/NAME", NAME as in CgroupFigures: eight figures between commas, those that
// are not known left out: CPU time in ms, periods, throttled periods, throttled time in ms, CPU limit in hundredths of
// a percent of one CPU, memory in KB, hits of its limit, that limit in KB. Key "pressure": stall times of the host in
// ms: CPU, memory, memory of all, I/O, I/O of all. Key "observed", where there are any: limits that were only observed,
// whose figures are what would have been. Counters go up; who reads makes the differences.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "base/Result.h"
#include "platform/host/HostRecords.h"
#include "platform/zel/CgroupFigures.h"

namespace agent {

/// Stall times of the host since its boot, in ms; -1: the kernel keeps none.
struct StallTimes {
    int64_t cpuMs = -1;
    int64_t memoryMs = -1;
    int64_t memoryFullMs = -1;
    int64_t ioMs = -1;
    int64_t ioFullMs = -1;
};

struct HistoryRow {
    int64_t time = 0;                        ///< seconds since the epoch
    std::vector<zel::CgroupFigures> groups;  ///< sorted by name
    StallTimes pressure;
    int64_t leftOut = 0;  ///< groups for which there was no room
    int observed = 0;     ///< limits that were only observed, the sum of 1 CPU and 4 memory
};

/// What the groups of one row take at most: a day is 1500 rows, so it stays below 12 MB on disk, and an hour below
/// 0.5 MB in memory, whatever is configured. Groups beyond it are counted. A row of the sample has 0.7 KB.
constexpr size_t kMostRowBytes = 8192;

/// The row's part of a collection of statistics. What is there already stays.
void AddHistoryFigures(const HistoryRow& row, std::map<std::string, std::string>& values);

/// Errors: kMalformed. Other keys are skipped; of a value that is no figure nothing is known.
base::Result<HistoryRow> ParseHistoryRow(int64_t time, const std::string& figures);

/// The rows that are in memory as the console sends them: time, blank, object, a line each.
std::string FormatWaitingRows(const std::vector<zelhost::StatisticsRow>& rows);
/// Lines that are none are skipped.
std::vector<zelhost::StatisticsRow> ParseWaitingRows(const std::string& text);

}  // namespace agent
