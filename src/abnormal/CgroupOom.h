// Decisions of the out-of-memory detection, on plain values.
#pragma once

#include <cstdint>
#include <limits>

/// Least time between two runtime reports. A group that is killed in a loop is logged each time and reported once.
constexpr int64_t kRuntimeOomReportIntervalSeconds = 300;

/// Returns: how far a cumulative counter rose; 0 when it went backwards, as after a reboot. Never negative.
constexpr int64_t OomCounterIncrease(int64_t current, int64_t stored) {
    if (current < stored) return 0;
    // A stored value can be anything that a hand wrote into the file: saturate instead of overflowing.
    if (stored < 0 && current > std::numeric_limits<int64_t>::max() + stored) {
        return std::numeric_limits<int64_t>::max();
    }
    return current - stored;
}

/// Returns: true when a rise is a kill. A rise of the plain "oom" counter alone is deliberately none: the kernel may
/// have found memory after all.
constexpr bool IsOomKillIncrease(int64_t oomKillIncrease, int64_t oomGroupKillIncrease) {
    return oomKillIncrease >= 1 || oomGroupKillIncrease >= 1;
}

/// Returns: true while a runtime report is held back. `lastReport` 0: none was made yet. A clock that was set back
/// holds reports back until it has caught up.
constexpr bool IsRuntimeOomReportHeldBack(int64_t now, int64_t lastReport) {
    return lastReport != 0 && now - lastReport < kRuntimeOomReportIntervalSeconds;
}
