// The kernel's clocks as whole numbers.
#pragma once

#include <cstdint>
#include <ctime>

namespace base {

constexpr int64_t kNsPerSecond = 1000000000;

/// Units: ns. Zero where the kernel has no such clock.
inline int64_t ClockNs(clockid_t clock) {
    timespec time{};
    clock_gettime(clock, &time);
    return int64_t{time.tv_sec} * kNsPerSecond + time.tv_nsec;
}

}  // namespace base
