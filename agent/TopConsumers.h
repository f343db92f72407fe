// Which processes of the host take the most, between two looks at all of them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "base/Pressure.h"
#include "base/ProcFiles.h"

namespace agent {

/// One process as it stood at a look.
struct ProcessUse {
    int pid = 0;
    uint64_t startTicks = 0;
    std::string name;
    uint64_t cpuTicks = 0;
    int64_t residentKb = 0;
    base::ProcIo io;
};

/// One process over the time between two looks.
struct Consumer {
    int pid = 0;
    std::string name;
    int64_t cpu100Times = 0;  ///< Units: hundredths of a percent of one CPU
    int64_t residentKb = 0;
    int64_t readKbps = 0;
    int64_t writeKbps = 0;
};

/// Looks at every process, at most `most` of them; `withIo`: also at what they read and write, one more file each.
/// Reads /proc. Returns: sorted by number; those that cannot be read are left out.
std::vector<ProcessUse> LookAtProcesses(bool withIo, size_t most);

/// The time between two looks.
struct LookSpan {
    int64_t firstMs = 0;    ///< when the first look was over, since boot
    int64_t elapsedMs = 1;  ///< more than 0
    long ticksPerSecond = 100;
};

/// Returns: the `count` that took most of the resource, the greatest first; without those that took nothing. A process
/// that began between the looks counts from its start; of one that the first look missed nothing is known but its
/// memory. Pure.
std::vector<Consumer> FindTopConsumers(const std::vector<ProcessUse>& before, const std::vector<ProcessUse>& after,
                                       const LookSpan& span, base::PressureResource resource, size_t count);

}  // namespace agent
