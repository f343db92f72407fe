// Facts about the host's memory.
#pragma once

#include "platform/zel/Export.h"

namespace zel {

/// Thread-safety: any thread, stateless.
class ZEL_API COSInfo {
public:
    /// Share of the host's memory that is in use.
    /// Units: percent 0..100 of MemTotal, as 100 - 100 * MemAvailable / MemTotal; `available` (may be null) in MB.
    /// On failure: -1, and `available` untouched.
    /// Kernel: MemAvailable exists since 3.14; before, free + buffers + cached stands in.
    /// Source: proc(5), /proc/meminfo.
    static int GetMemoryUsage(unsigned long* available);
};

}  // namespace zel
