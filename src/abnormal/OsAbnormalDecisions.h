// Decisions of the OS abnormal monitor, on plain values: memory and disk verdicts, swap rates, what is sent when.
#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <map>
#include <string>

/// Counters or rates of the swap indices by name.
using SwapIndexMap = std::map<std::string, uint64_t>;

/// Units: percent. Above this the host is short of memory however much is available.
constexpr int kMemUsageAlwaysAbnormal = 84;
/// Units: percent. From here on the larger floor of available memory holds.
constexpr int kMemUsageHigh = 80;
/// Units: MB, as the platform's memory query gives them.
constexpr unsigned long kAvailableMemHighUsageFloor = 400;
constexpr unsigned long kDefaultAvailableMemThreshold = 200;

/// Units: bytes; the least free space that is not abnormal. 64 MB itself is.
constexpr unsigned long kFreeSpaceFloor = 64UL * 1024 * 1024 + 1;
/// The least number of free inodes that is not abnormal.
constexpr unsigned long kFreeInodesFloor = 33;

/// Units: ticks of the monitor's loop.
constexpr uint64_t kDefaultReportIntervalTicks = 90;
constexpr unsigned long kInitTicks = 1800;
constexpr unsigned long kMemoryCheckTicks = 5;
constexpr unsigned long kDiskCheckTicks = 21600;

/// Returns: the online value when it is 1 or more, else the default.
constexpr unsigned long EffectiveAvailableMemThreshold(long online) {
    return online >= 1 ? static_cast<unsigned long>(online) : kDefaultAvailableMemThreshold;
}
constexpr uint64_t EffectiveReportIntervalTicks(long online) {
    return online >= 1 ? static_cast<uint64_t>(online) : kDefaultReportIntervalTicks;
}

/// Returns: true when the host is short of memory.
constexpr bool IsMemoryShort(int usagePercent, unsigned long available, unsigned long threshold) {
    if (usagePercent > kMemUsageAlwaysAbnormal) return true;
    if (available < threshold || available == 0) return true;
    if (usagePercent < kMemUsageHigh) return false;
    return available < kAvailableMemHighUsageFloor;
}

/// Returns: true when the disk is nearly full.
constexpr bool IsDiskShort(unsigned long freeSpace, unsigned long freeInodes) {
    return freeSpace < kFreeSpaceFloor || freeInodes < kFreeInodesFloor;
}

/// What is to be done with a finding.
struct SendDecision {
    bool send = true;
    bool swapAlarmActive = false;  ///< the new value of the flag
};

/// Decides whether a finding is sent. A swap alarm that was not up yet goes out at once; everything else keeps the
/// interval, except while memory usage rises. The flag is taken down only on a tick divisible by the interval that
/// falls inside a running interval: a report after the interval deliberately leaves it as it is.
/// Requires: `interval` at least 1. The tick can start at 0 again after a restart of the thread: the difference wraps
/// to a huge one and lets the first message through.
constexpr SendDecision DecideSend(uint64_t tick, uint64_t lastReportTick, uint64_t interval, bool swapAlarm,
                                  bool swapAlarmActive, bool memRising) {
    if (swapAlarm && !swapAlarmActive) return {true, true};
    if (tick - lastReportTick >= interval) return {true, swapAlarmActive};
    if (tick % interval == 0) return {true, false};
    return {memRising, swapAlarmActive};
}

/// Increases per second between two samples.
struct SwapRates {
    SwapIndexMap rates;  ///< of the names that are in both samples
    size_t reached = 0;  ///< how many reached their threshold
};

/// Requires: `elapsedSeconds` above 0. A counter that fell gives a huge rate, which counts: the arithmetic is
/// deliberately unsigned.
SwapRates ComputeSwapRates(const SwapIndexMap& previous, const SwapIndexMap& current, uint64_t elapsedSeconds,
                           const SwapIndexMap& thresholds);

/// Returns: true when at least half of the indices reached their threshold.
constexpr bool IsSwapAlarm(size_t reached, size_t thresholdCount) {
    return reached >= thresholdCount / 2;
}

/// Takes the counters that have a threshold from the lines of /proc/vmstat ("name value"), and stops when all of them
/// were found. A value that is no number is left out but counts as found.
void ParseVmstat(const std::list<std::string>& lines, const SwapIndexMap& thresholds, SwapIndexMap& out);
