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

}  // namespace agent
