// What the kernel says about this process's control groups: for a live view and for an operator's question "is it
// limited, and if not, why". Read-only.
#pragma once

#include <cstdint>
#include <string>

#include "platform/zel/Export.h"

namespace zel {

/// One controller as it applies to one process.
struct CgroupControllerStatus {
    int version = 0;            ///< 0: none, 1, 2
    std::string hierarchyPath;  ///< where the hierarchy is mounted
    std::string groupPath;      ///< directory of the process's own group; empty when this mount does not show it
    bool limited = false;       ///< a limit holds, set on the group or on one above it
    bool byOthers = false;      ///< and none of the agent's own groups on the way up carries one
    std::string limitPath;      ///< directory of the group whose limit is the tightest; empty when not limited
    std::string reason;         ///< one sentence: what holds, or why nothing does
    std::string advice;         ///< what to do about it; empty when there is nothing to do
};

struct CgroupCpuStatus : CgroupControllerStatus {
    int limit100Times = 0;  ///< hundredths of a percent of one CPU; 0: no limit
    int64_t quotaUs = -1;   ///< -1: no limit
    int64_t periodUs = 0;
    /// Counters of the limiting group, of the own group when there is none. -1: the kernel keeps none.
    int64_t periods = -1;
    int64_t throttledPeriods = -1;
    int64_t throttledUs = -1;
    int64_t usageUs = -1;  ///< CPU time of that group; -1: the kernel does not keep it there
};

struct CgroupMemStatus : CgroupControllerStatus {
    int64_t limitBytes = -1;      ///< -1: no limit
    int64_t softLimitBytes = -1;  ///< version 1 only
    int64_t usageBytes = -1;      ///< of the limiting group, of the own group when there is none
    int64_t limitHits = -1;       ///< times the limit was reached
    int64_t oomKills = -1;        ///< processes of the own group (version 2: and below) that the kernel killed
};

struct CgroupStatus {
    CgroupCpuStatus cpu;
    CgroupMemStatus mem;
};

/// Reads the status of a process; 0: this one.
/// Thread-safety: any thread. Blocks: for a few small reads of the kernel's files.
/// Returns: false when the process or /proc cannot be read, and the output stays untouched.
ZEL_API bool ReadCgroupStatus(CgroupStatus& out, int pid = 0);

/// The CPU limit alone, as often as somebody wants to know: what stands in the groups is read when something tells of a
/// change, and only where the process is each time.
/// Thread-safety: any thread.
/// Returns: hundredths of a percent of one CPU; 0: no limit, or no such process.
ZEL_API int ReadCgroupCpuLimit(int pid);

/// Returns: how often to ask for a process's limit of which nothing tells. A change without a word of the kernel's is
/// seen within half an hour. Units: milliseconds.
ZEL_API int64_t CgroupLimitRhythmMs();

}  // namespace zel
