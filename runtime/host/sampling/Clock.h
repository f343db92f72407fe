// The kernel's clocks and ticks as whole nanoseconds.
#pragma once

#include <unistd.h>

#include <algorithm>
#include <cstdint>

#include "base/Clock.h"

namespace zelhost {

using base::ClockNs;
using base::kNsPerSecond;

/// The length of the ticks in which the kernel counts a process's CPU time.
inline int64_t TickNs() {
    static const int64_t tickNs = kNsPerSecond / std::max(1L, sysconf(_SC_CLK_TCK));
    return tickNs;
}

}  // namespace zelhost
