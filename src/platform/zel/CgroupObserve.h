// Limits that are only observed: everything is decided as if they held, nothing of it is written, and what they would
// have done is reckoned from the processes themselves.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/zel/CgroupFigures.h"
#include "platform/zel/CgroupKeeper.h"
#include "platform/zel/Export.h"

namespace zel {

/// Who can order it. A limit is observed while any of them wants it to be.
enum class ObservationOrder {
    kAgent,         ///< the command line or conf/agent.json
    kOnlineConfig,  ///< key observedLimits
};

/// `limits`: a sum of kModeCpu and kModeMemory; 0: none. What is in force already changes with FollowObservedLimits or
/// with the next change of the limits. To be called before the monitor is started. Any thread.
ZEL_API void ObserveLimits(ObservationOrder order, int limits);

/// Returns: the sum of those that are observed now; of one order alone. Any thread; an atomic load.
ZEL_API int ObservedLimits();
ZEL_API int ObservedLimits(ObservationOrder order);

/// Brings what this process was asked for last into line with what is observed now: takes limits off, or puts them in
/// force. What fails is in the log and tried again a minute later.
/// Any thread; nearly nothing while nothing has changed. Blocks: for a change of the limits.
/// Returns: whether the component file was written anew, so that the components are to be told.
ZEL_API bool FollowObservedLimits();

/// One group as it would be, or all of the agent (empty name), since it is observed.
struct ObservedGroup {
    /// Counters as the kernel would keep them, as far as that can be told from looks some seconds apart: bursts in
    /// between are not seen, so throttling is told as less than it would be. Of a limit that is not observed: 0 or -1.
    CgroupFigures figures;
    int64_t observedMs = 0;    ///< for how long
    int peakCpu100Times = 0;   ///< between two looks
    int64_t peakMemoryKb = 0;  ///< at a look
    uint64_t memoryKills = 0;  ///< times the kernel would have killed a process for the limit on memory
    int64_t lastKillAt = 0;    ///< wall clock; 0: never
};

/// Returns: what is observed, sorted by name; nothing in a process that looks at no components.
ZEL_API std::vector<ObservedGroup> ReadObservedGroups();

/// A process that the kernel would have killed.
struct ObservedKill {
    std::string group;      ///< whose limit: "GROUP/COMPONENT", "GROUP", or empty: all of the agent
    std::string component;  ///< of the largest process in it
    int pid = 0;
    int64_t usedKb = 0;  ///< of the group, of what the kernel could not have taken back
    int64_t limitKb = 0;
};

/// One look at the components' processes and those that they have started; the main process is looked at too.
/// `kills`: each once while its group stays above the limit, and once an hour.
/// Thread-safety: one thread at a time. Blocks: for small reads of /proc, of every process of the host.
ZEL_API void ObserveComponents(const std::vector<CgroupMember>& members, std::vector<ObservedKill>& kills);

}  // namespace zel
