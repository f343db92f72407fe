// One picture of a running process of the agent: what its console answers and the views show.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "AgentRecords.h"
#include "platform/host/HostRecords.h"
#include "platform/zel/CgroupKeeper.h"
#include "platform/zel/CgroupObserve.h"
#include "platform/zel/CgroupStatus.h"
#include "platform/zel/CgroupTreeStatus.h"

namespace agent {

/// Not more than this is a full disk, as the monitor judges it too.
constexpr unsigned long kLeastFreeBytes = 64UL * 1024 * 1024;
constexpr unsigned long kLeastFreeInodes = 32;
constexpr bool IsRoomShort(unsigned long bytes, unsigned long inodes) {
    return bytes <= kLeastFreeBytes || inodes <= kLeastFreeInodes;
}

struct StatusReport {
    std::string process;
    int pid = 0;
    int64_t now = 0;
    int64_t uptimeSeconds = 0;
    bool starting = false;    ///< nothing has been looked at yet: what is not known to be wrong need not be well
    int mode = 0;             ///< limit mode of the online configuration
    bool unified = false;     ///< a component's group of the unified tree holds this process
    int modeInForce = 0;      ///< bits of the limit mode that hold this process now
    std::string modeReason;   ///< which limits hold this process, and why not others
    int observed = 0;         ///< bits of the limit mode that are only observed
    std::string observation;  ///< which limits, and by whose order; empty: none
    std::vector<zel::ObservedGroup> observedGroups;  ///< what they would have done; from the main process
    uint64_t wouldEnd = 0;                           ///< times it would have ended itself
    std::string configProblem;  ///< why the online configuration's file is refused; empty while it is not
    std::string budgetProblem;  ///< why the tree keeps an older memory limit than is asked for; empty: it does not
    std::string fleetProblem;   ///< what keeps this host from its fleet, as its relay says; else empty
    bool diskFull = false;
    bool cpuNeedLimit[3] = {false, false, false};  ///< answer per priority, now
    std::vector<HoldBackFigures> holdBacks;        ///< by priority, since the process started
    zelhost::SamplerFigures sampler;
    bool samplerRuns = false;
    int64_t descriptorLimit = 0;        ///< how many it may have open; 0: not known, or no limit
    int64_t mainSilentSeconds = 0;      ///< for how long its main thread has done nothing; 0: it works
    int64_t samplingSilentSeconds = 0;  ///< the same of its sampling
    WorkerFigures greedy;
    WorkerFigures polite;
    uint64_t heldMemoryKb = 0;
    uint64_t warnings = 0;
    uint64_t stalls = 0;
    zelhost::DeliveryStats delivery;
    std::vector<ComponentStatus> components;
    zel::CgroupStatus cgroup;              ///< this process's own groups, as the kernel says
    zel::CgroupTreeStatus tree;            ///< the unified tree; empty in the legacy mode
    std::string undelegated;               ///< service whose manager may move processes out of the groups; else empty
    zel::CgroupKeeperStatus keeper;        ///< of the main process: what was put right on the tree
    std::vector<PressureStatus> pressure;  ///< of the host; from the main process
    GroupPressureStatus groupPressure;     ///< of the components in their own groups; likewise
    std::vector<std::string> lastEvents;   ///< delivered last, in words, oldest first
    uint64_t logCount = 0;                 ///< log lines of level 3 or worse so far
    std::vector<std::string> logLines;     ///< the last of them, oldest first
};

/// Why the whole agent's memory limit in the tree is above what groupMaxMemory asks for: the kernel refuses one below
/// what is in use, and then every limit stays as it was. Empty: it is not. Pure.
std::string DescribeBudgetProblem(const StatusReport& report, int groupMaxMemoryMb);
/// Whether a limit that the agent has set holds, rather than one of others alone. Pure.
bool HoldsOwnLimit(const zel::CgroupControllerStatus& controller);
/// Bits of the limit mode: which limits the kernel shows for this process, and whether it is in the tree. Pure.
int ModeInForce(const StatusReport& report);
/// Bits of the limit mode that are asked for and not only observed: CPU and memory. Pure.
int ModeToHold(const StatusReport& report);
/// Bits of the limit mode that are to be only observed and hold this process all the same: CPU and memory. Pure.
int HeldThoughObserved(const StatusReport& report);
/// Those in words, a clause; empty: none. Pure.
std::string DescribeHeldThoughObserved(int limits);
/// Whether a group of the tree holds the process. Pure.
bool IsInUnifiedTree(const zel::CgroupTreeStatus& tree, int pid);
/// What an operator can do about a limit that does not hold, as the kernel's files have it and by whether the limit is
/// asked for. Pure.
std::string AdviseOnMissing(const StatusReport& report, const zel::CgroupControllerStatus& controller, int modeBit);
/// One sentence about a service that is not delegated, with its remedy. Pure.
std::string DescribeUndelegated(const std::string& service);
/// One sentence: which limits hold this process, and what was asked for and does not hold. Pure.
std::string DescribeMode(const StatusReport& report);

}  // namespace agent
