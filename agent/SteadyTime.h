// The clock of every schedule: nobody can set it. What people and events are told is wall-clock time instead.
#pragma once

#include <cstdint>
#include <ctime>

namespace agent {

/// Returns: seconds since the host was booted, its sleep included: an hour is an hour for the restart budget.
inline int64_t SecondsSinceBoot() {
    timespec now{};
    clock_gettime(CLOCK_BOOTTIME, &now);
    return now.tv_sec;
}

/// The next second of a rhythm that all processes keep together: its multiples since boot, so that those who wake do so
/// at once, and one awake processor serves them all. Returns: the first multiple of `period` after `second`. Pure.
constexpr int64_t NextOfRhythm(int64_t second, int64_t period) {
    return period <= 1 ? second + 1 : (second / period + 1) * period;
}

/// Returns: what the wall clock would have shown at the second `at` since boot, were it always as it is set now: so far
/// back from `wallNow` as `at` is from `now`, whatever steps it made meanwhile. 0 for 0, which is never. Pure.
constexpr int64_t WallTimeOf(int64_t at, int64_t now, int64_t wallNow) {
    return at == 0 ? 0 : wallNow - (now - at);
}

}  // namespace agent
