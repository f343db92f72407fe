// The kernel's clocks and ticks as whole nanoseconds.
#pragma once

#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <ctime>

namespace zelhost {

constexpr int64_t kNsPerSecond = 1000000000;

inline int64_t ClockNs(clockid_t clock) {
    timespec ts{};
    clock_gettime(clock, &ts);
    return static_cast<int64_t>(ts.tv_sec) * kNsPerSecond + ts.tv_nsec;
}

/// The length of the ticks in which the kernel counts a process's CPU time.
inline int64_t TickNs() {
    static const int64_t tickNs = kNsPerSecond / std::max(1L, sysconf(_SC_CLK_TCK));
    return tickNs;
}

}  // namespace zelhost
